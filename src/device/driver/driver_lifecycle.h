// Defines a driver's probe/remove/init/deinit around its descriptor
// `<name>_drv`. priv_type must be a plain struct: it is allocated zero-filled.
#pragma once

#include "device/registry/driver.h"

#define DRIVER_LIFECYCLE(name, priv_type, present_text, missing_text)                        \
    extern driver name##_drv;                                                                \
    static int name##_probe()                                                                \
    {                                                                                        \
        return driver_common_probe(name##_drv, __func__, sizeof(priv_type), (present_text)); \
    }                                                                                        \
    static int name##_remove()                                                               \
    {                                                                                        \
        return driver_common_remove(name##_drv, __func__, (missing_text));                  \
    }                                                                                        \
    int name##_init() { return driver_common_init(name##_drv, __func__); }                   \
    int name##_deinit() { return driver_common_deinit(name##_drv, __func__); }

// The operations a reading-only driver just logs: write, update_params and
// save_config, as name_write, name_update_params and name_save_config.
#define DRIVER_LOG_ONLY_OPS(name)                                                           \
    static int name##_write(plc_device *, const char *, uint32_t, const char *)             \
    {                                                                                       \
        return driver_log_only(__func__);                                                   \
    }                                                                                       \
    static int name##_update_params(plc_device *) { return driver_log_only(__func__); }    \
    static int name##_save_config(plc_device *) { return driver_log_only(__func__); }

// "file:line" prefix the Q-series drivers put before their texts.
#define DRIVER_WHERE __FILE__ ":" G_STRINGIFY(__LINE__) " "
