#include "database/restore.h"

#include <glib.h>

#include <cstdio>
#include <memory>

#include "base/runtime.h"
#include "database/blob_store.h"
#include "database/device_db.pb-c.h"
#include "database/plc_database.h"
#include "device/plc/plc_ethernet.h"
#include "device/plc/plc_node.h"
#include "device/plc/plc_serial.h"
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

// One stored device, from a row or a message: refused when its id is taken,
// otherwise announced, bound to its driver and registered, or dropped when no
// driver serves its model (its stored row stays). -1 only when the record
// could not be made, which ends the rest of the table.
template <typename Make>
int restore_device(const char *func, uint32_t dev_id, const char *add_handler, Make make)
{
    if (device_find(dev_id) != nullptr) {
        g_print("<%s> same dev_id, can not add.\n", func);
        return 0;
    }
    std::unique_ptr<plc_device> dev(make());
    if (dev == nullptr) {
        g_print("<%s> called, failed to alloc %s memory\n", func, add_handler);
        return -1;
    }
    g_print("===> dev add: dev_name:%s, dev_id:%d\n", dev->dev_name.c_str(), dev->dev_id);
    dev->driver = device_driver_match(dev.get());
    if (dev->driver != nullptr) {
        device_register(dev.get());
        dev.release(); // the list has it
    }
    return 0;
}

// One stored node: kept only when its device was restored (otherwise dropped
// without a word, its row stays); `alloc_failed` is what a record that
// could not be made answers.
template <typename Make> int restore_node(const char *func, uint32_t dev_id, int alloc_failed, Make make)
{
    if (device_find(dev_id) == nullptr)
        return 0;
    std::unique_ptr<node> n(make());
    if (n == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_point_table_add_one memory\n", func);
        return alloc_failed;
    }
    if (node_table_add_one(n.get()) == 0)
        n.release();
    return 0;
}

// A message of the blob store, unpacked and freed by its kind's functions;
// bytes that are no message are ignored. The lists may be in use by the
// reading thread: a restored record is a configuration change like any other.
template <typename Msg, typename Restore>
int restore_message(Msg *(*unpack)(ProtobufCAllocator *, size_t, const uint8_t *),
                    void (*free_unpacked)(Msg *, ProtobufCAllocator *), const uint8_t *payload,
                    size_t length, Restore restore)
{
    auto free_msg = [free_unpacked](Msg *m) { free_unpacked(m, nullptr); };
    const std::unique_ptr<Msg, decltype(free_msg)> msg(unpack(nullptr, length, payload), free_msg);
    if (msg == nullptr)
        return 0;
    config_change_frame change;
    return restore(*msg);
}

} // namespace

int read_serial_dev_callback(void * /*ctx*/, int argc, char **argv, char ** /*col_names*/)
{
    return restore_device(__func__, column_u(argv, argc, 0), "on_handle_serial_device_add", [&] {
        return serial_device_create(
            column_u(argv, argc, 0), column_s(argv, argc, 1), column_u(argv, argc, 2),
            column_u(argv, argc, 3), column_u(argv, argc, 4), column_u(argv, argc, 5),
            column_u(argv, argc, 6), column_u(argv, argc, 7), column_u(argv, argc, 8),
            column_u(argv, argc, 9), column_u(argv, argc, 10), column_u(argv, argc, 11));
    });
}

int read_ethernet_dev_callback(void * /*ctx*/, int argc, char **argv, char ** /*col_names*/)
{
    return restore_device(__func__, column_u(argv, argc, 0), "on_handle_ethernet_device_add", [&] {
        return ethernet_device_create(column_u(argv, argc, 0), column_s(argv, argc, 1),
                                      column_u(argv, argc, 2), column_u(argv, argc, 3),
                                      column_u(argv, argc, 4), column_s(argv, argc, 5),
                                      column_u(argv, argc, 6), column_u(argv, argc, 7),
                                      column_u(argv, argc, 8));
    });
}

int read_node_callback(void * /*ctx*/, int argc, char **argv, char ** /*col_names*/)
{
    // The alarm values were stored as unsigned 32-bit patterns; the same
    // pattern read back is the signed value again.
    return restore_node(__func__, column_u(argv, argc, 1), -1, [&] {
        return node_create(
            column_s(argv, argc, 0), column_u(argv, argc, 1), column_u(argv, argc, 2),
            column_s(argv, argc, 3), column_s(argv, argc, 4), column_u(argv, argc, 5),
            column_s(argv, argc, 6), column_u(argv, argc, 7),
            static_cast<int32_t>(column_u(argv, argc, 8)),
            static_cast<int32_t>(column_u(argv, argc, 9)), column_u(argv, argc, 10),
            column_u(argv, argc, 11), static_cast<int32_t>(column_u(argv, argc, 12)),
            column_u(argv, argc, 13), column_u(argv, argc, 14),
            static_cast<int32_t>(column_u(argv, argc, 15)), column_s(argv, argc, 16),
            column_s(argv, argc, 17));
    });
}

int on_restore_serial_device_callback(const uint8_t *payload, size_t length)
{
    return restore_message(msg_plc_dev_serial__unpack, msg_plc_dev_serial__free_unpacked, payload,
                           length, [](const MsgPlcDevSerial &m) {
        return restore_device("on_restore_serial_device_callback", m.dev_id,
                              "on_handle_serial_device_add", [&] {
            return serial_device_create(m.dev_id, m.dev_name, m.dev_comm, m.dev_mfg, m.dev_type,
                                        m.dev_serial_type, m.dev_serial_number,
                                        m.dev_station_num, m.dev_serial_baudrate,
                                        m.dev_serial_databit, m.dev_serial_stopbit,
                                        m.dev_serial_paritybit);
        });
    });
}

int on_restore_ethernet_device_callback(const uint8_t *payload, size_t length)
{
    return restore_message(msg_plc_dev_ethernet__unpack, msg_plc_dev_ethernet__free_unpacked,
                           payload, length, [](const MsgPlcDevEthernet &m) {
        return restore_device("on_restore_ethernet_device_callback", m.dev_id,
                              "on_handle_ethernet_device_add", [&] {
            return ethernet_device_create(m.dev_id, m.dev_name, m.dev_comm, m.dev_mfg,
                                          m.dev_type, m.ipaddr, m.port, m.rack, m.slot);
        });
    });
}

int on_restore_node_table_callback(const uint8_t *payload, size_t length)
{
    return restore_message(msg_plc_node__unpack, msg_plc_node__free_unpacked, payload, length,
                           [](const MsgPlcNode &m) {
        return restore_node("on_restore_node_table_callback", m.dev_id, 1, [&] {
            return node_create(m.dev_name, m.dev_id, m.node_id, m.node_name, m.node_addr,
                               m.node_data_type, m.node_unit, m.node_permission,
                               m.node_report_enable ? 1 : 0, m.node_alarm_enable ? 1 : 0,
                               m.node_alarm_bit, m.node_alarm_condition_major,
                               m.node_alarm_value_major, m.node_alarm_operation_type,
                               m.node_alarm_condition_minor, m.node_alarm_value_minor,
                               m.node_alarm_content, m.node_description);
        });
    });
}

int init_database()
{
    database_create_table("plc_service.db", "PlcDevSerial");
    database_create_table("plc_service.db", "PlcDevEthernet");
    database_create_table("plc_service.db", "PlcNode");

    // The rows are read once, in key order: SQLite's default cache of up to
    // 2 MiB would end up holding most of the node table, and once freed its
    // pages stay among the records on the heap, 60 to 120 bytes per node.
    if (open_database() == 0)
        exec_sql("PRAGMA cache_size=-128;");
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
