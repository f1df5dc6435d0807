# The foundation as a library of its own: libqxZepFoundation.so and libqxZepFoundation.a, made of the objects of the
# foundation and of what it uses of the platform floor, with headers, a CMake package (QxSched, component Foundation)
# and a pkg-config file. Install components: foundation (what a program needs to run), foundation-dev.
#
# Exported from the shared library: what public headers of the foundation declare behind ZEP_FOUNDATION_API, and the
# platform functions that they and the store's opening need.

include(CMakePackageConfigHelpers)
include(QxPackagePlaces)

set(QX_FOUNDATION_NAME qxZepFoundation)

# Source files of platform/ whose objects the library holds.
set(platform_parts
  clock_posix critical_section_posix debug_output fault_point file_posix file_state_posix guid_posix host_posix
  library_posix memory registry_call
  registry_connection_sqlite registry_damaged_copy_posix registry_keys registry_life_sqlite registry_names registry_save
  registry_schema_sqlite registry_store_open_sqlite registry_store_sqlite registry_value_data registry_values
  sqlite_file_posix stack_trace_posix text_case text_posix thread_posix)
if(QX_FAULT_SEAM)
  list(APPEND platform_parts fault kill_switch)  # of platform/testing
endif()
list(JOIN platform_parts "|" platform_pattern)
set(platform_objects
  "$<FILTER:$<TARGET_OBJECTS:qx_platform>,INCLUDE,/((${platform_pattern})\\.cpp|unity_foundation_[a-z]+_cxx\\.cxx)\\.o$>")

# Platform headers that the public ones include, and those by which a program opens the store, names its state directory
# and watches the debugger output.
set(platform_headers
  clock.h critical_section.h debug_output.h error_codes.h file.h guid.h registry.h text.h thread_annotations.h)

set(export_list ${CMAKE_CURRENT_LIST_DIR}/QxFoundation.map)
foreach(kind SHARED STATIC)
  string(TOLOWER ${kind} suffix)
  set(target qx_foundation_${suffix})
  add_library(${target} ${kind} $<TARGET_OBJECTS:qx_foundation> ${platform_objects})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${QX_FOUNDATION_NAME} LINKER_LANGUAGE CXX)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${QX_INCLUDE_ROOT}>)
  target_compile_features(${target} INTERFACE cxx_std_20)
  target_link_libraries(${target} PRIVATE Threads::Threads sqlite3 ${CMAKE_DL_LIBS})
endforeach()
set_target_properties(qx_foundation_shared PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME Foundation LINK_DEPENDS ${export_list})
set_target_properties(qx_foundation_static PROPERTIES EXPORT_NAME FoundationStatic)
target_link_options(qx_foundation_shared PRIVATE "LINKER:--version-script=${export_list}" "LINKER:--as-needed")
if(NOT QX_SANITIZE)
  target_link_options(qx_foundation_shared PRIVATE "LINKER:-z,defs")  # a part that is missing above shows here
endif()
add_library(QxSched::Foundation ALIAS qx_foundation_shared)
add_library(QxSched::FoundationStatic ALIAS qx_foundation_static)

install(TARGETS qx_foundation_shared EXPORT QxSchedFoundation
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT foundation NAMELINK_COMPONENT foundation-dev)
install(TARGETS qx_foundation_static EXPORT QxSchedFoundation
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT foundation-dev)
install(EXPORT QxSchedFoundation NAMESPACE QxSched:: DESTINATION ${QX_PACKAGE_DIR} COMPONENT foundation-dev)

get_target_property(public_headers qx_foundation HEADER_SET)
foreach(header ${public_headers})
  install(FILES ${header} DESTINATION ${QX_INCLUDE_ROOT}/foundation/include COMPONENT foundation-dev)
endforeach()
foreach(header ${platform_headers})
  install(FILES ${PROJECT_SOURCE_DIR}/platform/${header} DESTINATION ${QX_INCLUDE_ROOT}/platform
    COMPONENT foundation-dev)
endforeach()

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QxSchedConfig.cmake.in ${PROJECT_BINARY_DIR}/QxSchedConfig.cmake
  INSTALL_DESTINATION ${QX_PACKAGE_DIR} PATH_VARS QX_RULES_DIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QxSchedConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QxSchedConfig.cmake ${PROJECT_BINARY_DIR}/QxSchedConfigVersion.cmake
  DESTINATION ${QX_PACKAGE_DIR} COMPONENT foundation-dev)

file(RELATIVE_PATH QX_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qxsched-foundation.pc.in ${PROJECT_BINARY_DIR}/qxsched-foundation.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxsched-foundation.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT foundation-dev)
