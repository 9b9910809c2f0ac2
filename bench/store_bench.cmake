target_link_libraries(bench_${name} PRIVATE ds_bridge_store)
