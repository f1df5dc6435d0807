# The client library with its example, which finds no bus where it is run; tests/ runs it against a service.
set(installed client client-dev)
set(headers *.h)
set(programs watch|QxSched::Client|${SOURCE_DIR}/examples/client/watch.cpp)
set(pkg_config qxsched-client ${SOURCE_DIR}/examples/client/watch.cpp)
set(library libqxschedclient.so)
set(symbols
  " (platform::|qx::(SchedulerClient::|DescribeStatus|FormatStatus)|(vtable|typeinfo|typeinfo name) for qx::SchedulerClient)")
set(inner_symbols "Impl::|anonymous")
set(fewest_symbols 30)

macro(check_programs)
  foreach(program watch pc_user)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${library_dir} ${work}/build/${program}
                            unix:path=${work}/no-bus
                    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
    if(NOT result EQUAL 1 OR NOT errors STREQUAL "connect: no connection to the message bus\n")
      message(FATAL_ERROR "${program} ended with ${result}: ${output}${errors}")
    endif()
  endforeach()
endmacro()
