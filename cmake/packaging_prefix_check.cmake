# CPack's pre-build step (CPACK_PRE_BUILD_SCRIPTS): a Debian package is made
# only from a tree configured for /usr. The programs carry paths of the
# configured prefix (the simulator's library, the guides), and Debian
# packages install nothing outside /usr.
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Debian packages install into /usr, and this tree was configured for "
                      "${CPACK_PACKAGING_INSTALL_PREFIX}: configure a tree with -DCMAKE_INSTALL_PREFIX=/usr "
                      "(scripts/config-builds.sh gcc-release-hardened makes one)")
endif()
