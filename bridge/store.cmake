# The bridge's on-disk queue of messages waiting for the broker (SQLite).
add_library(ds_bridge_store STATIC ${CMAKE_CURRENT_SOURCE_DIR}/store.cpp)
target_include_directories(ds_bridge_store PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(ds_bridge_store PUBLIC PkgConfig::SQLITE3)
ds_strict(ds_bridge_store)

# The primary host application's STATE as the edge node follows it (json-glib).
add_library(ds_bridge_host_state STATIC ${CMAKE_CURRENT_SOURCE_DIR}/host_state.cpp)
target_include_directories(ds_bridge_host_state PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(ds_bridge_host_state PUBLIC PkgConfig::JSONGLIB)
ds_strict(ds_bridge_host_state)
