#include "config/plc_dispatch.h"

#include "config/plc_handlers.h"

void connect_device_service_handlers(GatewayDeviceService *sk)
{
    // nodeTableAddOne, nodeTableDelOne and systemCfgReset stay unconnected on
    // purpose: callers get the standard "not implemented" reply.
    g_signal_connect(sk, "handle-serial-device-add", G_CALLBACK(on_handle_serial_device_add), nullptr);
    g_signal_connect(sk, "handle-serial-device-mdf", G_CALLBACK(on_handle_serial_device_mdf), nullptr);
    g_signal_connect(sk, "handle-serial-device-del", G_CALLBACK(on_handle_serial_device_del), nullptr);
    g_signal_connect(sk, "handle-serial-device-sync-multi",
                     G_CALLBACK(on_handle_serial_device_sync_multi_1), nullptr);
    g_signal_connect(sk, "handle-ethernet-device-add", G_CALLBACK(on_handle_ethernet_device_add),
                     nullptr);
    g_signal_connect(sk, "handle-ethernet-device-mdf", G_CALLBACK(on_handle_ethernet_device_mdf),
                     nullptr);
    g_signal_connect(sk, "handle-ethernet-device-del", G_CALLBACK(on_handle_ethernet_device_del),
                     nullptr);
    g_signal_connect(sk, "handle-ethernet-device-sync-multi",
                     G_CALLBACK(on_handle_ethernet_device_sync_multi_1), nullptr);
    g_signal_connect(sk, "handle-node-table-mdf-one", G_CALLBACK(on_handle_node_table_mdf_one),
                     nullptr);
    g_signal_connect(sk, "handle-node-table-add-multi",
                     G_CALLBACK(on_handle_node_table_add_multi_1), nullptr);
    g_signal_connect(sk, "handle-node-table-del-multi",
                     G_CALLBACK(on_handle_node_table_del_multi_1), nullptr);
    g_signal_connect(sk, "handle-node-table-sync-multi",
                     G_CALLBACK(on_handle_node_table_sync_multi_1), nullptr);
}
