// Rebuilding the device and node lists from the configuration database at
// start-up, before the bus name is requested (no lock needed yet).
#pragma once

int init_database();

int read_serial_dev_callback(void *ctx, int argc, char **argv, char **col_names);
int read_ethernet_dev_callback(void *ctx, int argc, char **argv, char **col_names);
int read_node_callback(void *ctx, int argc, char **argv, char **col_names);
