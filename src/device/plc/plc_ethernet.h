// Ethernet device record.
#pragma once

#include "device/plc/plc_device.h"

struct ethernet_device : plc_device {
    std::string ip_addr;
    uint32_t port = 0;
    uint32_t rack = 0;
    uint32_t slot = 0;
};

// The Ethernet record behind a device, or null when it is a serial one
// (whatever its dev_comm_type says).
inline ethernet_device *as_ethernet(plc_device *dev)
{
    return dynamic_cast<ethernet_device *>(dev);
}
inline const ethernet_device *as_ethernet(const plc_device *dev)
{
    return dynamic_cast<const ethernet_device *>(dev);
}

inline constexpr const char PLC_ETHERNET_MODULE[] = "device/plc/plc_ethernet";

ethernet_device *ethernet_device_create(uint32_t dev_id, const char *dev_name,
                                        uint32_t dev_comm_type, uint32_t dev_mfg,
                                        uint32_t dev_type, const char *ip_addr, uint32_t port,
                                        uint32_t rack, uint32_t slot);
// The copy never carries the bound driver.
ethernet_device *ethernet_device_copy(const ethernet_device *src);
void ethernet_device_free(ethernet_device *dev);
void ethernet_device_show(const ethernet_device *dev);
