# Runs the example against the library's file and looks at what both hold.
#   PROGRAM, LIBRARY   their files
#   NM                 the program that lists symbols

cmake_path(GET LIBRARY PARENT_PATH directory)

# The zone is the test's own.
set(ENV{TZ} "EST5EDT,M3.2.0,M11.1.0")
execute_process(COMMAND ${PROGRAM} ${directory} 4 RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
set(expected "the last Friday of each month, 22:00 to 02:00, from 2024-02-01 00:00
2024-02-23 22:00 to 2024-02-24 02:00
2024-03-29 22:00 to 2024-03-30 02:00
2024-04-26 22:00 to 2024-04-27 02:00
2024-05-31 22:00 to 2024-06-01 02:00
")
if(NOT result STREQUAL "0" OR NOT output STREQUAL expected)
  message(FATAL_ERROR "${PROGRAM} gave ${result} and printed\n${output}${errors}instead of\n${expected}")
endif()

# Without the file there is nothing: the library isn't linked in.
cmake_path(GET PROGRAM PARENT_PATH elsewhere)
execute_process(COMMAND ${PROGRAM} ${elsewhere}/no-such-directory RESULT_VARIABLE result OUTPUT_VARIABLE output
                ERROR_VARIABLE errors)
if(NOT result STREQUAL "1" OR NOT errors MATCHES "can't load the rules library: 0x80010009" OR NOT output STREQUAL "")
  message(FATAL_ERROR "without the library: ${result}\n${output}${errors}")
endif()

execute_process(COMMAND ${NM} --dynamic --defined-only --format=just-symbols ${LIBRARY} OUTPUT_VARIABLE exports
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "\n$" "" exports "${exports}")
string(REPLACE "\n" ";" exports "${exports}")
list(SORT exports)
if(NOT exports STREQUAL "ZepScheduleFactory;ZepScheduleInitialize")
  message(FATAL_ERROR "${LIBRARY} exports: ${exports}")
endif()
