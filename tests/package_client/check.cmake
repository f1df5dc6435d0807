# Installs the client library into an empty directory, builds the example against it there by the CMake package and by
# the pkg-config file, and looks at what the library exports. The example finds no bus where it is run; tests/ runs it
# against a service.
#   BUILD_DIR    the project's build directory, with the library built
#   SOURCE_DIR   the project
#   CXX, CXX_FLAGS, NM, PKG_CONFIG

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}\n${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(work ${BUILD_DIR}/package-client-test)
file(REMOVE_RECURSE ${work})
set(prefix ${work}/prefix)
foreach(component client client-dev)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component ${component})
endforeach()

set(example ${SOURCE_DIR}/examples/client/watch.cpp)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package_client -B ${work}/build -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
  -DINCLUDE_ROOT=${prefix}/include/qxsched -DEXAMPLE=${example} -DCMAKE_CXX_COMPILER=${CXX}
  -DCMAKE_CXX_FLAGS=${CXX_FLAGS})
run(${CMAKE_COMMAND} --build ${work}/build -j 1)

file(GLOB_RECURSE pc ${prefix}/*/qxsched-client.pc)
cmake_path(GET pc PARENT_PATH pc_dir)
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} ${PKG_CONFIG} --cflags --libs qxsched-client)
separate_arguments(flags UNIX_COMMAND "${CXX_FLAGS} -std=c++20")
separate_arguments(pc_flags UNIX_COMMAND "${output}")
run(${CXX} ${flags} ${example} -o ${work}/build/watch_pc ${pc_flags})

file(GLOB_RECURSE library ${prefix}/*/libqxschedclient.so)
cmake_path(GET library PARENT_PATH library_dir)
foreach(program watch watch_pc)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${library_dir} ${work}/build/${program}
                          unix:path=${work}/no-bus
                  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 1 OR NOT errors STREQUAL "connect: no connection to the message bus\n")
    message(FATAL_ERROR "${program} ended with ${result}: ${output}${errors}")
  endif()
endforeach()

run(${NM} --dynamic --defined-only --demangle ${library})
string(REPLACE ";" "," output "${output}")
string(REPLACE "\n" ";" symbols "${output}")
list(LENGTH symbols count)
if(count LESS 30)
  message(FATAL_ERROR "only ${count} symbols are exported")
endif()
foreach(symbol ${symbols})
  if(NOT symbol MATCHES " (platform::|qx::(SchedulerClient::|DescribeStatus|FormatStatus)|(vtable|typeinfo|typeinfo name) for qx::SchedulerClient)"
     OR symbol MATCHES "Impl::|anonymous")
    message(FATAL_ERROR "exported, but not meant for it: ${symbol}")
  endif()
endforeach()
file(REMOVE_RECURSE ${work})
