# Installs the rules library and the foundation that it rests on into an empty directory, builds the example and a
# program with a property bag of its own against it there, and runs them.
#   BUILD_DIR    the project's build directory, with the libraries built
#   SOURCE_DIR   the project
#   CXX, CXX_FLAGS, NM

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}\n${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(work ${BUILD_DIR}/rules-package-test)
file(REMOVE_RECURSE ${work})
set(prefix ${work}/prefix)
foreach(component foundation foundation-dev rules rules-dev)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component ${component})
endforeach()

# Only the example's source and this program's leave the project.
file(COPY ${SOURCE_DIR}/tests/package/rules/CMakeLists.txt ${SOURCE_DIR}/tests/package/rules/own_bag.cpp
  ${SOURCE_DIR}/examples/rules_library/next_windows.cpp DESTINATION ${work}/source)
run(${CMAKE_COMMAND} -S ${work}/source -B ${work}/build -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
  -DINCLUDE_ROOT=${prefix}/include/qxsched -DEXAMPLE=${work}/source/next_windows.cpp -DCMAKE_CXX_COMPILER=${CXX}
  -DCMAKE_CXX_FLAGS=${CXX_FLAGS})
run(${CMAKE_COMMAND} --build ${work}/build -j 1)

file(READ ${work}/build/rules_directory rules_directory)
set(ENV{LD_LIBRARY_PATH} ${rules_directory})
run(${CMAKE_COMMAND} -DPROGRAM=${work}/build/next_windows -DLIBRARY=${rules_directory}/libqxZepSchedule2U.so -DNM=${NM}
  -P ${SOURCE_DIR}/examples/rules_library/check.cmake)
run(${work}/build/own_bag ${rules_directory})
if(NOT output STREQUAL "21 properties, name nightly, day 31 1, same name 1\n")
  message(FATAL_ERROR "own_bag printed \"${output}\"")
endif()
file(REMOVE_RECURSE ${work})
