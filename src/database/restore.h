// Rebuilding the device and node lists from the configuration database at
// start-up, before the bus name is requested (no lock needed yet).
#pragma once

#include "device/plc/plc_device.h"

int init_database();

// A device rebuilt from storage: announced, bound to its driver and
// registered, or freed when no driver serves its model (its stored row stays).
void register_restored_device(plc_device *dev);

int read_serial_dev_callback(void *ctx, int argc, char **argv, char **col_names);
int read_ethernet_dev_callback(void *ctx, int argc, char **argv, char **col_names);
int read_node_callback(void *ctx, int argc, char **argv, char **col_names);
