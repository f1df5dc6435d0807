# Targets of this project: flags, floors and tests.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

add_library(qx_build_flags INTERFACE)
add_library(qx::build_flags ALIAS qx_build_flags)
target_compile_options(qx_build_flags INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wno-missing-field-initializers)
# Code is position independent everywhere; nobody puts functions of his own in the place of ours, so calls inside a file
# may be inlined.
target_compile_options(qx_build_flags INTERFACE -fno-semantic-interposition)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # False alarms of g++ 12 about std::string at -O2 and above (bug 105651 of the compiler).
  target_compile_options(qx_build_flags INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(qx_build_flags INTERFACE -Wthread-safety)
  if(QX_BATCH)
    # In a batch a header's names meet those of the files ahead of it.
    target_compile_options(qx_build_flags INTERFACE -Wno-shadow)
  endif()
endif()
if(QX_BATCH AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # A batch is compiled without collecting the compiler's garbage below a gigabyte: a tenth of the time, a third more
  # memory.
  add_compile_options(--param=ggc-min-expand=300 --param=ggc-min-heapsize=1000000)
endif()
if(QX_SANITIZE)
  add_compile_options(-fsanitize=${QX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QX_SANITIZE})
  if(QX_SANITIZE MATCHES address)
    # What the sanitizers keep of every check isn't relocated at each start of a program.
    string(APPEND CMAKE_EXE_LINKER_FLAGS " -no-pie")
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # What the sanitizers add makes g++ see uninitialised members in the standard library.
    target_compile_options(qx_build_flags INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
if(QX_FAULT_SEAM)
  add_compile_definitions(QX_FAULT_SEAM=1)
endif()

# qx_floor(NAME SOURCES... HEADERS... PUBLIC targets... PRIVATE targets...): the static library of one floor.
# Every header of the floor is compiled alone by the target all_verify_interface_header_sets.
function(qx_floor NAME)
  cmake_parse_arguments(A "" "" "SOURCES;HEADERS;PUBLIC;PRIVATE" ${ARGN})
  add_library(qx_${NAME} STATIC ${A_SOURCES})
  add_library(qx::${NAME} ALIAS qx_${NAME})
  target_sources(qx_${NAME} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${A_HEADERS})
  target_include_directories(qx_${NAME} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(qx_${NAME} PUBLIC ${A_PUBLIC} PRIVATE qx::build_flags ${A_PRIVATE})
endfunction()

# qx_batches(TARGET): compiles the files of a target in batches of like size, when the preset asks for it. Files of a
# target then share their anonymous namespace: a name stands once in all of them.
function(qx_batches TARGET)
  if(QX_BATCH)
    get_target_property(sources ${TARGET} SOURCES)
    list(LENGTH sources count)
    math(EXPR batches "(${count} + ${QX_BATCH} - 1) / ${QX_BATCH}")
    math(EXPR size "(${count} + ${batches} - 1) / ${batches}")
    set_target_properties(${TARGET} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${size})
  endif()
endfunction()

# qx_batch_of(TARGET GROUP SOURCES...): one batch of a target that names its batches; files in none are compiled alone.
function(qx_batch_of TARGET GROUP)
  if(QX_BATCH)
    set_target_properties(${TARGET} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
    set_source_files_properties(${ARGN} PROPERTIES UNITY_GROUP ${GROUP})
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
      # A class that one file alone defines may have members of that file's own types; g++ takes the batch for a header.
      target_compile_options(${TARGET} PRIVATE -Wno-subobject-linkage)
    endif()
  endif()
endfunction()

# Where unit and service tests keep their files: in memory, where it has a gigabyte of room and programs may be started
# from it, because they write and sync many thousands. Disks that lose what wasn't synced are the crash disk's matter.
if(QX_BUILD_TESTS AND NOT DEFINED QX_TEST_FOLDER)
  set(folder "")
  execute_process(COMMAND df --output=avail --block-size=1M /dev/shm OUTPUT_VARIABLE room ERROR_QUIET)
  if(room MATCHES "([0-9]+)[ \n]*$" AND CMAKE_MATCH_1 GREATER 1000)
    string(RANDOM LENGTH 12 random)
    set(probe /dev/shm/qx-probe-${random})
    execute_process(COMMAND sh -c "echo : > ${probe} && chmod +x ${probe} && ${probe}; rc=$?; rm -f ${probe}; exit $rc"
                    RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(result EQUAL 0)
      set(folder /dev/shm)
    endif()
  endif()
  set(QX_TEST_FOLDER "${folder}" CACHE PATH "Where unit and service tests keep their files; empty: as TMPDIR says")
endif()

# What scripts/test.sh builds where the slow set isn't run: programs of the labels unit and service, and what they start.
add_custom_target(quick_tests)

# Behind qx::build_flags, whose -Wall would switch it on again.
add_library(qx_test_flags INTERFACE)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  # Containers of dates, whose class has virtual functions and is deliberately without a virtual destructor.
  target_compile_options(qx_test_flags INTERFACE -Wno-delete-non-abstract-non-virtual-dtor)
endif()

# qx_test(NAME [LONG] LABEL unit|service|slow [TIMEOUT seconds] [TOGETHER processes] SOURCES... LINK targets...): one test
# program; each of its tests has five minutes unless told otherwise. LONG: its tests are started ahead of their label's
# others, lest one of them runs alone at the end. TOGETHER: so many processes share its tests in every preset, because
# what each process makes once takes longer than its tests.
function(qx_test NAME)
  if(NOT QX_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(A "LONG" "LABEL;TIMEOUT;TOGETHER" "SOURCES;LINK" ${ARGN})
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 300)
  endif()
  add_executable(${NAME} ${A_SOURCES})
  target_link_libraries(${NAME} PRIVATE ${A_LINK} qx::test_paths GTest::gmock GTest::gtest_main qx::build_flags
                        qx_test_flags)
  target_compile_options(${NAME} PRIVATE ${QX_TEST_FLAGS})
  qx_batches(${NAME})
  set(cost 0)
  if(A_LABEL STREQUAL service)
    set(cost 10)  # they wait for the clock: started first, while the others use the processors
  endif()
  if(A_LONG)
    math(EXPR cost "${cost} + 5")
  endif()
  set(environment)
  if(NOT A_LABEL STREQUAL slow)
    add_dependencies(quick_tests ${NAME})
    if(QX_TEST_FOLDER)
      set(environment TMPDIR=${QX_TEST_FOLDER})
    endif()
  endif()
  if(QX_TESTS_TOGETHER AND NOT A_LABEL STREQUAL slow)
    set(A_TOGETHER ${QX_TESTS_TOGETHER})
  endif()
  if(A_TOGETHER)
    # The start of a process under a sanitizer costs more than most tests; and what one test leaves behind, the next one
    # meets. Each of these counts as one test to ctest; its output names what is in it.
    math(EXPR last "${A_TOGETHER} - 1")
    foreach(part RANGE ${last})
      add_test(NAME ${NAME}.${part} COMMAND ${NAME})
      set(shard ${environment} GTEST_TOTAL_SHARDS=${A_TOGETHER} GTEST_SHARD_INDEX=${part})
      set_tests_properties(${NAME}.${part} PROPERTIES LABELS ${A_LABEL} TIMEOUT 900 COST ${cost} ENVIRONMENT "${shard}")
    endforeach()
  else()
    gtest_discover_tests(${NAME} DISCOVERY_MODE PRE_TEST
      PROPERTIES LABELS ${A_LABEL} TIMEOUT ${A_TIMEOUT} COST ${cost} ENVIRONMENT "${environment}")
  endif()
endfunction()
