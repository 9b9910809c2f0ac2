// Device and node records shared by the bus handlers, the database layer,
// the registry and the acquisition loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

struct driver;

enum dev_comm : uint32_t {
    DEV_COMM_SERIAL = 0,
    DEV_COMM_ETHERNET = 1,
};

enum dev_mfg : uint32_t {
    DEV_MFG_MITSUBISHI = 1,
    DEV_MFG_SIEMENS = 2,
    DEV_MFG_DELTA = 3,
};

enum dev_type : uint32_t {
    DEV_TYPE_S7_200 = 1,
    DEV_TYPE_S7_200_SMART = 2,
    DEV_TYPE_S7_1200 = 3,
    DEV_TYPE_S7_1500 = 4,
    DEV_TYPE_S7_300 = 5,
    DEV_TYPE_S7_400 = 6,
    DEV_TYPE_FX_3U = 101,
    DEV_TYPE_FX_1N = 102,
    DEV_TYPE_FX_5U = 103,
    DEV_TYPE_QNA_3E = 104,
    DEV_TYPE_Q_SERIAL = 105,
    DEV_TYPE_DVP_32EC = 201,
};

enum node_data_type : uint32_t {
    NODE_TYPE_BIT = 1,
    NODE_TYPE_U8 = 2,
    NODE_TYPE_S8 = 3,
    NODE_TYPE_U16 = 4,
    NODE_TYPE_S16 = 5,
    NODE_TYPE_U32 = 6,
    NODE_TYPE_S32 = 7,
    NODE_TYPE_BCD16 = 8,
    NODE_TYPE_BCD32 = 9,
    NODE_TYPE_FLOAT = 10,
    NODE_TYPE_HEX16 = 11,
    NODE_TYPE_HEX32 = 12,
    NODE_TYPE_BIN16 = 13,
    NODE_TYPE_BIN32 = 14,
    NODE_TYPE_STRING = 15,
};

// Size of a node's value text, NUL included.
constexpr size_t NODE_VALUE_SIZE = 32;

// Display texts; "Unknown" for a code not listed. The buffer must hold 16 bytes.
void convert_dev_mfg(uint32_t code, char *text, size_t size);
void convert_dev_type(uint32_t code, char *text, size_t size);
void convert_node_data_type(uint32_t code, char *text, size_t size);
const char *dev_mfg_text(uint32_t code);
const char *dev_type_text(uint32_t code);
const char *node_data_type_text(uint32_t code);

// Common header of both device kinds: the list, matching and the reading
// loop work through it alone. A device is stored with the dev_comm it was
// sent with, so dev_comm_type can disagree with the record's own kind:
// whatever needs the serial or Ethernet fields asks for them with
// as_serial/as_ethernet, which go by the record itself.
struct plc_device {
    plc_device() = default;
    plc_device(const plc_device &) = default;
    plc_device &operator=(const plc_device &) = default;
    virtual ~plc_device() = default;

    uint32_t dev_id = 0;
    std::string dev_name;
    uint32_t dev_comm_type = 0;
    uint32_t dev_mfg = 0;
    uint32_t dev_type = 0;
    struct driver *driver = nullptr; // bound by the registry, never owned or copied
};

// The error report of the configuration modules, on stdout through printf.
#define PLC_ERROR_REPORT(module, msg) \
    printf("\n\nFile: %s\nFunc: %s\nLine: %d\nMsg: %s\n\n", (module), __func__, __LINE__, (msg))

// The same report naming a given function (for shared handler code).
void plc_error_report(const char *module, const char *func, int line, const char *msg);
