# device-service-bridge: options, the bus side, the MQTT side and the
# session, as a library the tests link too, and the program around it.
add_library(ds_bridge_program STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/options.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/bus_side.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/mqtt.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/forwarder.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/publisher.cpp)
target_include_directories(ds_bridge_program PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(ds_bridge_program PRIVATE G_LOG_DOMAIN="device-service-bridge")
target_link_libraries(ds_bridge_program PUBLIC ds_bridge_core ds_bridge_store ds_bridge_host_state ds_idl PkgConfig::MOSQUITTO PkgConfig::GLIB)
ds_strict(ds_bridge_program)

add_executable(device-service-bridge ${CMAKE_CURRENT_SOURCE_DIR}/main.cpp)
target_compile_definitions(device-service-bridge PRIVATE G_LOG_DOMAIN="device-service-bridge")
target_link_libraries(device-service-bridge PRIVATE ds_bridge_program)
ds_strict(device-service-bridge)
install(TARGETS device-service-bridge RUNTIME DESTINATION bin)
