# The bridge program as a child, mosquitto and a subscriber of our own, and
# the payload decoder to read what arrives.
target_sources(bench_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/bridge/mqtt_peers.cpp)
target_link_libraries(bench_${name} PRIVATE ds_bridge_program)
add_dependencies(bench_${name} device-service-bridge)
target_compile_definitions(bench_${name} PRIVATE DS_BRIDGE_BINARY="$<TARGET_FILE:device-service-bridge>")
