# Debian packages of the host, made by CPack from the install components (scripts/package builds them):
#   routine-host      the "runtime" and "service" components: the host, the libraries, the sample plug-in,
#                     the console, the documentation, the systemd units and /etc/default/routine-host
#   routine-host-dev  the "dev" component: headers, the CMake package, the routine test kit
# The packages are meant for a build configured with -DCMAKE_INSTALL_PREFIX=/usr and Debian's multiarch
# library folder (-DCMAKE_INSTALL_LIBDIR=lib/<multiarch>); the host finds its plug-ins relative to itself.

set(NYR_DEBIAN_REVISION 1)
set(NYR_DEBIAN_VERSION ${PROJECT_VERSION}-${NYR_DEBIAN_REVISION})
set(NYR_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)

# The service files. They name absolute system folders (/etc/default, the service manager's unit folder),
# so a plain `cmake --install --prefix <dir>` leaves them out (EXCLUDE_FROM_ALL); the packages take them.
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_get_variable(NYR_SYSTEMD_UNIT_DIR systemd systemdsystemunitdir)
endif()
if(NOT NYR_SYSTEMD_UNIT_DIR)
  set(NYR_SYSTEMD_UNIT_DIR /lib/systemd/system)  # Debian 12's
endif()
install(FILES ${NYR_PACKAGING_DIR}/systemd/routine-host.service ${NYR_PACKAGING_DIR}/systemd/routine-host.socket
        DESTINATION ${NYR_SYSTEMD_UNIT_DIR} COMPONENT service EXCLUDE_FROM_ALL)
install(FILES ${NYR_PACKAGING_DIR}/default/routine-host DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default
        COMPONENT service EXCLUDE_FROM_ALL)

# Each package's copyright and changelog, where Debian wants them; the changelog compressed without a
# time stamp so that two builds of one version give the same file.
file(STRINGS ${NYR_PACKAGING_DIR}/debian/changelog nyr_changelog_head LIMIT_COUNT 1)
if(NOT nyr_changelog_head MATCHES "\\(${NYR_DEBIAN_VERSION}\\)")
  message(WARNING "packaging/debian/changelog does not begin with version ${NYR_DEBIAN_VERSION}; "
                  "add an entry for it before making packages")
endif()
find_program(NYR_GZIP gzip)
if(NYR_GZIP)
  set(nyr_changelog ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)
  add_custom_command(OUTPUT ${nyr_changelog}
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging
                     COMMAND ${NYR_GZIP} -9nc ${NYR_PACKAGING_DIR}/debian/changelog > ${nyr_changelog}
                     DEPENDS ${NYR_PACKAGING_DIR}/debian/changelog COMMENT "Compressing the Debian changelog")
  add_custom_target(nyr_debian_changelog ALL DEPENDS ${nyr_changelog})
  foreach(component runtime dev)
    set(package routine-host)
    if(component STREQUAL "dev")
      set(package routine-host-dev)
    endif()
    install(FILES ${NYR_PACKAGING_DIR}/debian/copyright ${nyr_changelog}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component}-debian EXCLUDE_FROM_ALL)
    # lintian's overrides, each with the reason it is right.
    install(FILES ${NYR_PACKAGING_DIR}/lintian/${package} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
            COMPONENT ${component}-debian EXCLUDE_FROM_ALL)
  endforeach()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME routine-host)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "NyRoutine developers")
set(CPACK_PACKAGE_CONTACT "NyRoutine developers <nyroutine@example.org>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
# The service files install to absolute folders; DESTDIR puts them, and everything else, under the
# package's root at their final paths.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime service runtime-debian dev dev-debian)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
foreach(component runtime service runtime-debian)
  string(TOUPPER ${component} upper)
  set(CPACK_COMPONENT_${upper}_GROUP host)
endforeach()
set(CPACK_COMPONENT_DEV_GROUP dev)
set(CPACK_COMPONENT_DEV-DEBIAN_GROUP dev)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${NYR_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies from the libraries each package's binaries link (dpkg-shlibdeps), and a shlibs file with
# an ldconfig trigger for our own libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The test kit in routine-host-dev links the libraries of routine-host: dpkg-shlibdeps finds them in that
# package's staging folder (CPack stages every package before it makes the first), and routine-host-dev
# depends on the exact routine-host anyway.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CPACK_PACKAGE_DIRECTORY}/_CPack_Packages/Linux/DEB/routine-host-${PROJECT_VERSION}-Linux/host${CMAKE_INSTALL_FULL_LIBDIR})

set(CPACK_DEBIAN_HOST_PACKAGE_NAME routine-host)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION net)
# Debian wants a synopsis line and description lines of at most 80 characters.
string(CONCAT CPACK_DEBIAN_HOST_DESCRIPTION
    "routine engine host: REST API, live events and web console\n"
    "routine-host serves the routine engine over HTTP: plug-ins contribute\n"
    "step-wise routine types (calibrations, guided maintenance) that clients\n"
    "start, feed with parameters, continue and follow through a REST API with\n"
    "server-sent events, or through the bundled web console. The package runs\n"
    "it as a hardened systemd service (readiness, watchdog, socket activation)\n"
    "and ships the sample plug-in.")
# The maintainer scripts reload the service manager and restart a running host on upgrade
# (deb-systemd-invoke, from init-system-helpers); the unit's reload sends SIGHUP with procps' /bin/kill;
# /etc/default/routine-host is a conffile, kept on
# remove and deleted on purge; the ldconfig trigger makes the libraries known.
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "init-system-helpers (>= 1.52), procps")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA
    ${NYR_PACKAGING_DIR}/debian/postinst ${NYR_PACKAGING_DIR}/debian/prerm ${NYR_PACKAGING_DIR}/debian/postrm
    ${NYR_PACKAGING_DIR}/debian/conffiles ${NYR_PACKAGING_DIR}/debian/triggers)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME routine-host-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# A consumer's build needs the exact runtime libraries and what NyRoutineConfig.cmake finds
# (nlohmann_json; Threads comes with the C library).
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "routine-host (= ${NYR_DEBIAN_VERSION}), nlohmann-json3-dev (>= 3.8)")
set(CPACK_DEBIAN_DEV_PACKAGE_CONTROL_EXTRA ${NYR_PACKAGING_DIR}/debian/triggers)
string(CONCAT CPACK_DEBIAN_DEV_DESCRIPTION
    "routine engine host: headers, CMake package and test kit\n"
    "The headers and the CMake package (find_package(NyRoutine), nyr_add_plugin)\n"
    "to build plug-ins and hosts against the routine engine of routine-host, and\n"
    "the routine test kit (NyRoutine::Testing) that drives a plug-in's routine\n"
    "types in its tests.")

include(CPack)
