# Installs a component of the package QxSched into an empty directory, builds programs against it there by the CMake
# package and, where it has one, by the pkg-config file, runs them, and looks at what its library exports.
#   COMPONENT    Foundation, Rules or Client; COMPONENT.cmake beside this file says what is particular to it
#   BUILD_DIR    the project's build directory, with the libraries built
#   SOURCE_DIR   the project
#   CXX, CXX_FLAGS, NM, PKG_CONFIG
#
# COMPONENT.cmake sets
#   installed    the install components
#   headers      see CMakeLists.txt
#   programs     likewise
#   pkg_config   the module and the source of a program pc_user to build by it; may be empty
#   library      the shared library whose exports are looked at; may be empty
#   symbols      a pattern that each exported symbol matches; inner_symbols: one that none matches; fewest_symbols
# and the macro check_programs(), which runs the programs in ${work}/build. ${library_dir} is where the library lies.

cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}\n${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(package ${SOURCE_DIR}/tests/package)
include(${package}/${COMPONENT}.cmake)
set(work ${BUILD_DIR}/package-test-${COMPONENT})
set(prefix ${work}/prefix)
file(REMOVE_RECURSE ${work})
foreach(component ${installed})
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component ${component})
endforeach()

# Only the programs' sources leave the project.
file(COPY ${package}/CMakeLists.txt DESTINATION ${work}/source)
foreach(program ${programs})
  string(REGEX MATCH "[^|]*$" source ${program})
  file(COPY ${source} DESTINATION ${work}/source)
endforeach()
string(REGEX REPLACE "\\|[^|;]*/" "|" programs "${programs}")
string(REPLACE ";" "," programs "${programs}")
run(${CMAKE_COMMAND} -S ${work}/source -B ${work}/build -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
  -DINCLUDE_ROOT=${prefix}/include/qxsched -DCOMPONENT=${COMPONENT} -DHEADERS=${headers} "-DPROGRAMS=${programs}"
  -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${CXX_FLAGS})
run(${CMAKE_COMMAND} --build ${work}/build -j 1)

if(pkg_config)
  list(GET pkg_config 0 module)
  list(GET pkg_config 1 source)
  file(GLOB_RECURSE pc ${prefix}/*/${module}.pc)
  cmake_path(GET pc PARENT_PATH pc_dir)
  run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} ${PKG_CONFIG} --cflags --libs ${module})
  separate_arguments(flags UNIX_COMMAND "${CXX_FLAGS} -std=c++20")
  separate_arguments(pc_flags UNIX_COMMAND "${output}")
  run(${CXX} ${flags} ${source} -o ${work}/build/pc_user ${pc_flags})
endif()

if(library)
  file(GLOB_RECURSE library ${prefix}/*/${library})
  cmake_path(GET library PARENT_PATH library_dir)
  run(${NM} --dynamic --defined-only --demangle ${library})
  string(REPLACE ";" "," output "${output}")
  string(REPLACE "\n" ";" exported "${output}")
  list(LENGTH exported count)
  if(count LESS fewest_symbols)
    message(FATAL_ERROR "only ${count} symbols are exported")
  endif()
  foreach(symbol ${exported})
    if(NOT symbol MATCHES "${symbols}")
      message(FATAL_ERROR "exported, but not meant for it: ${symbol}")
    endif()
    if(symbol MATCHES "${inner_symbols}")
      message(FATAL_ERROR "exported from the inside: ${symbol}")
    endif()
  endforeach()
endif()

check_programs()
file(REMOVE_RECURSE ${work})
