# Install rules: `cmake --install` (DESTDIR and CMAKE_INSTALL_PREFIX
# honoured) and the Debian packages (Packaging.cmake) use the same ones.
# Components: dypd (the box), dypctl (a host), sim (the simulated driver,
# a development tool that no package carries).
include(GNUInstallDirs)

# The daemon reads /etc/dypd.conf unless told otherwise: with another
# configuration directory the service files pass the file with -f.
set(DYPD_CONF_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/dypd.conf)
if(DYPD_CONF_FILE STREQUAL "/etc/dypd.conf")
  set(DYPD_ARGS "")
else()
  set(DYPD_ARGS "-f ${DYPD_CONF_FILE}")
endif()
string(STRIP "${CMAKE_INSTALL_FULL_SBINDIR}/dypd ${DYPD_ARGS}" DYPD_EXEC)
set(DYPD_SBIN ${CMAKE_INSTALL_FULL_SBINDIR})

# Debian 12 keeps system units in /lib/systemd/system; systemd also reads
# /usr/local/lib/systemd/system, which other prefixes give.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(DYPD_DEFAULT_UNIT_DIR /lib/systemd/system)
else()
  set(DYPD_DEFAULT_UNIT_DIR ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
endif()
set(DYPD_SYSTEMD_UNIT_DIR ${DYPD_DEFAULT_UNIT_DIR} CACHE PATH "Where dypd.service is installed")

set(DYPD_PACKAGING_DIR ${CMAKE_SOURCE_DIR}/packaging)
set(DYPD_GENERATED_DIR ${CMAKE_BINARY_DIR}/packaging)
configure_file(${DYPD_PACKAGING_DIR}/dypd.service.in ${DYPD_GENERATED_DIR}/dypd.service @ONLY)
configure_file(${DYPD_PACKAGING_DIR}/dypd.init.in ${DYPD_GENERATED_DIR}/dypd.init @ONLY)

# Man pages: mdoc sources, compressed at build time as Debian installs them.
find_program(DYPD_GZIP gzip REQUIRED)
set(DYPD_MAN_PAGES dypd.8 dypd.conf.5 dypd-config.8 dypctl.1)
set(DYPD_MAN_OUTPUTS)
foreach(page ${DYPD_MAN_PAGES})
  set(source ${CMAKE_SOURCE_DIR}/docs/man/${page})
  set(output ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${DYPD_GZIP} -9nc ${source} > ${output}
    DEPENDS ${source} VERBATIM)
  list(APPEND DYPD_MAN_OUTPUTS ${output})
endforeach()
add_custom_target(dypd_man ALL DEPENDS ${DYPD_MAN_OUTPUTS})

# The completion is read from the built dypctl's help texts, so it offers
# exactly what that dypctl takes. A cross build runs dypctl through its
# emulator, and goes without the completion when there is none.
set(DYPCTL_COMPLETION ${CMAKE_BINARY_DIR}/packaging/dypctl.bash)
if(NOT CMAKE_CROSSCOMPILING OR CMAKE_CROSSCOMPILING_EMULATOR)
  string(JOIN " " emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
  add_custom_command(OUTPUT ${DYPCTL_COMPLETION}
    COMMAND bash ${DYPD_PACKAGING_DIR}/dypctl-completion.sh $<TARGET_FILE:dypctl> "${emulator}"
            > ${DYPCTL_COMPLETION}
    DEPENDS dypctl ${DYPD_PACKAGING_DIR}/dypctl-completion.sh VERBATIM)
  add_custom_target(dypctl_completion ALL DEPENDS ${DYPCTL_COMPLETION})
  install(FILES ${DYPCTL_COMPLETION} RENAME dypctl
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT dypctl)
else()
  message(STATUS "dypctl completion: not generated (cross build without an emulator)")
endif()

# The box.
install(TARGETS dypd dypd-config RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT dypd)
install(FILES ${DYPD_GENERATED_DIR}/dypd.service DESTINATION ${DYPD_SYSTEMD_UNIT_DIR}
        COMPONENT dypd)
install(PROGRAMS ${DYPD_GENERATED_DIR}/dypd.init RENAME dypd
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d COMPONENT dypd)
foreach(page dypd.8 dypd.conf.5 dypd-config.8)
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
  install(FILES ${CMAKE_BINARY_DIR}/man/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT dypd)
endforeach()
# An administrator's configuration is never replaced: the example goes in
# only where no file exists yet. (A package build installs into an empty
# staging folder, so the package always carries it, as a conffile.)
install(CODE "
  set(conf \"\$ENV{DESTDIR}${DYPD_CONF_FILE}\")
  if(EXISTS \"\${conf}\")
    message(STATUS \"Keeping: \${conf}\")
  else()
    file(INSTALL \"${DYPD_PACKAGING_DIR}/dypd.conf\" DESTINATION \"${CMAKE_INSTALL_FULL_SYSCONFDIR}\"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()" COMPONENT dypd)

# A host.
install(TARGETS dypctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dypctl)
install(FILES ${CMAKE_BINARY_DIR}/man/dypctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT dypctl)

# The Wireshark dissector, where Wireshark looks for global Lua plugins.
if(EXISTS ${CMAKE_SOURCE_DIR}/tools/wireshark/dyp.lua)
  install(FILES ${CMAKE_SOURCE_DIR}/tools/wireshark/dyp.lua
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT dypctl)
endif()

# The simulated driver, kept out of the system's library path.
if(TARGET dypsim_preload)
  install(TARGETS dypsim_preload LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/dypd COMPONENT sim)
endif()
