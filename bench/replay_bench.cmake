# The bridge's session, store and MQTT client in process, mosquitto and a
# subscriber of the tests' own.
target_sources(bench_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/bridge/mqtt_peers.cpp)
target_link_libraries(bench_${name} PRIVATE ds_bridge_program)
# mqtt_peers.cpp can also start the bridge program.
add_dependencies(bench_${name} device-service-bridge)
target_compile_definitions(bench_${name} PRIVATE DS_BRIDGE_BINARY="$<TARGET_FILE:device-service-bridge>")
