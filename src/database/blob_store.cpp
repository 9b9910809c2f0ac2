#include "database/blob_store.h"

#include <glib.h>

#include <cstdio>
#include <utility>

#include "base/handles.h"

// Failures here are logged at error level, which ends the process: a store
// that cannot be opened or written stops the service before it serves.

namespace {

sqlite_owner open_store(const char *func, const char *file)
{
    sqlite_owner conn;
    if (sqlite3_open(file, out_ptr(conn)) != SQLITE_OK)
        g_error("<%s>: Failed to open database: %s\n", func, sqlite3_errmsg(conn.get()));
    return conn;
}

// Closed here rather than by the owner: a close that fails ends the process.
void close_store(const char *func, sqlite_owner conn)
{
    sqlite3 *handle = conn.release();
    if (sqlite3_close(handle) != SQLITE_OK)
        g_error("<%s>: Failed to close database: %s\n", func, sqlite3_errmsg(handle));
}

sqlite_stmt_owner prepare(const char *func, sqlite3 *conn, const char *text)
{
    sqlite_stmt_owner st;
    if (sqlite3_prepare_v2(conn, text, -1, out_ptr(st), nullptr) != SQLITE_OK)
        g_error("<%s>: Failed to prepare %s\n", func, sqlite3_errmsg(conn));
    return st;
}

int count_rows(sqlite3 *conn, const char *text, bool *failed)
{
    sqlite_stmt_owner st;
    *failed = sqlite3_prepare_v2(conn, text, -1, out_ptr(st), nullptr) != SQLITE_OK;
    if (*failed)
        return 0;
    int rows = 0;
    int rc;
    while ((rc = sqlite3_step(st.get())) == SQLITE_ROW)
        ++rows;
    if (rc != SQLITE_DONE)
        *failed = true;
    return rows;
}

// A failed statement ends the process; the delete has always reported its
// failure with the create's words.
void run_or_end(const char *func, sqlite3 *conn, const char *text)
{
    c_owner<char, sqlite3_free> err;
    if (sqlite3_exec(conn, text, nullptr, nullptr, out_ptr(err)) != SQLITE_OK)
        g_error("<%s>: Failed to create table: %s\n", func, err ? err.get() : "");
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
    sqlite_owner conn = open_store(__func__, file);
    if (sanity_check_by_table(conn.get(), table) == 0) {
        close_store(__func__, std::move(conn));
        return 0;
    }
    char text[128];
    snprintf(text, sizeof text,
             "CREATE TABLE %s(ID INT PRIMARY KEY     NOT NULL,NAME           TEXT    NOT "
             "NULL,PAYLOAD        BLOB );",
             table);
    run_or_end(__func__, conn.get(), text);
    close_store(__func__, std::move(conn));
    return 0;
}

int database_save_message(const char *file, const char *table, int id, const char *name,
                          const uint8_t *payload, size_t length)
{
    sqlite_owner conn = open_store(__func__, file);
    char text[256];
    sqlite_stmt_owner st;
    if (sanity_check_by_id(conn.get(), table, id) == 0) {
        // An existing row keeps its NAME: only the message is replaced.
        snprintf(text, sizeof text, "UPDATE '%s' SET PAYLOAD = ? WHERE ID = %d", table, id);
        st = prepare(__func__, conn.get(), text);
        if (bind_payload(st.get(), 1, payload, length) != SQLITE_OK)
            g_error("<%s>: Failed to bind blob(update)\n", __func__);
    } else {
        snprintf(text, sizeof text, "INSERT INTO '%s'(ID,NAME,PAYLOAD) VALUES(?,?,?)", table);
        st = prepare(__func__, conn.get(), text);
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
    close_store(__func__, std::move(conn));
    return 0;
}

int database_delete_message(const char *file, const char *table, int id)
{
    sqlite_owner conn = open_store(__func__, file);
    char text[128];
    snprintf(text, sizeof text, "DELETE FROM '%s' WHERE ID = %d", table, id);
    g_print("<%s>: SQL:%s\n", __func__, text);
    run_or_end(__func__, conn.get(), text);
    close_store(__func__, std::move(conn));
    return 0;
}

int database_restore_message(const char *file, const char *table, blob_callback callback)
{
    sqlite_owner conn = open_store(__func__, file);
    char text[128];
    snprintf(text, sizeof text, "SELECT * FROM '%s'", table);
    g_print("<%s>: SQL:%s\n", __func__, text);
    {
        const sqlite_stmt_owner st = prepare(__func__, conn.get(), text);
        while (sqlite3_step(st.get()) == SQLITE_ROW) {
            const auto *blob = static_cast<const uint8_t *>(sqlite3_column_blob(st.get(), 2));
            const int len = sqlite3_column_bytes(st.get(), 2);
            // A callback's result does not stop the walk.
            callback(blob, static_cast<size_t>(len));
        }
    } // finalized before the close
    close_store(__func__, std::move(conn));
    return 0;
}
