# What `cmake --install` puts where (GNUInstallDirs):
#   LIBDIR/libmirvakhbaapi.so                 the plug-in (what hba.conf names)
#   INCLUDEDIR/mirvak/*.h                     the public headers
#   LIBDIR/pkgconfig/mirvak-hba.pc            pkg-config file
#   LIBDIR/cmake/mirvak_hba/                  CMake package (mirvak_hba::mirvakhbaapi)
#   BINDIR/mirvak-hba                         the command-line program
#   BINDIR/mirvak-hba-exporter                the Prometheus exporter
#   lib/systemd/system/mirvak-hba-exporter.service
#                                             the exporter's systemd unit
#                                             (the Debian package moves it to
#                                             /lib/systemd/system)
#   SBINDIR/mirvak-hba-register               registration in /etc/hba.conf
#   LIBDIR/mirvak-hba/sim/                    simulated driver library and host,
#                                             with BINDIR links to their programs
#   MANDIR/man1, man8                         man pages (when help2man is there)
#   DATAROOTDIR/doc/mirvak-hba/agent-guide.md the guide for the agent's developers
#   DATAROOTDIR/mirvak-hba/prometheus/        Prometheus alerts and recording
#                                             rules on the exporter's series
#
# Installed files carry no run path: the plug-in finds the maker's
# libtuskstor.so where the loader looks for libraries, and the simulated one
# only through mirvak-simhost, which points the loader at its own folder.

install(TARGETS mirvakhbaapi EXPORT mirvak_hba_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/mirvak DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(TARGETS mirvak-hba RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS mirvak-hba-register RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# The exporter and its systemd unit.
install(TARGETS mirvak-hba-exporter RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/exporter/mirvak-hba-exporter.service DESTINATION lib/systemd/system)
install(FILES ${CMAKE_SOURCE_DIR}/exporter/prometheus/mirvak-hba.alerts.yml
  ${CMAKE_SOURCE_DIR}/exporter/prometheus/mirvak-hba.rules.yml
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/mirvak-hba/prometheus)
install(FILES ${CMAKE_SOURCE_DIR}/docs/agent-guide.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/mirvak-hba)

# The simulator: its libraries and programs together in the private folder;
# the programs start from BINDIR through relative links.
install(TARGETS tuskstor mirvaksimhost LIBRARY DESTINATION ${MIRVAK_SIM_INSTALL_DIR})
install(TARGETS mirvak-simhost mirvak-simscale RUNTIME DESTINATION ${MIRVAK_SIM_INSTALL_DIR})
file(RELATIVE_PATH MIRVAK_SIM_FROM_BINDIR /root/${CMAKE_INSTALL_BINDIR} /root/${MIRVAK_SIM_INSTALL_DIR})
foreach(program mirvak-simhost mirvak-simscale)
  install(CODE "
    set(link \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/${program}\")
    message(STATUS \"Installing: \${link}\")
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(REMOVE \"\${link}\")
    file(CREATE_LINK \"${MIRVAK_SIM_FROM_BINDIR}/${program}\" \"\${link}\" SYMBOLIC)")
endforeach()

# pkg-config: paths relative to the file itself, so a staged tree works too.
file(RELATIVE_PATH MIRVAK_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
string(REGEX REPLACE "/$" "" MIRVAK_PC_TO_PREFIX "${MIRVAK_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/mirvak-hba.pc.in ${CMAKE_BINARY_DIR}/mirvak-hba.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/mirvak-hba.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# CMake package: find_package(mirvak_hba) gives mirvak_hba::mirvakhbaapi.
include(CMakePackageConfigHelpers)
set(MIRVAK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/mirvak_hba)
install(EXPORT mirvak_hba_targets NAMESPACE mirvak_hba:: DESTINATION ${MIRVAK_CMAKE_DIR}
  FILE mirvak_hbaTargets.cmake)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/mirvak_hbaConfig.cmake.in
  ${CMAKE_BINARY_DIR}/mirvak_hbaConfig.cmake INSTALL_DESTINATION ${MIRVAK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/mirvak_hbaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/mirvak_hbaConfig.cmake ${CMAKE_BINARY_DIR}/mirvak_hbaConfigVersion.cmake
  DESTINATION ${MIRVAK_CMAKE_DIR})

# Man pages, made from the programs' own --help and --version.
find_program(MIRVAK_HELP2MAN help2man)
# (Not by default in a sanitizer build: nothing of it is installed.)
set(MIRVAK_MANPAGES_DEFAULT OFF)
if(MIRVAK_HELP2MAN AND NOT MIRVAK_SANITIZE)
  set(MIRVAK_MANPAGES_DEFAULT ON)
endif()
option(MIRVAK_BUILD_MANPAGES "Make man pages with help2man" ${MIRVAK_MANPAGES_DEFAULT})
if(MIRVAK_BUILD_MANPAGES)
  if(NOT MIRVAK_HELP2MAN)
    message(FATAL_ERROR "MIRVAK_BUILD_MANPAGES is on but help2man is not installed")
  endif()
  set(MIRVAK_MAN_PAGES)
  # An optional fourth argument: a help2man include file with further
  # sections of the page.
  function(mirvak_man_page target section summary)
    set(page ${CMAKE_BINARY_DIR}/man/${target}.${section})
    set(include)
    if(ARGC GREATER 3)
      set(include --include=${ARGV3})
    endif()
    add_custom_command(OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
      COMMAND ${MIRVAK_HELP2MAN} --no-info --no-discard-stderr --section=${section}
              --name=${summary} ${include} --output=${page} $<TARGET_FILE:${target}>
      DEPENDS ${target} ${ARGV3} VERBATIM)
    set(MIRVAK_MAN_PAGES ${MIRVAK_MAN_PAGES} ${page} PARENT_SCOPE)
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endfunction()
  mirvak_man_page(mirvak-hba 1 "management program of the mirvak FCoE HBA plug-in")
  mirvak_man_page(mirvak-hba-register 8 "register the mirvak FCoE HBA plug-in in hba.conf")
  mirvak_man_page(mirvak-simhost 1 "simulated host of the mirvak FCoE HBA plug-in")
  mirvak_man_page(mirvak-simscale 1 "fabric description of a simulated system of a given size")
  mirvak_man_page(mirvak-hba-exporter 1 "Prometheus exporter of the mirvak FCoE HBAs"
    ${CMAKE_SOURCE_DIR}/exporter/mirvak-hba-exporter.h2m)
  add_custom_target(manpages ALL DEPENDS ${MIRVAK_MAN_PAGES})
endif()
