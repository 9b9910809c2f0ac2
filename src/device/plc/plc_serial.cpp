#include "device/plc/plc_serial.h"

#include <glib.h>

#include <new>

serial_device *serial_device_create(uint32_t dev_id, const char *dev_name, uint32_t dev_comm_type,
                                    uint32_t dev_mfg, uint32_t dev_type, uint32_t serial_type,
                                    uint32_t serial_number, uint32_t station_num, uint32_t baudrate,
                                    uint32_t data_bit, uint32_t stop_bit, uint32_t parity_bit)
{
    serial_device *dev = nullptr;
    try {
        dev = new serial_device;
        dev->dev_id = dev_id;
        dev->dev_name = dev_name != nullptr ? dev_name : "";
    } catch (const std::bad_alloc &) {
        delete dev;
        PLC_ERROR_REPORT(PLC_SERIAL_MODULE, "serial device create failed.");
        return nullptr;
    }
    dev->dev_comm_type = dev_comm_type;
    dev->dev_mfg = dev_mfg;
    dev->dev_type = dev_type;
    dev->serial_type = serial_type;
    dev->serial_number = serial_number;
    dev->station_num = station_num;
    dev->baudrate = baudrate;
    dev->data_bit = data_bit;
    dev->stop_bit = stop_bit;
    dev->parity_bit = parity_bit;
    return dev;
}

serial_device *serial_device_copy(const serial_device *src)
{
    if (src == nullptr)
        return nullptr;
    return serial_device_create(src->dev_id, src->dev_name.c_str(), src->dev_comm_type,
                                src->dev_mfg, src->dev_type, src->serial_type, src->serial_number,
                                src->station_num, src->baudrate, src->data_bit, src->stop_bit,
                                src->parity_bit);
}

void serial_device_free(serial_device *dev)
{
    delete dev;
}

void serial_device_show(const serial_device *dev)
{
    if (dev == nullptr)
        return;
    g_print("\t dev_id: %d\n\t dev_name: %s\n\t dev_comm_type: %d\n\t dev_mfg: %d\n\t dev_type: "
            "%d\n\t serial_type: %d\n\t serial_number: %d\n\t station_num: %d\n\t baudrate: "
            "%d\n\t data_bit: %d\n\t stop_bit: %d\n\t parity_bit: %d\n",
            dev->dev_id, dev->dev_name.c_str(), dev->dev_comm_type, dev->dev_mfg, dev->dev_type,
            dev->serial_type, dev->serial_number, dev->station_num, dev->baudrate, dev->data_bit,
            dev->stop_bit, dev->parity_bit);
}
