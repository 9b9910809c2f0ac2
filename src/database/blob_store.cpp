#include "database/blob_store.h"

#include <glib.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "base/handles.h"
#include "database/device_db.pb-c.h"
#include "database/restore.h"
#include "device/registry/driver.h"
#include "device/plc/plc_ethernet.h"
#include "device/plc/plc_node.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"

// Failures here are logged at error level, which ends the process: a store
// that cannot be opened or written stops the service before it serves.

namespace {

sqlite3 *open_store(const char *func, const char *file)
{
    sqlite3 *conn = nullptr;
    if (sqlite3_open(file, &conn) != SQLITE_OK)
        g_error("<%s>: Failed to open database: %s\n", func, sqlite3_errmsg(conn));
    return conn;
}

void close_store(const char *func, sqlite3 *conn)
{
    if (sqlite3_close(conn) != SQLITE_OK)
        g_error("<%s>: Failed to close database: %s\n", func, sqlite3_errmsg(conn));
}

sqlite_stmt_owner prepare(const char *func, sqlite3 *conn, const char *text)
{
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(conn, text, -1, &st, nullptr) != SQLITE_OK)
        g_error("<%s>: Failed to prepare %s\n", func, sqlite3_errmsg(conn));
    return sqlite_stmt_owner(st);
}

int count_rows(sqlite3 *conn, const char *text, bool *failed)
{
    sqlite3_stmt *prepared = nullptr;
    *failed = false;
    if (sqlite3_prepare_v2(conn, text, -1, &prepared, nullptr) != SQLITE_OK) {
        *failed = true;
        return 0;
    }
    const sqlite_stmt_owner st(prepared);
    int rows = 0;
    int rc;
    while ((rc = sqlite3_step(st.get())) == SQLITE_ROW)
        ++rows;
    if (rc != SQLITE_DONE)
        *failed = true;
    return rows;
}

// The payload at its whole length: one past what SQLite holds is refused
// as too big, where a length cut to int would store part of the message.
int bind_payload(sqlite3_stmt *st, int index, const uint8_t *payload, size_t length)
{
    return sqlite3_bind_blob64(st, index, payload, static_cast<sqlite3_uint64>(length),
                               SQLITE_TRANSIENT);
}

} // namespace

int sanity_check_by_table(sqlite3 *conn, const char *table)
{
    char text[128];
    snprintf(text, sizeof text, "SELECT * FROM '%s'", table);
    bool failed = false;
    count_rows(conn, text, &failed);
    if (failed) {
        // The wording has always read like this, although it reports absence.
        g_warning("<%s>: the %s table is existed: %s\n", __func__, table, sqlite3_errmsg(conn));
        return -1;
    }
    return 0;
}

int sanity_check_by_id(sqlite3 *conn, const char *table, int id)
{
    char text[128];
    snprintf(text, sizeof text, "SELECT * FROM '%s' WHERE ID = %d", table, id);
    bool failed = false;
    const int rows = count_rows(conn, text, &failed);
    if (failed) {
        g_warning("<%s>: the id(%d) is existed: %s\n", __func__, id, sqlite3_errmsg(conn));
        return -1;
    }
    return rows > 0 ? 0 : -1;
}

int database_create_table(const char *file, const char *table)
{
    sqlite3 *conn = open_store(__func__, file);
    if (sanity_check_by_table(conn, table) == 0) {
        close_store(__func__, conn);
        return 0;
    }
    char text[128];
    snprintf(text, sizeof text,
             "CREATE TABLE %s(ID INT PRIMARY KEY     NOT NULL,NAME           TEXT    NOT "
             "NULL,PAYLOAD        BLOB );",
             table);
    char *err = nullptr;
    if (sqlite3_exec(conn, text, nullptr, nullptr, &err) != SQLITE_OK)
        g_error("<%s>: Failed to create table: %s\n", __func__, err != nullptr ? err : "");
    sqlite3_free(err);
    close_store(__func__, conn);
    return 0;
}

int database_save_message(const char *file, const char *table, int id, const char *name,
                          const uint8_t *payload, size_t length)
{
    sqlite3 *conn = open_store(__func__, file);
    char text[256];
    sqlite_stmt_owner st;
    if (sanity_check_by_id(conn, table, id) == 0) {
        // An existing row keeps its NAME: only the message is replaced.
        snprintf(text, sizeof text, "UPDATE '%s' SET PAYLOAD = ? WHERE ID = %d", table, id);
        st = prepare(__func__, conn, text);
        if (bind_payload(st.get(), 1, payload, length) != SQLITE_OK)
            g_error("<%s>: Failed to bind blob(update)\n", __func__);
    } else {
        snprintf(text, sizeof text, "INSERT INTO '%s'(ID,NAME,PAYLOAD) VALUES(?,?,?)", table);
        st = prepare(__func__, conn, text);
        if (sqlite3_bind_int(st.get(), 1, id) != SQLITE_OK)
            g_error("<%s>: Failed to bind int: %d", __func__, id);
        if (sqlite3_bind_text(st.get(), 2, name, -1, SQLITE_TRANSIENT) != SQLITE_OK)
            g_error("<%s>: Failed to bind text: %s", __func__, name);
        if (bind_payload(st.get(), 3, payload, length) != SQLITE_OK)
            g_error("<%s>: Failed to bind blob(insert)\n", __func__);
    }
    g_print("<%s>: SQL:%s\n", __func__, text);
    sqlite3_step(st.get());
    st.reset(); // a statement left open would make the close fail
    close_store(__func__, conn);
    return 0;
}

int database_delete_message(const char *file, const char *table, int id)
{
    sqlite3 *conn = open_store(__func__, file);
    char text[128];
    snprintf(text, sizeof text, "DELETE FROM '%s' WHERE ID = %d", table, id);
    g_print("<%s>: SQL:%s\n", __func__, text);
    char *err = nullptr;
    if (sqlite3_exec(conn, text, nullptr, nullptr, &err) != SQLITE_OK)
        g_error("<%s>: Failed to create table: %s\n", __func__, err != nullptr ? err : "");
    sqlite3_free(err);
    close_store(__func__, conn);
    return 0;
}

int database_restore_message(const char *file, const char *table, blob_callback callback)
{
    sqlite3 *conn = open_store(__func__, file);
    char text[128];
    snprintf(text, sizeof text, "SELECT * FROM '%s'", table);
    g_print("<%s>: SQL:%s\n", __func__, text);
    {
        const sqlite_stmt_owner st = prepare(__func__, conn, text);
        while (sqlite3_step(st.get()) == SQLITE_ROW) {
            const auto *blob = static_cast<const uint8_t *>(sqlite3_column_blob(st.get(), 2));
            const int len = sqlite3_column_bytes(st.get(), 2);
            // A callback's result does not stop the walk.
            callback(blob, static_cast<size_t>(len));
        }
    } // finalized before the close
    close_store(__func__, conn);
    return 0;
}

int on_restore_serial_device_callback(const uint8_t *payload, size_t length)
{
    std::vector<uint8_t> copy(payload, payload + length);
    MsgPlcDevSerial *msg = msg_plc_dev_serial__unpack(nullptr, copy.size(), copy.data());
    if (msg == nullptr)
        return 0;
    // The lists may be in use by the reading thread: a restored record is
    // a configuration change like any other.
    config_change_frame change;
    if (device_find(msg->dev_id) != nullptr) {
        g_print("<%s> same dev_id, can not add.\n", __func__);
        msg_plc_dev_serial__free_unpacked(msg, nullptr);
        return 0;
    }
    serial_device *dev = serial_device_create(
        msg->dev_id, msg->dev_name, msg->dev_comm, msg->dev_mfg, msg->dev_type,
        msg->dev_serial_type, msg->dev_serial_number, msg->dev_station_num,
        msg->dev_serial_baudrate, msg->dev_serial_databit, msg->dev_serial_stopbit,
        msg->dev_serial_paritybit);
    msg_plc_dev_serial__free_unpacked(msg, nullptr);
    if (dev == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_serial_device_add memory\n", __func__);
        return -1;
    }
    register_restored_device(dev);
    return 0;
}

int on_restore_ethernet_device_callback(const uint8_t *payload, size_t length)
{
    std::vector<uint8_t> copy(payload, payload + length);
    MsgPlcDevEthernet *msg = msg_plc_dev_ethernet__unpack(nullptr, copy.size(), copy.data());
    if (msg == nullptr)
        return 0;
    config_change_frame change;
    if (device_find(msg->dev_id) != nullptr) {
        g_print("<%s> same dev_id, can not add.\n", __func__);
        msg_plc_dev_ethernet__free_unpacked(msg, nullptr);
        return 0;
    }
    ethernet_device *dev =
        ethernet_device_create(msg->dev_id, msg->dev_name, msg->dev_comm, msg->dev_mfg,
                               msg->dev_type, msg->ipaddr, msg->port, msg->rack, msg->slot);
    msg_plc_dev_ethernet__free_unpacked(msg, nullptr);
    if (dev == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_ethernet_device_add memory\n", __func__);
        return -1;
    }
    register_restored_device(dev);
    return 0;
}

int on_restore_node_table_callback(const uint8_t *payload, size_t length)
{
    MsgPlcNode *msg = msg_plc_node__unpack(nullptr, length, payload);
    if (msg == nullptr)
        return 0;
    config_change_frame change;
    if (device_find(msg->dev_id) == nullptr) {
        msg_plc_node__free_unpacked(msg, nullptr);
        return 0;
    }
    node *n = node_create(msg->dev_name, msg->dev_id, msg->node_id, msg->node_name,
                          msg->node_addr, msg->node_data_type, msg->node_unit,
                          msg->node_permission, msg->node_report_enable ? 1 : 0,
                          msg->node_alarm_enable ? 1 : 0, msg->node_alarm_bit,
                          msg->node_alarm_condition_major, msg->node_alarm_value_major,
                          msg->node_alarm_operation_type, msg->node_alarm_condition_minor,
                          msg->node_alarm_value_minor, msg->node_alarm_content,
                          msg->node_description);
    msg_plc_node__free_unpacked(msg, nullptr);
    if (n == nullptr) {
        g_print("<%s> called, failed to alloc on_handle_point_table_add_one memory\n", __func__);
        return 1;
    }
    if (node_table_add_one(n) != 0)
        node_free(n);
    return 0;
}
