# ds_bridge_core: Sparkplug payloads and the edge node's model, node values,
# device ids and JSON messages. Pure code: no bus, no broker, no disk.
set(BRIDGE_PROTO_OUT ${CMAKE_CURRENT_BINARY_DIR}/generated/bridge)
file(MAKE_DIRECTORY ${BRIDGE_PROTO_OUT})
add_custom_command(
  OUTPUT ${BRIDGE_PROTO_OUT}/sparkplug_b.pb-c.c ${BRIDGE_PROTO_OUT}/sparkplug_b.pb-c.h
  COMMAND ${PROTOC_C} --proto_path=${CMAKE_CURRENT_SOURCE_DIR}
          --c_out=${BRIDGE_PROTO_OUT} ${CMAKE_CURRENT_SOURCE_DIR}/sparkplug_b.proto
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/sparkplug_b.proto
  COMMENT "protoc-c sparkplug_b.proto")
add_library(ds_bridge_proto STATIC ${BRIDGE_PROTO_OUT}/sparkplug_b.pb-c.c)
target_include_directories(ds_bridge_proto SYSTEM PUBLIC ${CMAKE_CURRENT_BINARY_DIR}/generated)
target_link_libraries(ds_bridge_proto PUBLIC PkgConfig::PROTOBUFC)
target_compile_options(ds_bridge_proto PRIVATE -w)
set_target_properties(ds_bridge_proto PROPERTIES POSITION_INDEPENDENT_CODE ON)

add_library(ds_bridge_core STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/sparkplug.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/values.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/device_ids.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/edge_node.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/json_message.cpp)
target_include_directories(ds_bridge_core PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(ds_bridge_core PUBLIC PkgConfig::GLIB PkgConfig::JSONGLIB
                      PRIVATE ds_bridge_proto PkgConfig::PROTOBUFC)
set_target_properties(ds_bridge_core PROPERTIES POSITION_INDEPENDENT_CODE ON)
ds_strict(ds_bridge_core)
