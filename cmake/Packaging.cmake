# Installation layout and the Debian package.
include(GNUInstallDirs)
# cpack and "make install" take what is built instead of building every
# target (tests and benchmarks included) first.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
# A user unit: the daemon lives on the session bus of the gateway's account.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/device-service.service
        DESTINATION lib/systemd/user)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/examples/plant.json
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
if(TARGET device-service-bridge)
  # The bridge's unit copies the example settings from here on its first
  # start (doc directories may be left out of minimal installations).
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/device-service-bridge.service
          DESTINATION lib/systemd/user)
  install(FILES ${CMAKE_SOURCE_DIR}/examples/bridge.conf
          DESTINATION ${CMAKE_INSTALL_DATADIR}/device-service)
endif()
if(TARGET snap7)
  get_target_property(_snap7_type snap7 TYPE)
  if(_snap7_type STREQUAL "SHARED_LIBRARY")
    # Debian has no Snap7: ours goes in a directory of the package's own,
    # found by the daemon through its run path.
    install(TARGETS snap7 LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/device-service)
    set_target_properties(device-service PROPERTIES
      INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}/device-service")
    install(FILES ${CMAKE_BINARY_DIR}/snap7-LICENSE.txt DESTINATION ${CMAKE_INSTALL_DOCDIR})
  endif()
endif()

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "device-service")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "device-service developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Reads PLCs for an industrial gateway and publishes their values on D-Bus and MQTT")
set(CPACK_DEBIAN_PACKAGE_SECTION "net")
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libglib2.0-0, libsqlite3-0, libprotobuf-c1, libmodbus5, libjson-glib-1.0-0, libmosquitto1, libstdc++6, libgcc-s1, libc6")
# The user unit needs a session bus that the user's systemd manages.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-user-session")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
include(CPack)
