# Installs the foundation library into an empty directory, builds programs against it there, runs them, and looks at what
# the shared library exports.
#   BUILD_DIR    the project's build directory, with the library built
#   SOURCE_DIR   the project
#   CXX, CXX_FLAGS, NM, PKG_CONFIG
#   EXPECTED     what the program prints

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}\n${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(work ${BUILD_DIR}/package-test)
file(REMOVE_RECURSE ${work})
set(prefix ${work}/prefix)
foreach(component foundation foundation-dev)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component ${component})
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package -B ${work}/build -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
  -DINCLUDE_ROOT=${prefix}/include/qxsched -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${CXX_FLAGS})
run(${CMAKE_COMMAND} --build ${work}/build -j 1)

# The same by the pkg-config file.
file(GLOB_RECURSE pc ${prefix}/*/qxsched-foundation.pc)
cmake_path(GET pc PARENT_PATH pc_dir)
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} ${PKG_CONFIG} --cflags --libs qxsched-foundation)
separate_arguments(flags UNIX_COMMAND "${CXX_FLAGS} -std=c++20")
separate_arguments(pc_flags UNIX_COMMAND "${output}")
run(${CXX} ${flags} ${SOURCE_DIR}/tests/package/user.cpp -o ${work}/build/user_pc ${pc_flags})

file(GLOB_RECURSE library ${prefix}/*/libqxZepFoundation.so)
cmake_path(GET library PARENT_PATH library_dir)
foreach(program user_shared user_static user_pc)
  file(MAKE_DIRECTORY ${work}/${program})
  run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${library_dir} ${work}/build/${program} ${work}/${program})
  if(NOT output STREQUAL "${EXPECTED}\n")
    message(FATAL_ERROR "${program} printed \"${output}\" instead of \"${EXPECTED}\"")
  endif()
endforeach()

run(${NM} --dynamic --defined-only --demangle ${library})
string(REPLACE ";" "," output "${output}")
string(REPLACE "\n" ";" symbols "${output}")
list(LENGTH symbols count)
if(count LESS 300)
  message(FATAL_ERROR "only ${count} symbols are exported")
endif()
foreach(symbol ${symbols})
  if(NOT symbol MATCHES "ZepFoundation::|platform::| Zep[A-Z]")
    message(FATAL_ERROR "exported, but not meant for it: ${symbol}")
  endif()
  if(symbol MATCHES "ZepFoundation::\\(anonymous")
    message(FATAL_ERROR "exported from the inside: ${symbol}")
  endif()
endforeach()
file(REMOVE_RECURSE ${work})
