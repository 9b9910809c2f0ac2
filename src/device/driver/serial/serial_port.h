// The gateway serial port a device names, as every serial driver opens it.
#pragma once

#include "device/driver/driver_lifecycle.h"
#include "device/plc/plc_device.h"

// A serial driver's private block, or its head: the port last opened
// through the driver (one per driver: the reading loop opens one device of
// a model at a time). The block starts zeroed, so `open` says whether fd is
// ours; a closed port keeps its number.
struct serial_slot {
    int fd;
    bool open;
};

enum class port_fault {
    none,
    no_port,     // not a serial record, or serial_number names no port: nothing touched
    no_slot,     // the driver has no private data: nothing opened
    open_failed, // errno set; the slot holds -1
};

struct port_opened {
    port_fault fault;
    const char *path; // the port's path once resolved
};

// Resolves the port of `dev`, closes the one `slot` holds, opens the new one
// non-blocking, puts it in raw mode with the device's line settings, drops
// whatever is pending both ways, and leaves it in `slot`.
port_opened serial_port_open(const plc_device *dev, serial_slot *slot);

// Closes the slot's port, keeping its number.
void serial_port_close(serial_slot &slot);

// The slot's port, or -1 once closed: a closed number may already name
// another file of the daemon.
inline int serial_port_fd(const serial_slot &slot)
{
    return slot.open ? slot.fd : -1;
}

// The open operation of the drivers that speak plainly: it says
// "serial_number err\n" or "open error\n" when it fails. 0 or -1.
int serial_open_op(driver &drv, driver_where at, plc_device *dev);
// The release operation of every serial driver: 0, or -1 (said in the
// driver's voice) when the driver has no private data.
int serial_release_op(driver &drv, const driver_voice &v, driver_where at);
