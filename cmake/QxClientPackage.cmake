# The client library: libqxschedclient.so, made of the objects of the client floor that speak with the service and of
# what they use of the floors below; with headers, a component (Client) of the CMake package QxSched and a pkg-config
# file. Install components: client (what a program needs to run), client-dev.

include(GNUInstallDirs)

set(export_list ${CMAKE_CURRENT_LIST_DIR}/QxClient.map)
add_library(qx_schedclient SHARED
  "$<FILTER:$<TARGET_OBJECTS:qx_client>,INCLUDE,/(list_walk|scheduler_client|status_text)\\.cpp\\.o$>"
  "$<FILTER:$<TARGET_OBJECTS:qx_common>,INCLUDE,/bus_records\\.cpp\\.o$>"
  "$<FILTER:$<TARGET_OBJECTS:qx_platform>,INCLUDE,/text_case\\.cpp\\.o$>")
set_target_properties(qx_schedclient PROPERTIES OUTPUT_NAME qxschedclient LINKER_LANGUAGE CXX EXPORT_NAME Client
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${export_list})
target_include_directories(qx_schedclient INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/qxsched>)
target_compile_features(qx_schedclient INTERFACE cxx_std_20)
target_link_libraries(qx_schedclient PRIVATE qx::platform)
target_link_options(qx_schedclient PRIVATE "LINKER:--version-script=${export_list}" "LINKER:--as-needed")
if(NOT QX_SANITIZE)
  target_link_options(qx_schedclient PRIVATE "LINKER:-z,defs")  # a part that is missing above shows here
endif()
add_library(QxSched::Client ALIAS qx_schedclient)

install(TARGETS qx_schedclient EXPORT QxSchedClient
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client NAMELINK_COMPONENT client-dev)
install(EXPORT QxSchedClient NAMESPACE QxSched:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QxSched COMPONENT client-dev)
# The package itself, for whoever installs this component alone.
install(FILES ${PROJECT_BINARY_DIR}/QxSchedConfig.cmake ${PROJECT_BINARY_DIR}/QxSchedConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QxSched COMPONENT client-dev)

set(QX_CLIENT_HEADERS
  client/scheduler_client.h client/status_text.h interface/ISchedulerService.h interface/list_row.h interface/records.h
  platform/automation.h platform/bus_address.h platform/error_codes.h platform/guid.h platform/text.h)
foreach(header ${QX_CLIENT_HEADERS})
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qxsched/${folder}
    COMPONENT client-dev)
endforeach()

file(RELATIVE_PATH QX_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qxsched-client.pc.in ${PROJECT_BINARY_DIR}/qxsched-client.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxsched-client.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT client-dev)
