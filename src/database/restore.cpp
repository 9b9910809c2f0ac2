#include "database/restore.h"

#include <glib.h>

#include <cstdio>

#include "database/blob_store.h"
#include "database/plc_database.h"
#include "device/registry/driver.h"

namespace {

// Columns hold what the service wrote with %u; anything else reads as 0.
uint32_t column_u(char **argv, int argc, int i)
{
    unsigned v = 0;
    if (i < argc && argv[i] != nullptr)
        sscanf(argv[i], "%u", &v);
    return v;
}

const char *column_s(char **argv, int argc, int i)
{
    return i < argc && argv[i] != nullptr ? argv[i] : "";
}

} // namespace

void register_restored_device(plc_device *dev)
{
    g_print("===> dev add: dev_name:%s, dev_id:%d\n", dev->dev_name.c_str(), dev->dev_id);
    dev->driver = device_driver_match(dev);
    if (dev->driver == nullptr) {
        device_free(dev);
        return;
    }
    device_register(dev);
}

int read_serial_dev_callback(void * /*ctx*/, int argc, char **argv, char ** /*col_names*/)
{
    const uint32_t dev_id = column_u(argv, argc, 0);
    if (device_find(dev_id) != nullptr) {
        g_print("<%s> same dev_id, can not add.\n", __func__);
        return 0;
    }
    serial_device *dev = serial_device_create(
        dev_id, column_s(argv, argc, 1), column_u(argv, argc, 2), column_u(argv, argc, 3),
        column_u(argv, argc, 4), column_u(argv, argc, 5), column_u(argv, argc, 6),
        column_u(argv, argc, 7), column_u(argv, argc, 8), column_u(argv, argc, 9),
        column_u(argv, argc, 10), column_u(argv, argc, 11));
    if (dev == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_serial_device_add memory\n", __func__);
        return -1;
    }
    register_restored_device(dev);
    return 0;
}

int read_ethernet_dev_callback(void * /*ctx*/, int argc, char **argv, char ** /*col_names*/)
{
    const uint32_t dev_id = column_u(argv, argc, 0);
    if (device_find(dev_id) != nullptr) {
        g_print("<%s> same dev_id, can not add.\n", __func__);
        return 0;
    }
    ethernet_device *dev = ethernet_device_create(
        dev_id, column_s(argv, argc, 1), column_u(argv, argc, 2), column_u(argv, argc, 3),
        column_u(argv, argc, 4), column_s(argv, argc, 5), column_u(argv, argc, 6),
        column_u(argv, argc, 7), column_u(argv, argc, 8));
    if (dev == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_ethernet_device_add memory\n", __func__);
        return -1;
    }
    register_restored_device(dev);
    return 0;
}

int read_node_callback(void * /*ctx*/, int argc, char **argv, char ** /*col_names*/)
{
    const uint32_t dev_id = column_u(argv, argc, 1);
    if (device_find(dev_id) == nullptr)
        return 0; // its device was not restored: dropped, the row stays
    // The alarm values were stored as unsigned 32-bit patterns; the same
    // pattern read back is the signed value again.
    node *n = node_create(
        column_s(argv, argc, 0), dev_id, column_u(argv, argc, 2), column_s(argv, argc, 3),
        column_s(argv, argc, 4), column_u(argv, argc, 5), column_s(argv, argc, 6),
        column_u(argv, argc, 7), static_cast<int32_t>(column_u(argv, argc, 8)),
        static_cast<int32_t>(column_u(argv, argc, 9)), column_u(argv, argc, 10),
        column_u(argv, argc, 11), static_cast<int32_t>(column_u(argv, argc, 12)),
        column_u(argv, argc, 13), column_u(argv, argc, 14),
        static_cast<int32_t>(column_u(argv, argc, 15)), column_s(argv, argc, 16),
        column_s(argv, argc, 17));
    if (n == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_point_table_add_one memory\n", __func__);
        return -1;
    }
    if (node_table_add_one(n) != 0)
        node_free(n);
    return 0;
}

int init_database()
{
    database_create_table("plc_service.db", "PlcDevSerial");
    database_create_table("plc_service.db", "PlcDevEthernet");
    database_create_table("plc_service.db", "PlcNode");

    open_database();
    // After the first start these fail because the tables exist; the
    // message is printed and that is all.
    create_serial_dev_table_in_database();
    create_ethernet_dev_table_in_database();
    create_node_table_in_database();
    // Devices before nodes: a node is kept only if its device is there.
    read_serial_dev_of_serial_dev_table(read_serial_dev_callback);
    read_ethernet_dev_of_ethernet_dev_table(read_ethernet_dev_callback);
    read_nodes_of_node_table(read_node_callback);
    return close_database();
}
