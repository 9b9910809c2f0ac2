// Handlers of the device service's served methods. Each answers exactly
// once through gateway_device_service_complete_<method> and returns TRUE.
#pragma once

#include "device/plc/plc_device.h"
#include "idl/common/device_idl.h"

gboolean on_handle_serial_device_add(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                     guint dev_id, guint dev_comm, guint dev_mfg, guint dev_type,
                                     const gchar *dev_name, guint dev_station_num,
                                     guint dev_serial_type, guint dev_serial_number,
                                     guint dev_serial_baudrate, guint dev_serial_databit,
                                     guint dev_serial_stopbit, guint dev_serial_paritybit);
gboolean on_handle_serial_device_mdf(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                     guint dev_id, guint dev_comm, guint dev_mfg, guint dev_type,
                                     const gchar *dev_name, guint dev_station_num,
                                     guint dev_serial_type, guint dev_serial_number,
                                     guint dev_serial_baudrate, guint dev_serial_databit,
                                     guint dev_serial_stopbit, guint dev_serial_paritybit);
gboolean on_handle_serial_device_del(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                     guint dev_id, guint dev_comm, guint dev_mfg, guint dev_type,
                                     const gchar *dev_name);
gboolean on_handle_serial_device_sync_multi_1(GatewayDeviceService *sk,
                                              GDBusMethodInvocation *inv, GVariant *multi);

gboolean on_handle_ethernet_device_add(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                       guint dev_id, guint dev_comm, guint dev_mfg,
                                       guint dev_type, const gchar *dev_name, const gchar *ipaddr,
                                       guint port, guint rack, guint slot);
gboolean on_handle_ethernet_device_mdf(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                       guint dev_id, guint dev_comm, guint dev_mfg,
                                       guint dev_type, const gchar *dev_name, const gchar *ipaddr,
                                       guint port, guint rack, guint slot);
gboolean on_handle_ethernet_device_del(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                       guint dev_id, guint dev_comm, guint dev_mfg,
                                       guint dev_type, const gchar *dev_name);
gboolean on_handle_ethernet_device_sync_multi_1(GatewayDeviceService *sk,
                                                GDBusMethodInvocation *inv, GVariant *multi);

gboolean on_handle_node_table_mdf_one(
    GatewayDeviceService *sk, GDBusMethodInvocation *inv, const gchar *dev_name, guint dev_id,
    guint node_id, const gchar *node_name, const gchar *node_addr, guint node_data_type,
    const gchar *node_unit, guint node_permission, gboolean node_report_enable,
    gboolean node_alarm_enable, guint node_alarm_bit, guint node_alarm_condition_major,
    gint node_alarm_value_major, guint node_alarm_operation_type,
    guint node_alarm_condition_minor, gint node_alarm_value_minor,
    const gchar *node_alarm_content, const gchar *node_description);
gboolean on_handle_node_table_add_multi_1(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                          GVariant *multi);
gboolean on_handle_node_table_del_multi_1(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                          GVariant *multi);
gboolean on_handle_node_table_sync_multi_1(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                           GVariant *multi);

// Written for the unserved methods nodeTableAddOne and nodeTableDelOne;
// deliberately not connected.
gboolean on_handle_node_table_add_one(GatewayDeviceService *sk, GDBusMethodInvocation *inv);
gboolean on_handle_node_table_del_one(GatewayDeviceService *sk, GDBusMethodInvocation *inv);

// A bulk request arrives as a message of megabytes that the bus library
// parses into a tree of small blocks; the records made from it are
// allocated above that tree, so once the message is gone its pages are free
// but not at the end of the heap, and stay resident. This hands them back
// to the system once the running call and its message are released.
void give_back_message_memory();

// Removes a device's nodes from the node list (memory only).
void delete_nodes_of_device(uint32_t dev_id);
// Removes one registered device of the given kind with its in-memory nodes,
// printing the "dev del" line (named after `named`, default the device).
void remove_device(plc_device *dev, const plc_device *named = nullptr);
