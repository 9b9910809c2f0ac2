#include "database/plc_database.h"

#include <glib.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/handles.h"

void sqlite_deleter::operator()(sqlite3 *conn) const noexcept
{
    sqlite3_close(conn);
}

void sqlite_deleter::operator()(sqlite3_stmt *st) const noexcept
{
    sqlite3_finalize(st);
}

namespace {

// One connection and one statement buffer, both the main thread's alone.
const char *const db_name = "my.db";
sqlite_owner db;
char *sql = nullptr;
size_t malloc_num = 1024;

char *new_sql()
{
    if (sql == nullptr) {
        sql = static_cast<char *>(malloc(malloc_num));
        if (sql == nullptr) {
            printf("%s,malloc err\n", "new_sql");
            perror("malloc");
        }
    }
    return sql;
}

// Formats a statement into the shared buffer, growing it (never shrinking)
// when the text does not fit.
__attribute__((format(printf, 2, 3))) char *build_sql(const char *func, const char *fmt, ...)
{
    if (new_sql() == nullptr)
        return nullptr;
    for (;;) {
        va_list ap;
        va_start(ap, fmt);
        const int len = vsnprintf(sql, malloc_num, fmt, ap);
        va_end(ap);
        if (len < 0)
            return nullptr;
        if (static_cast<size_t>(len) < malloc_num)
            return sql;
        malloc_num = static_cast<size_t>(len) + 1;
        char *bigger = static_cast<char *>(realloc(sql, malloc_num));
        if (bigger == nullptr) {
            printf("%s,realloc err\n", func);
            perror("realloc");
            return nullptr;
        }
        sql = bigger;
    }
}

bool only_blank(const char *tail)
{
    // What follows the first statement may be white space or comments only.
    while (tail != nullptr && *tail != '\0') {
        sqlite_stmt_owner next;
        const char *rest = nullptr;
        if (sqlite3_prepare_v2(db.get(), tail, -1, out_ptr(next), &rest) != SQLITE_OK)
            return false;
        if (next)
            return false;
        if (rest == tail)
            break;
        tail = rest;
    }
    return true;
}

// Runs exactly one statement. Values are placed in the texts unescaped, so
// a quote in a name breaks that statement; running a single statement per
// call keeps such a value from ever carrying a second statement with it.
int run_statement(const char *statement, row_callback callback)
{
    sqlite_stmt_owner owner;
    const char *tail = nullptr;
    if (sqlite3_prepare_v2(db.get(), statement, -1, out_ptr(owner), &tail) != SQLITE_OK) {
        g_print("sqlite3_exec err: %s\n", sqlite3_errmsg(db.get()));
        return -1;
    }
    sqlite3_stmt *st = owner.get();
    if (st == nullptr)
        return 0; // nothing but white space or comments
    if (!only_blank(tail)) {
        g_print("sqlite3_exec err: %s\n", "refusing a text of more than one statement");
        return -1;
    }
    const int columns = sqlite3_column_count(st);
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        if (callback == nullptr)
            continue;
        char *values[64] = {};
        char *names[64] = {};
        const int n = columns < 64 ? columns : 64;
        for (int i = 0; i < n; ++i) {
            values[i] = const_cast<char *>(reinterpret_cast<const char *>(sqlite3_column_text(st, i)));
            names[i] = const_cast<char *>(sqlite3_column_name(st, i));
        }
        if (callback(nullptr, n, values, names) != 0) {
            g_print("sqlite3_exec err: %s\n", "query aborted");
            return -1;
        }
    }
    if (rc != SQLITE_DONE) {
        g_print("sqlite3_exec err: %s\n", sqlite3_errmsg(db.get()));
        return -1;
    }
    return 0;
}

int run_built(const char *statement)
{
    if (statement == nullptr)
        return -1;
    return exec_sql(statement);
}

// An update is a delete followed by an insert. Both run under a savepoint,
// so that an insert that fails (a quote in a name) gives the old row back
// instead of losing it.
template <typename Steps> int replace_row(Steps steps)
{
    if (db == nullptr || sqlite3_exec(db.get(), "savepoint row_update;", nullptr, nullptr, nullptr) != SQLITE_OK)
        return steps();
    const int r = steps();
    if (r != 0)
        sqlite3_exec(db.get(), "rollback to row_update;", nullptr, nullptr, nullptr);
    sqlite3_exec(db.get(), "release row_update;", nullptr, nullptr, nullptr);
    return r;
}

} // namespace

char *new_create_node_table_sql()
{
    return build_sql(__func__, "%s",
                     "create table NodeTable(dev_name TEXT NOT NULL,dev_id INTEGER NOT "
                     "NULL,node_id INTEGER PRIMARY KEY NOT NULL,node_name TEXT NOT "
                     "NULL,node_addr TEXT NOT NULL,node_data_type INTEGER NOT NULL,node_unit "
                     "TEXT NOT NULL,node_permission INTEGER NOT NULL,node_report_enable BOOLEAN "
                     "NOT NULL,node_alarm_enable BOOLEAN NOT NULL,node_alarm_bit INTEGER NOT "
                     "NULL,node_alarm_condition_major INTEGER NOT NULL,node_alarm_value_major "
                     "INTEGER NOT NULL,node_alarm_operation_type INTEGER NOT "
                     "NULL,node_alarm_condition_minor INTEGER NOT NULL,node_alarm_value_minor "
                     "INTEGER NOT NULL,node_alarm_content TEXT NOT NULL,node_description TEXT "
                     "NOT NULL);");
}

char *new_create_serial_dev_table_sql()
{
    return build_sql(__func__, "%s",
                     "create table SerialDevTable(dev_id INTEGER PRIMARY KEY NOT NULL,dev_name "
                     "TEXT NOT NULL,dev_comm_type INTEGER NOT NULL,dev_mfg INTEGER NOT "
                     "NULL,dev_type INTEGER NOT NULL,serial_type INTEGER NOT NULL,serial_number "
                     "INTEGER NOT NULL,station_num INTEGER NOT NULL,baudrate INTEGER NOT "
                     "NULL,data_bit INTEGER NOT NULL,stop_bit INTEGER NOT NULL,parity_bit "
                     "INTEGER NOT NULL);");
}

char *new_create_ethernet_dev_table_sql()
{
    return build_sql(__func__, "%s",
                     "create table EthernetDevTable(dev_id INTEGER PRIMARY KEY NOT "
                     "NULL,dev_name TEXT NOT NULL,dev_comm_type INTEGER NOT NULL,dev_mfg "
                     "INTEGER NOT NULL,dev_type INTEGER NOT NULL,ip_addr TEXT NOT NULL,port "
                     "INTEGER NOT NULL,rack INTEGER NOT NULL,slot INTEGER NOT NULL);");
}

char *new_add_node_sql(const node *n)
{
    if (n == nullptr)
        return nullptr;
    // Every number goes out with %u: negative alarm values are stored as
    // their unsigned 32-bit pattern and read back the same way.
    return build_sql(__func__,
                     "insert into NodeTable values "
                     "('%s',%u,%u,'%s','%s',%u,'%s',%u,%u,%u,%u,%u,%u,%u,%u,%u,'%s','%s');",
                     n->dev_name.c_str(), n->dev_id, n->node_id, n->node_name.c_str(),
                     n->node_addr.c_str(), n->node_data_type, n->rare.unit(),
                     n->node_permission, static_cast<unsigned>(n->node_report_enable),
                     static_cast<unsigned>(n->node_alarm_enable), n->node_alarm_bit,
                     n->node_alarm_condition_major, static_cast<unsigned>(n->node_alarm_value_major),
                     n->node_alarm_operation_type, n->node_alarm_condition_minor,
                     static_cast<unsigned>(n->node_alarm_value_minor),
                     n->rare.alarm_content(), n->rare.description());
}

char *new_delete_node_sql(uint32_t node_id)
{
    return build_sql(__func__, "delete from NodeTable where node_id = %u;", node_id);
}

char *new_read_node_table_sql()
{
    return build_sql(__func__, "%s", "select * from NodeTable;");
}

char *new_clean_node_table_sql()
{
    return build_sql(__func__, "%s", "delete from NodeTable;");
}

char *new_add_serial_dev_sql(const serial_device *dev)
{
    if (dev == nullptr)
        return nullptr;
    return build_sql(__func__, "insert into SerialDevTable values (%u,'%s',%u,%u,%u,%u,%u,%u,%u,%u,%u,%u);",
                     dev->dev_id, dev->dev_name.c_str(), dev->dev_comm_type, dev->dev_mfg,
                     dev->dev_type, dev->serial_type, dev->serial_number, dev->station_num,
                     dev->baudrate, dev->data_bit, dev->stop_bit, dev->parity_bit);
}

char *new_delete_serial_dev_sql(uint32_t dev_id)
{
    return build_sql(__func__, "delete from SerialDevTable where dev_id = %u;", dev_id);
}

char *new_read_serial_dev_table_sql()
{
    return build_sql(__func__, "%s", "select * from SerialDevTable;");
}

char *new_clean_serial_dev_table_sql()
{
    return build_sql(__func__, "%s", "delete from SerialDevTable;");
}

char *new_add_ethernet_dev_sql(const ethernet_device *dev)
{
    if (dev == nullptr)
        return nullptr;
    return build_sql(__func__, "insert into EthernetDevTable values (%u,'%s',%u,%u,%u,'%s',%u,%u,%u);",
                     dev->dev_id, dev->dev_name.c_str(), dev->dev_comm_type, dev->dev_mfg,
                     dev->dev_type, dev->ip_addr.c_str(), dev->port, dev->rack, dev->slot);
}

char *new_delete_ethernet_dev_sql(uint32_t dev_id)
{
    return build_sql(__func__, "delete from EthernetDevTable where dev_id = %u;", dev_id);
}

char *new_read_ethernet_dev_table_sql()
{
    return build_sql(__func__, "%s", "select * from EthernetDevTable;");
}

char *new_clean_ethernet_dev_table_sql()
{
    return build_sql(__func__, "%s", "delete from EthernetDevTable;");
}

char *new_begin_sql()
{
    return build_sql(__func__, "%s", "begin;");
}

char *new_commit_sql()
{
    return build_sql(__func__, "%s", "commit;");
}

char *new_rollback_sql()
{
    return build_sql(__func__, "%s", "rollback;");
}

int open_database()
{
    if (sqlite3_open(db_name, out_ptr(db)) != SQLITE_OK) {
        g_print("sqlite3_open err: %s\n", sqlite3_errmsg(db.get()));
        db.reset();
        return -1;
    }
    sqlite3_busy_timeout(db.get(), 5000);
    g_print("Open database successfully : %s\n", db_name);
    return 0;
}

int exec_sql(const char *statement)
{
    if (db == nullptr) {
        g_print("err : db = NULL\n");
        return -1;
    }
    return run_statement(statement, nullptr);
}

int exec_sql_1(const char *statement, row_callback callback)
{
    if (db == nullptr) {
        g_print("err : db = NULL\n");
        return -1;
    }
    if (run_statement(statement, callback) != 0)
        return -1;
    g_print("exec sql 1 successfully\n");
    return 0;
}

int close_database()
{
    g_print("%s called\n", __func__);
    free(sql);
    sql = nullptr;
    // The handle is cleared as well: a statement after close then reports
    // "db = NULL" instead of touching a closed connection.
    sqlite3 *handle = db.release();
    if (sqlite3_close(handle) != SQLITE_OK) {
        g_print("sqlite3_close : %s\n", sqlite3_errmsg(handle));
        return -1;
    }
    g_print("Close database successfully\n");
    return 0;
}

int create_node_table_in_database()
{
    g_print("%s called\n", __func__);
    return run_built(new_create_node_table_sql());
}

int add_node_to_node_table(const node *n)
{
    // No trace line here: bulk requests add tens of thousands of nodes.
    return run_built(new_add_node_sql(n));
}

int delete_node_from_node_table(uint32_t node_id)
{
    g_print("%s called\n", __func__);
    return run_built(new_delete_node_sql(node_id));
}

int update_node_for_node_table(const node *n)
{
    g_print("%s called\n", __func__);
    if (n == nullptr)
        return -1;
    return replace_row([&] {
        if (delete_node_from_node_table(n->node_id) != 0)
            return -1;
        return add_node_to_node_table(n);
    });
}

int read_nodes_of_node_table(row_callback callback)
{
    g_print("%s called\n", __func__);
    const char *s = new_read_node_table_sql();
    return s == nullptr ? -1 : exec_sql_1(s, callback);
}

int clean_node_table()
{
    g_print("%s called\n", __func__);
    return run_built(new_clean_node_table_sql());
}

int create_serial_dev_table_in_database()
{
    g_print("%s called\n", __func__);
    return run_built(new_create_serial_dev_table_sql());
}

int add_serial_dev_to_serial_dev_table(const serial_device *dev)
{
    g_print("%s called\n", __func__);
    return run_built(new_add_serial_dev_sql(dev));
}

int delete_serial_dev_from_serial_dev_table(uint32_t dev_id)
{
    g_print("%s called\n", __func__);
    return run_built(new_delete_serial_dev_sql(dev_id));
}

int update_serial_dev_for_serial_dev_table(const serial_device *dev)
{
    g_print("%s called\n", __func__);
    if (dev == nullptr)
        return -1;
    return replace_row([&] {
        if (delete_serial_dev_from_serial_dev_table(dev->dev_id) != 0)
            return -1;
        return add_serial_dev_to_serial_dev_table(dev);
    });
}

int read_serial_dev_of_serial_dev_table(row_callback callback)
{
    g_print("%s called\n", __func__);
    const char *s = new_read_serial_dev_table_sql();
    return s == nullptr ? -1 : exec_sql_1(s, callback);
}

int clean_serial_dev_table()
{
    g_print("%s called\n", __func__);
    return run_built(new_clean_serial_dev_table_sql());
}

int create_ethernet_dev_table_in_database()
{
    g_print("%s called\n", __func__);
    return run_built(new_create_ethernet_dev_table_sql());
}

int add_ethernet_dev_to_ethernet_dev_table(const ethernet_device *dev)
{
    g_print("%s called\n", __func__);
    return run_built(new_add_ethernet_dev_sql(dev));
}

int delete_ethernet_dev_from_ethernet_dev_table(uint32_t dev_id)
{
    g_print("%s called\n", __func__);
    return run_built(new_delete_ethernet_dev_sql(dev_id));
}

int update_ethernet_dev_for_ethernet_dev_table(const ethernet_device *dev)
{
    g_print("%s called\n", __func__);
    if (dev == nullptr)
        return -1;
    return replace_row([&] {
        if (delete_ethernet_dev_from_ethernet_dev_table(dev->dev_id) != 0)
            return -1;
        return add_ethernet_dev_to_ethernet_dev_table(dev);
    });
}

int read_ethernet_dev_of_ethernet_dev_table(row_callback callback)
{
    g_print("%s called\n", __func__);
    const char *s = new_read_ethernet_dev_table_sql();
    return s == nullptr ? -1 : exec_sql_1(s, callback);
}

int clean_ethernet_dev_table()
{
    g_print("%s called\n", __func__);
    return run_built(new_clean_ethernet_dev_table_sql());
}

int begin_transaction()
{
    g_print("%s called\n", __func__);
    return run_built(new_begin_sql());
}

int commit_transaction()
{
    g_print("%s called\n", __func__);
    return run_built(new_commit_sql());
}

int rollback()
{
    g_print("%s called\n", __func__);
    return run_built(new_rollback_sql());
}

namespace {
// Opens, runs one operation, closes; -1 without running it when the
// database cannot be opened.
template <typename Op> int one_change(Op op)
{
    if (open_database() != 0)
        return -1;
    const int r = op();
    close_database();
    return r;
}
} // namespace

int on_add_serial_device(const serial_device *dev)
{
    return one_change([&] { return add_serial_dev_to_serial_dev_table(dev); });
}

int on_add_ethernet_device(const ethernet_device *dev)
{
    return one_change([&] { return add_ethernet_dev_to_ethernet_dev_table(dev); });
}

int on_add_node_table(const node *n)
{
    return one_change([&] { return add_node_to_node_table(n); });
}

int on_update_serial_device(const serial_device *dev)
{
    return one_change([&] { return update_serial_dev_for_serial_dev_table(dev); });
}

int on_update_ethernet_device(const ethernet_device *dev)
{
    return one_change([&] { return update_ethernet_dev_for_ethernet_dev_table(dev); });
}

int on_update_node_table(const node *n)
{
    return one_change([&] { return update_node_for_node_table(n); });
}

int on_delete_serial_device(uint32_t dev_id)
{
    return one_change([&] { return delete_serial_dev_from_serial_dev_table(dev_id); });
}

int on_delete_ethernet_device(uint32_t dev_id)
{
    return one_change([&] { return delete_ethernet_dev_from_ethernet_dev_table(dev_id); });
}

int on_delete_node_table(uint32_t node_id)
{
    return one_change([&] { return delete_node_from_node_table(node_id); });
}
