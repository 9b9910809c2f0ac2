// Serial device record.
#pragma once

#include "device/plc/plc_device.h"

struct serial_device : plc_device {
    uint32_t serial_type = 0;
    uint32_t serial_number = 0;
    uint32_t station_num = 0;
    uint32_t baudrate = 0;
    uint32_t data_bit = 0;
    uint32_t stop_bit = 0;
    uint32_t parity_bit = 0;
};

// The serial record behind a device, or null when it is an Ethernet one
// (whatever its dev_comm_type says).
inline serial_device *as_serial(plc_device *dev)
{
    return dynamic_cast<serial_device *>(dev);
}
inline const serial_device *as_serial(const plc_device *dev)
{
    return dynamic_cast<const serial_device *>(dev);
}

inline constexpr const char PLC_SERIAL_MODULE[] = "device/plc/plc_serial";

serial_device *serial_device_create(uint32_t dev_id, const char *dev_name, uint32_t dev_comm_type,
                                    uint32_t dev_mfg, uint32_t dev_type, uint32_t serial_type,
                                    uint32_t serial_number, uint32_t station_num, uint32_t baudrate,
                                    uint32_t data_bit, uint32_t stop_bit, uint32_t parity_bit);
// The copy never carries the bound driver.
serial_device *serial_device_copy(const serial_device *src);
void serial_device_free(serial_device *dev);
void serial_device_show(const serial_device *dev);
