#include "device/driver/serial/serial_port.h"

#include <fcntl.h>
#include <termios.h>

#include "base/handles.h"
#include "base/runtime.h"
#include "device/driver/uart.h"
#include "device/plc/plc_serial.h"

port_opened serial_port_open(const plc_device *dev, serial_slot *slot)
{
    const serial_device *sd = as_serial(dev);
    const char *path = sd != nullptr && dev->dev_comm_type == DEV_COMM_SERIAL
                           ? serial_port_path(sd->serial_number)
                           : nullptr;
    if (path == nullptr)
        return {port_fault::no_port, nullptr};
    if (slot == nullptr)
        return {port_fault::no_slot, path};
    serial_port_close(*slot); // the port of a device opened without a release since
    fd_owner fd(open(path, O_RDWR | O_NOCTTY | O_NONBLOCK));
    slot->fd = fd.get();
    if (fd.get() < 0)
        return {port_fault::open_failed, path};
    // What uart_config answers is not acted upon: the exchange shows a bad line.
    uart_config(fd.get(), static_cast<int>(sd->baudrate), uart_parity_char(sd->parity_bit),
                static_cast<int>(sd->data_bit), static_cast<int>(sd->stop_bit));
    tcflush(fd.get(), TCIOFLUSH);
    slot->fd = fd.release();
    slot->open = true;
    return {port_fault::none, path};
}

void serial_port_close(serial_slot &slot)
{
    if (slot.open)
        fd_owner{slot.fd}.reset();
    slot.open = false;
}

int serial_open_op(driver &drv, driver_where at, plc_device *dev)
{
    switch (serial_port_open(dev, static_cast<serial_slot *>(drv.priv)).fault) {
    case port_fault::none: return 0;
    case port_fault::no_port: g_print("serial_number err\n"); break;
    case port_fault::no_slot: driver_data(drv, plain_voice, at); break;
    case port_fault::open_failed: g_print("open error\n"); break;
    }
    return -1;
}

int serial_release_op(driver &drv, const driver_voice &v, driver_where at)
{
    auto *slot = static_cast<serial_slot *>(driver_data(drv, v, at));
    if (slot == nullptr)
        return -1;
    serial_port_close(*slot);
    return 0;
}
