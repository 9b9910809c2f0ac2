// The S7 Ethernet family (S7-200 SMART, S7-1200, S7-1500, S7-300, S7-400)
// through the Snap7 client: one implementation, parameterised by the
// 200 SMART's address dialect and its two different return values.
#include <snap7.h>

#include <cstring>
#include <utility>

#include "base/handles.h"
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/s7_address.h"
#include "device/plc/plc_ethernet.h"

namespace {

// One client slot per driver: the reading loop opens one device of a model
// at a time.
struct s7_priv {
    S7Object client;
};

struct s7_variant {
    s7_dialect dialect;
    bool print_unknown; // the 200 SMART also prints the "unkown type" text
};

constexpr s7_variant smart_200 = {s7_dialect::smart_200, true};
constexpr s7_variant family_1200 = {s7_dialect::s7_1200, false};

void put(char *value, const char *text)
{
    snprintf(value, NODE_VALUE_SIZE, "%s", text);
}

int s7_open(s7_priv *priv, plc_device *dev)
{
    if (priv == nullptr)
        return -1;
    const ethernet_device *eth = as_ethernet(dev);
    if (eth == nullptr || dev->dev_comm_type != DEV_COMM_ETHERNET)
        return -1; // a serial record bound by maker and model has no address
    s7_client_owner client(Cli_Create());
    // The port field is not used: S7 PLCs listen on ISO-on-TCP port 102.
    if (Cli_ConnectTo(client.get(), eth->ip_addr.c_str(), static_cast<int>(eth->rack),
                      static_cast<int>(eth->slot)) != 0) {
        g_print("open error\n");
        return -1;
    }
    priv->client = client.release();
    return 0;
}

int s7_release(s7_priv *priv)
{
    if (priv == nullptr)
        return -1;
    const s7_client_owner closing(std::exchange(priv->client, 0)); // clears the slot
    return 0;
}

int snap7_read(S7Object client, const s7_variant &v, const char *addr, uint32_t data_type,
               char *value)
{
    const s7_address a = s7_parse_address(addr, v.dialect);
    switch (a.area) {
    case s7_area::unknown:
        put(value, "unkown type");
        if (v.print_unknown)
            g_print("%s", value);
        return -1;
    case s7_area::counter:
    case s7_area::timer:
        // Counters and timers are not read: the node keeps its last text.
        return 0;
    default:
        break;
    }
    const size_t size = s7_read_size(a.area, data_type);
    if (size == 0) {
        put(value, "wrong type");
        return -1;
    }
    uint8_t buf[4] = {};
    const int start = static_cast<int>(a.start);
    const int n = static_cast<int>(size);
    int rc;
    switch (a.area) {
    case s7_area::inputs: rc = Cli_EBRead(client, start, n, buf); break;
    case s7_area::outputs: rc = Cli_ABRead(client, start, n, buf); break;
    case s7_area::merkers: rc = Cli_MBRead(client, start, n, buf); break;
    case s7_area::db: rc = Cli_DBRead(client, a.db, start, n, buf); break;
    default: rc = Cli_DBRead(client, 1, start, n, buf); break; // V memory is DB 1
    }
    if (rc != 0) {
        put(value, "read error");
        return -1;
    }
    s7_decode(a.area, data_type, a.bit, buf, size, value, NODE_VALUE_SIZE);
    return 0;
}

} // namespace

// The operations of one model of the family.
#define S7_DRIVER(name, type, variant, present_text)                                             \
    DRIVER_LIFECYCLE(name, s7_priv, plain_voice, present_text)                                   \
    static int name##_open(plc_device *dev) { return s7_open(name##_data(DRIVER_HERE), dev); }   \
    static int name##_release(plc_device *) { return s7_release(name##_data(DRIVER_HERE)); }     \
    static int name##_read(plc_device *, char *addr, uint32_t data_type, char *value)            \
    {                                                                                            \
        const s7_priv *priv = name##_data(DRIVER_HERE);                                          \
        return priv == nullptr ? -1 : snap7_read(priv->client, variant, addr, data_type, value); \
    }                                                                                            \
    DRIVER_DESCRIPTOR(name, plain_voice, DEV_COMM_ETHERNET, DEV_MFG_SIEMENS, type)

S7_DRIVER(siemens_s7_200smart, DEV_TYPE_S7_200_SMART, smart_200,
          "siemens_s7_200smart_drv.drv.priv != NULL\n")
S7_DRIVER(siemens_s7_1200, DEV_TYPE_S7_1200, family_1200, "siemens_s7_1200_drv.drv.priv != NULL\n")
S7_DRIVER(siemens_s7_1500, DEV_TYPE_S7_1500, family_1200, "siemens_s7_1500_drv.drv.priv != NULL\n")
// The S7-300's probe has always named another object in this message.
S7_DRIVER(siemens_s7_300, DEV_TYPE_S7_300, family_1200, "s7_300_drvdata.drv.priv != NULL\n")
S7_DRIVER(siemens_s7_400, DEV_TYPE_S7_400, family_1200, "siemens_s7_400_drv.drv.priv != NULL\n")
