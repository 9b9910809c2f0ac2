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
    int count = 0;
    switch (data_type) {
    case 4: case 5: count = 1; break;
    case 6: case 7: case 10: count = 2; break;
    default:
        put(value, "wrong type");
        return -1;
    }
    uint16_t r[2] = {};
    if (modbus_read_registers(ctx, static_cast<int>(a.modbus), count, r) != count) {
        put(value, "read error");
        return -1;
    }
    const uint32_t d = static_cast<uint32_t>(r[1]) * 65536u + r[0]; // low word first
    switch (data_type) {
    case 4: snprintf(value, NODE_VALUE_SIZE, "%u", r[0]); break;
    case 5: snprintf(value, NODE_VALUE_SIZE, "%d", static_cast<int16_t>(r[0])); break;
    case 6: snprintf(value, NODE_VALUE_SIZE, "%u", d); break;
    case 7: snprintf(value, NODE_VALUE_SIZE, "%d", static_cast<int32_t>(d)); break;
    default: snprintf(value, NODE_VALUE_SIZE, "%f", static_cast<double>(modbus_get_float(r))); break;
    }
    return 0;
}

} // namespace

DRIVER_LIFECYCLE(mitsubishi_fx5u, fx5u_priv, "mitsubishi_fx5u_drv.drv.priv != NULL\n",
                 "mitsubishi_fx5u_drv.drv.priv = NULL\n")

namespace {

fx5u_priv *fx5u_data(const char *func)
{
    auto *priv = static_cast<fx5u_priv *>(mitsubishi_fx5u_drv.priv);
    if (priv == nullptr)
        g_print("<%s>: Failed to get drvdata\n", func);
    return priv;
}

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
    fx5u_priv *priv = fx5u_data(__func__);
    if (priv == nullptr)
        return -1;
    modbus_owner earlier(priv->ctx); // a connection left open by an earlier open
    priv->ctx = ctx.release();
    priv->stale = false;
    return 0;
}

int mitsubishi_fx5u_release(plc_device *)
{
    fx5u_priv *priv = fx5u_data(__func__);
    if (priv == nullptr)
        return -1;
    const modbus_owner closing(std::exchange(priv->ctx, nullptr));
    return 0;
}

int mitsubishi_fx5u_read(plc_device *, const char *addr, uint32_t data_type, char *value)
{
    fx5u_priv *priv = fx5u_data(__func__);
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

DRIVER_LOG_ONLY_OPS(mitsubishi_fx5u)

driver mitsubishi_fx5u_drv = {"mitsubishi_fx5u",          1,
                              DEV_MFG_MITSUBISHI,         DEV_TYPE_FX_5U,
                              nullptr,                    mitsubishi_fx5u_probe,
                              mitsubishi_fx5u_remove,     mitsubishi_fx5u_read,
                              mitsubishi_fx5u_write,      mitsubishi_fx5u_open,
                              mitsubishi_fx5u_release,    mitsubishi_fx5u_update_params,
                              mitsubishi_fx5u_save_config};
