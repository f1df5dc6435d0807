# Read by cpack before it packs: dependencies between packages of one build, which name its version.
set(version "(= ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_DEVFILES_PACKAGE_DEPENDS
  "libqxschedclient0 ${version}, libqxzepfoundation0 ${version}, libqxzepschedule2u ${version}")
