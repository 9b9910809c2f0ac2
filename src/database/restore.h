// Rebuilding the device and node lists at start-up, before the bus name is
// requested (no lock needed yet), from the configuration database; and the
// same from the blob store's messages, for the day that store is wired in.
#pragma once

#include <cstddef>
#include <cstdint>

int init_database();

int read_serial_dev_callback(void *ctx, int argc, char **argv, char **col_names);
int read_ethernet_dev_callback(void *ctx, int argc, char **argv, char **col_names);
int read_node_callback(void *ctx, int argc, char **argv, char **col_names);

// Per blob store row (see database_restore_message), with the packed message.
int on_restore_serial_device_callback(const uint8_t *payload, size_t length);
int on_restore_ethernet_device_callback(const uint8_t *payload, size_t length);
int on_restore_node_table_callback(const uint8_t *payload, size_t length);
