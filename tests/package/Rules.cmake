# The rules library with the foundation that it rests on: the example as it stands, and a program with a property bag of
# its own. The example's check looks at what the library exports.
set(installed foundation foundation-dev rules rules-dev)
set(headers common/*.h)
set(programs next_windows|QxSched::Rules|${SOURCE_DIR}/examples/rules_library/next_windows.cpp
    own_bag|QxSched::Rules|${package}/own_bag.cpp)
set(pkg_config)
set(library)

macro(check_programs)
  file(READ ${work}/build/rules_directory rules_directory)
  file(GLOB_RECURSE foundation ${prefix}/*/libqxZepFoundation.so)
  cmake_path(GET foundation PARENT_PATH foundation_dir)
  set(ENV{LD_LIBRARY_PATH} ${foundation_dir})
  run(${CMAKE_COMMAND} -DPROGRAM=${work}/build/next_windows -DLIBRARY=${rules_directory}/libqxZepSchedule2U.so -DNM=${NM}
    -P ${SOURCE_DIR}/examples/rules_library/check.cmake)
  run(${work}/build/own_bag ${rules_directory})
  if(NOT output STREQUAL "21 properties, name nightly, day 31 1, same name 1\n")
    message(FATAL_ERROR "own_bag printed \"${output}\"")
  endif()
endmacro()
