// A generic store of configuration records as protobuf messages in BLOB
// columns of "plc_service.db", one table per record kind. Start-up only
// creates its tables; saving and restoring are complete for the day the
// store is wired to the handlers.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>

// Called per restored row with the packed message.
using blob_callback = int (*)(const uint8_t *payload, size_t length);

int database_create_table(const char *file, const char *table);
int database_save_message(const char *file, const char *table, int id, const char *name,
                          const uint8_t *payload, size_t length);
int database_delete_message(const char *file, const char *table, int id);
int database_restore_message(const char *file, const char *table, blob_callback callback);
int sanity_check_by_table(sqlite3 *conn, const char *table);
int sanity_check_by_id(sqlite3 *conn, const char *table, int id);
