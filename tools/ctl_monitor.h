// One published reading cycle (the `nodes` signal) as the operator reads it:
// a table, or one JSON object on one line for programs.
#pragma once

#include <glib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ctl {

struct NodeValue {
    std::string node_name;
    std::string node_addr;
    uint32_t node_data_type = 0;
    std::string value;
};

struct DeviceValues {
    uint32_t dev_id = 0;
    std::string dev_name;
    uint32_t dev_mfg = 0;
    uint32_t dev_type = 0;
    std::vector<NodeValue> nodes; // the nodes read in this cycle
};

// Reads the signal's argument a(usuuv); false when its shape is not that
// (a variant that does not hold a(ssus) included).
bool decode_cycle(GVariant *cycle, std::vector<DeviceValues> &out);

// `when` is the local time the cycle arrived, `number` counts cycles from 1.
std::string cycle_table(const std::vector<DeviceValues> &devices, unsigned number, GDateTime *when);
std::string cycle_json(const std::vector<DeviceValues> &devices, unsigned number, GDateTime *when);

} // namespace ctl
