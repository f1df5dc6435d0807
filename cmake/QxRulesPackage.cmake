# The rules library in the package: component Rules of QxSched, on top of component Foundation. A program includes the
# public headers, links QxSched::Rules (the factory and the values of a property bag, a static library), and loads
# libqxZepSchedule2U.so from QxSched_RULES_DIRECTORY. Install components: rules (what a program needs to run), rules-dev.

include(QxPackagePlaces)

set(rules_headers zepSchedIUnknown.h zep_factory.h property_value.h)
set(rules_platform_headers library.h)

# A bag of one's own is written and read through PropertyValue, which the library's file doesn't export.
add_library(qx_rules_access STATIC $<TARGET_OBJECTS:qx_zep_factory>
  $<FILTER:$<TARGET_OBJECTS:qx_common>,INCLUDE,/property_value\\.cpp\\.o$>)
set_target_properties(qx_rules_access PROPERTIES OUTPUT_NAME qxZepFactory LINKER_LANGUAGE CXX EXPORT_NAME Rules)
target_compile_features(qx_rules_access INTERFACE cxx_std_20)
target_link_libraries(qx_rules_access INTERFACE qx_foundation_shared)
add_library(QxSched::Rules ALIAS qx_rules_access)

install(TARGETS qx_rules LIBRARY DESTINATION ${QX_RULES_DIR} COMPONENT rules)
install(TARGETS qx_rules_access EXPORT QxSchedRules ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT rules-dev)
install(EXPORT QxSchedRules NAMESPACE QxSched:: DESTINATION ${QX_PACKAGE_DIR} COMPONENT rules-dev)
foreach(header ${rules_headers})
  install(FILES ${PROJECT_SOURCE_DIR}/common/${header} DESTINATION ${QX_INCLUDE_ROOT}/common COMPONENT rules-dev)
endforeach()
foreach(header ${rules_platform_headers})
  install(FILES ${PROJECT_SOURCE_DIR}/platform/${header} DESTINATION ${QX_INCLUDE_ROOT}/platform COMPONENT rules-dev)
endforeach()
