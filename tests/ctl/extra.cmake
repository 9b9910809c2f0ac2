target_link_libraries(test_${name} PRIVATE ds_ctl)
target_compile_definitions(test_${name} PRIVATE DS_CTL="$<TARGET_FILE:device-service-ctl>"
  DS_CPACK="${CMAKE_CPACK_COMMAND}")
# The package check installs the daemon and the client from this build tree.
add_dependencies(test_${name} device-service-ctl device-service)
