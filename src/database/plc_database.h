// The configuration database "my.db": statement texts built into one shared
// buffer, thin operations per table, transactions, and the per-change
// wrappers the bus handlers use. Only the main thread touches it.
#pragma once

#include <sqlite3.h>

#include <cstdint>

#include "device/plc/plc_ethernet.h"
#include "device/plc/plc_node.h"
#include "device/plc/plc_serial.h"

// Row callback in the shape sqlite3_exec uses: non-zero stops the select.
using row_callback = int (*)(void *ctx, int argc, char **argv, char **col_names);

// Statement builders: the text in the shared buffer, or null when the buffer
// could not be had (or the record is missing).
char *new_create_node_table_sql();
char *new_create_serial_dev_table_sql();
char *new_create_ethernet_dev_table_sql();
char *new_add_node_sql(const node *n);
char *new_delete_node_sql(uint32_t node_id);
char *new_read_node_table_sql();
char *new_clean_node_table_sql();
char *new_add_serial_dev_sql(const serial_device *dev);
char *new_delete_serial_dev_sql(uint32_t dev_id);
char *new_read_serial_dev_table_sql();
char *new_clean_serial_dev_table_sql();
char *new_add_ethernet_dev_sql(const ethernet_device *dev);
char *new_delete_ethernet_dev_sql(uint32_t dev_id);
char *new_read_ethernet_dev_table_sql();
char *new_clean_ethernet_dev_table_sql();
char *new_begin_sql();
char *new_commit_sql();
char *new_rollback_sql();

int open_database();
int exec_sql(const char *statement);
int exec_sql_1(const char *statement, row_callback callback);
int close_database();

int create_node_table_in_database();
int add_node_to_node_table(const node *n);
int delete_node_from_node_table(uint32_t node_id);
int update_node_for_node_table(const node *n);
int read_nodes_of_node_table(row_callback callback);
int clean_node_table();

int create_serial_dev_table_in_database();
int add_serial_dev_to_serial_dev_table(const serial_device *dev);
int delete_serial_dev_from_serial_dev_table(uint32_t dev_id);
int update_serial_dev_for_serial_dev_table(const serial_device *dev);
int read_serial_dev_of_serial_dev_table(row_callback callback);
int clean_serial_dev_table();

int create_ethernet_dev_table_in_database();
int add_ethernet_dev_to_ethernet_dev_table(const ethernet_device *dev);
int delete_ethernet_dev_from_ethernet_dev_table(uint32_t dev_id);
int update_ethernet_dev_for_ethernet_dev_table(const ethernet_device *dev);
int read_ethernet_dev_of_ethernet_dev_table(row_callback callback);
int clean_ethernet_dev_table();

int begin_transaction();
int commit_transaction();
int rollback();

int on_add_serial_device(const serial_device *dev);
int on_add_ethernet_device(const ethernet_device *dev);
int on_add_node_table(const node *n);
int on_update_serial_device(const serial_device *dev);
int on_update_ethernet_device(const ethernet_device *dev);
int on_update_node_table(const node *n);
int on_delete_serial_device(uint32_t dev_id);
int on_delete_ethernet_device(uint32_t dev_id);
int on_delete_node_table(uint32_t node_id);
