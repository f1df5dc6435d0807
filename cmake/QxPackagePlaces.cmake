# Where the parts of the CMake package QxSched are installed.
include(GNUInstallDirs)
set(QX_INCLUDE_ROOT ${CMAKE_INSTALL_INCLUDEDIR}/qxsched)
set(QX_RULES_DIR ${CMAKE_INSTALL_LIBDIR}/qxsched)  # of libraries that a program loads by their files
set(QX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QxSched)
