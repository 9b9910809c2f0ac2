# The daemon's layers, lowest first. Each folder is a library that may link
# (and include) only folders of its own layer or below; the generated bus and
# message code sits under all of them. tests/layers checks the includes
# against this table, and src/CMakeLists.txt builds the libraries from it.
set(DS_LAYERS base codec model drivers config acquisition service)
set(DS_LAYER_base base)                          # logging, process state, paths
set(DS_LAYER_codec codec)                        # protocol frames: pure functions
set(DS_LAYER_model device/plc device/registry)   # records, lists, driver and device registry
set(DS_LAYER_drivers device/driver database ipc) # PLC drivers, storage, system service client
set(DS_LAYER_config config)                      # configuration bus handlers
set(DS_LAYER_acquisition acquisition)            # the reading thread, upstream proxy
set(DS_LAYER_service service .)                  # start-up (main.cpp sits at the top)

# Programs beside the daemon and the highest layer each may reach.
set(DS_OUTSIDE sim fuzz tools)
set(DS_OUTSIDE_sim codec)
set(DS_OUTSIDE_fuzz codec)
set(DS_OUTSIDE_tools base)
