// Mitsubishi FX5U over Modbus TCP through libmodbus, using the PLC's fixed
// allocation of devices to Modbus objects.
#include <modbus.h>

#include <cstdio>
#include <utility>

#include "base/handles.h"
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/fx5u_address.h"
#include "device/plc/plc_ethernet.h"

namespace {

struct fx5u_priv {
    modbus_t *ctx;
    bool stale; // a read on this connection failed: its answer may still come
};

void put(char *value, const char *text)
{
    snprintf(value, NODE_VALUE_SIZE, "%s", text);
}

int modbus_read(modbus_t *ctx, const char *addr, uint32_t data_type, char *value)
{
    const fx5u_address a = fx5u_parse_address(addr);
    if (a.area == 0) {
        put(value, "unkown type");
        return -1;
    }
    if (a.wrong_address) {
        put(value, "wrong address");
        return -1;
    }
    if (a.object != fx5u_object::registers) {
        if (data_type != 1) {
            put(value, "wrong type");
            return -1;
        }
        uint8_t bit = 0;
        const int n = a.object == fx5u_object::input_bits
                          ? modbus_read_input_bits(ctx, static_cast<int>(a.modbus), 1, &bit)
                          : modbus_read_bits(ctx, static_cast<int>(a.modbus), 1, &bit);
        if (n != 1) {
            put(value, "read error");
            return -1;
        }
        snprintf(value, NODE_VALUE_SIZE, "%u", bit);
        return 0;
    }
    const int count = fx5u_register_count(data_type);
    if (count == 0) {
        put(value, "wrong type");
        return -1;
    }
    uint16_t r[2] = {};
    if (modbus_read_registers(ctx, static_cast<int>(a.modbus), count, r) != count) {
        put(value, "read error");
        return -1;
    }
    fx5u_register_text(data_type, r, value, NODE_VALUE_SIZE);
    return 0;
}

} // namespace

DRIVER_LIFECYCLE(mitsubishi_fx5u, fx5u_priv, plain_voice, "mitsubishi_fx5u_drv.drv.priv != NULL\n")

namespace {

int mitsubishi_fx5u_open(plc_device *dev)
{
    const ethernet_device *eth = as_ethernet(dev);
    if (eth == nullptr || dev->dev_comm_type != DEV_COMM_ETHERNET)
        return -1; // a serial record bound by maker and model has no address
    modbus_owner ctx(modbus_new_tcp(eth->ip_addr.c_str(), static_cast<int>(eth->port)));
    if (ctx == nullptr || modbus_connect(ctx.get()) == -1) {
        puts("connection fail");
        return -1;
    }
    fx5u_priv *priv = mitsubishi_fx5u_data(DRIVER_HERE);
    if (priv == nullptr)
        return -1;
    modbus_owner earlier(priv->ctx); // a connection left open by an earlier open
    priv->ctx = ctx.release();
    priv->stale = false;
    return 0;
}

int mitsubishi_fx5u_release(plc_device *)
{
    fx5u_priv *priv = mitsubishi_fx5u_data(DRIVER_HERE);
    if (priv == nullptr)
        return -1;
    const modbus_owner closing(std::exchange(priv->ctx, nullptr));
    return 0;
}

int mitsubishi_fx5u_read(plc_device *, char *addr, uint32_t data_type, char *value)
{
    fx5u_priv *priv = mitsubishi_fx5u_data(DRIVER_HERE);
    if (priv == nullptr)
        return -1;
    if (priv->ctx == nullptr) {
        put(value, "read error");
        return -1;
    }
    // An answer that came after its read gave up would be taken for the
    // answer to this one, and so on down the device's nodes. Only a failed
    // read leaves one behind; after a good one there is nothing to drop.
    if (priv->stale)
        modbus_flush(priv->ctx);
    const bool ok = modbus_read(priv->ctx, addr, data_type, value) >= 0;
    priv->stale = !ok;
    return ok ? 0 : -1;
}

} // namespace

DRIVER_DESCRIPTOR(mitsubishi_fx5u, plain_voice, DEV_COMM_ETHERNET, DEV_MFG_MITSUBISHI, DEV_TYPE_FX_5U)
