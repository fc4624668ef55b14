# Debian packages through CPack's DEB generator: `dypd` for the box and
# `dypctl` for a host, from the install rules of Install.cmake. CPack packs
# the tree that was built and tested, with the same rules `cmake --install`
# uses; debhelper would build everything a second time from a debian/
# folder that must be kept in step with these rules.
#
#   cmake -S . -B build -DCMAKE_INSTALL_PREFIX=/usr && cmake --build build
#   (cd build && cpack)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(STATUS "Debian packages: configure with -DCMAKE_INSTALL_PREFIX=/usr to build them")
  return()
endif()

set(DYPD_DEBIAN_DIR ${CMAKE_SOURCE_DIR}/packaging/debian)

# Every package carries its copyright file and the Debian changelog.
set(DYPD_CHANGELOG_GZ ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
add_custom_command(OUTPUT ${DYPD_CHANGELOG_GZ}
  COMMAND ${DYPD_GZIP} -9nc ${CMAKE_SOURCE_DIR}/packaging/changelog > ${DYPD_CHANGELOG_GZ}
  DEPENDS ${CMAKE_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(dypd_changelog ALL DEPENDS ${DYPD_CHANGELOG_GZ})
foreach(package dypd dypctl)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/copyright ${DYPD_CHANGELOG_GZ}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${package})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dypd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "dypd developers <dypd@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL dypd dypctl)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends from the binaries' libraries, as dpkg-shlibdeps reads them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DYPD_PACKAGE_NAME dypd)
set(CPACK_DEBIAN_DYPD_DESCRIPTION "USB device sharing daemon for small Linux boxes
dypd shares the USB devices plugged into a box, scanners above all, with
the hosts on its local network through the kernel's USB-over-network
driver. Hosts find the box by broadcast, list its devices, take one and
give it back, and keep it alive, all over UDP.
.
This package holds the daemon, its systemd unit and SysV init script, the
configuration file, and dypd-config, which checks that file.")
set(CPACK_DEBIAN_DYPD_PACKAGE_CONTROL_EXTRA
    ${DYPD_DEBIAN_DIR}/conffiles ${DYPD_DEBIAN_DIR}/postinst ${DYPD_DEBIAN_DIR}/prerm
    ${DYPD_DEBIAN_DIR}/postrm)

set(CPACK_DEBIAN_DYPCTL_PACKAGE_NAME dypctl)
set(CPACK_DEBIAN_DYPCTL_DESCRIPTION "host tool for boxes running dypd
dypctl finds the dypd boxes on the local network, lists the USB devices
they share, takes a device for this host and gives it back, and keeps it
alive. The host's own USB-over-network driver then attaches the device.")

include(CPack)
