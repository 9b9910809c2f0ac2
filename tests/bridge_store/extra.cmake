target_link_libraries(test_${name} PRIVATE ds_bridge_store ds_bridge_host_state)
