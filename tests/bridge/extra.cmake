# The bridge's pieces in process, and the program itself as a child.
target_link_libraries(test_${name} PRIVATE ds_bridge_program PkgConfig::JSONGLIB)
add_dependencies(test_${name} device-service-bridge)
target_compile_definitions(test_${name} PRIVATE DS_BRIDGE_BINARY="$<TARGET_FILE:device-service-bridge>")
