#include "device/plc/plc_ethernet.h"

#include <glib.h>

#include <new>

ethernet_device *ethernet_device_create(uint32_t dev_id, const char *dev_name,
                                        uint32_t dev_comm_type, uint32_t dev_mfg,
                                        uint32_t dev_type, const char *ip_addr, uint32_t port,
                                        uint32_t rack, uint32_t slot)
{
    ethernet_device *dev = nullptr;
    try {
        dev = new ethernet_device;
        dev->dev_name = dev_name != nullptr ? dev_name : "";
        dev->ip_addr = ip_addr != nullptr ? ip_addr : "";
    } catch (const std::bad_alloc &) {
        delete dev;
        PLC_ERROR_REPORT(PLC_ETHERNET_MODULE, "ethernet device create failed.");
        return nullptr;
    }
    dev->dev_id = dev_id;
    dev->dev_comm_type = dev_comm_type;
    dev->dev_mfg = dev_mfg;
    dev->dev_type = dev_type;
    dev->port = port;
    dev->rack = rack;
    dev->slot = slot;
    return dev;
}

ethernet_device *ethernet_device_copy(const ethernet_device *src)
{
    if (src == nullptr)
        return nullptr;
    return ethernet_device_create(src->dev_id, src->dev_name.c_str(), src->dev_comm_type,
                                  src->dev_mfg, src->dev_type, src->ip_addr.c_str(), src->port,
                                  src->rack, src->slot);
}

void ethernet_device_free(ethernet_device *dev)
{
    delete dev;
}

void ethernet_device_show(const ethernet_device *dev)
{
    if (dev == nullptr)
        return;
    g_print("\t dev_id: %d\n\t dev_name: %s\n\t dev_comm_type: %d\n\t dev_mfg: %d\n\t dev_type: "
            "%d\n\t ip_addr: %s\n\t port: %d\n\t rack: %d\n\t slot: %d\n",
            dev->dev_id, dev->dev_name.c_str(), dev->dev_comm_type, dev->dev_mfg, dev->dev_type,
            dev->ip_addr.c_str(), dev->port, dev->rack, dev->slot);
}
