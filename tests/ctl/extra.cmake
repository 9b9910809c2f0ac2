target_link_libraries(test_${name} PRIVATE ds_ctl)
target_compile_definitions(test_${name} PRIVATE DS_CTL="$<TARGET_FILE:device-service-ctl>"
  DS_CPACK="${CMAKE_CPACK_COMMAND}")
# The package check installs the daemon, the client and the bridge from this build tree.
add_dependencies(test_${name} device-service-ctl device-service device-service-bridge)
# The S7 devices of the example must find nothing on port 102 here, while the
# demo and the S7 tests put Snap7's server there: never at the same time.
set(DS_TEST_PROPERTIES RESOURCE_LOCK s7_port_102)
