// The shape every driver file shares. A driver defines its private block
// (a plain struct: it is allocated zero-filled) and its open, release and
// read operations as <name>_open, <name>_release and <name>_read, between
//   DRIVER_LIFECYCLE(name, priv_type, voice, present_text)
// (probe, remove, init, deinit) and
//   DRIVER_DESCRIPTOR(name, voice, comm, mfg, type)
// (the three operations every driver only logs, and <name>_drv itself).
#pragma once

#include <glib.h>

#include <cstddef>

#include "device/registry/driver.h"

// How a driver speaks. Most print "<%s> called\n" and their lifecycle texts
// on standard output. The Q-series drivers log theirs, with "%s:%d " in
// front, at a level of their own; the serial one names its source file
// there and prints "%s called\n".
struct driver_voice {
    bool bracketed;       // an operation's entry line: "<%s> called\n", or "%s called\n"
    GLogLevelFlags level; // 0: texts printed as they are
    bool name_file;       // "%s:%d " names the source file, not the function
};

inline constexpr driver_voice plain_voice = {true, static_cast<GLogLevelFlags>(0), false};
inline constexpr driver_voice q_serial_voice = {false, G_LOG_LEVEL_CRITICAL, true};
inline constexpr driver_voice q_3e_voice = {true, G_LOG_LEVEL_WARNING, false};

// Where a text comes from: the function (or source file) and line.
struct driver_where {
    const char *func;
    const char *file;
    int line;
};
#define DRIVER_HERE (driver_where{__func__, __FILE__, __LINE__})

// A text in the driver's voice.
void driver_say(const driver_voice &v, driver_where at, const char *text);

// The driver's private block, or null after saying that it is missing.
void *driver_data(const driver &drv, const driver_voice &v, driver_where at);

int driver_common_init(driver &drv, const char *func);
int driver_common_deinit(driver &drv, const char *func);
int driver_common_probe(driver &drv, const driver_voice &v, driver_where at, size_t priv_size,
                        const char *present_text);
int driver_common_remove(driver &drv, const driver_voice &v, driver_where at, const char *missing_text);
// The entry line of the operation `func`; 0. The three operations every
// driver only logs are just this: the daemon never writes to a PLC.
int driver_log_only(const driver_voice &v, const char *func);

#define DRIVER_LIFECYCLE(name, priv_type, voice, present_text)                                   \
    extern driver name##_drv;                                                                    \
    static int name##_probe()                                                                    \
    {                                                                                            \
        return driver_common_probe(name##_drv, voice, DRIVER_HERE, sizeof(priv_type),            \
                                   (present_text));                                              \
    }                                                                                            \
    static int name##_remove()                                                                   \
    {                                                                                            \
        return driver_common_remove(name##_drv, voice, DRIVER_HERE,                               \
                                    #name "_drv.drv.priv = NULL\n");                             \
    }                                                                                            \
    int name##_init() { return driver_common_init(name##_drv, __func__); }                       \
    int name##_deinit() { return driver_common_deinit(name##_drv, __func__); }                   \
    [[maybe_unused]] static priv_type *name##_data(driver_where at)                              \
    {                                                                                            \
        return static_cast<priv_type *>(driver_data(name##_drv, voice, at));                     \
    }                                                                                            \
    /* for the operations that print their entry line first */                                   \
    [[maybe_unused]] static priv_type *name##_entered(driver_where at)                           \
    {                                                                                            \
        driver_log_only(voice, at.func);                                                         \
        return name##_data(at);                                                                  \
    }

#define DRIVER_DESCRIPTOR(name, voice, comm, mfg, type)                                          \
    static int name##_write(plc_device *, const char *, uint32_t, const char *)                  \
    {                                                                                            \
        return driver_log_only(voice, __func__);                                                 \
    }                                                                                            \
    static int name##_update_params(plc_device *) { return driver_log_only(voice, __func__); }  \
    static int name##_save_config(plc_device *) { return driver_log_only(voice, __func__); }    \
    driver name##_drv = {#name,          comm,           mfg,                                    \
                         type,           nullptr,        name##_probe,                           \
                         name##_remove,  name##_read,    name##_write,                           \
                         name##_open,    name##_release, name##_update_params,                   \
                         name##_save_config};
