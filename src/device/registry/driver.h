// Driver descriptors, the driver table, and the registry of active devices.
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>

#include "device/plc/plc_device.h"

struct driver {
    const char *name;
    uint32_t comm; // informational only: matching ignores it
    uint32_t mfg;
    uint32_t type;
    void *priv; // one per driver, shared by every device bound to it
    int (*probe)();
    int (*remove)();
    // Writes the value as NUL-terminated text into the 32-byte buffer; 0 on success.
    // addr is the caller's own copy of the node's address, writable: a driver
    // may rewrite it in place without changing its length (the DVP upper-cases
    // it, and the address is published as the driver left it).
    int (*read)(plc_device *dev, char *addr, uint32_t data_type, char *value);
    int (*write)(plc_device *dev, const char *addr, uint32_t data_type, const char *value);
    int (*open)(plc_device *dev);
    int (*release)(plc_device *dev);
    int (*update_params)(plc_device *dev);
    int (*save_config)(plc_device *dev);
};

struct driver_module {
    int (*init)();
    int (*deinit)();
};

int init_driver_modules(const driver_module *table);
int deinit_driver_modules(const driver_module *table);

int driver_register(driver *drv);
int driver_unregister(driver *drv);
GSList *get_activated_driver();

// Device list: records of either kind, told apart by dev_comm_type. Changed
// only under node_table_slist_mutex once the reading thread runs.
int device_register(plc_device *dev);
int device_unregister(plc_device *dev);
GSList *get_activated_device();
// Index lookup beside the list: the registered device with this id, or null.
plc_device *device_find(uint32_t dev_id);

driver *device_driver_match(const plc_device *dev);

void *__get_drvdata(const plc_device *dev);

// Placeholders for operations a driver does not have yet: open and read fail.
int driver_stub_open(plc_device *dev);
int driver_stub_read(plc_device *dev, char *addr, uint32_t data_type, char *value);
int driver_stub_release(plc_device *dev);
int driver_stub_write(plc_device *dev, const char *addr, uint32_t data_type, const char *value);
int driver_stub_dev(plc_device *dev);
