target_link_libraries(test_${name} PRIVATE ds_bridge_core ds_bridge_proto)
