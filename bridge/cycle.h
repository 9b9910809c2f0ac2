// One reading cycle as the daemon publishes it in its `nodes` signal,
// in plain C++ types: the bridge's input.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bridge {

// A node read successfully in the cycle: its value is the driver's text.
struct NodeReading {
    std::string name;
    std::string addr;
    uint32_t data_type = 0; // node_data_type code (Bit 0 ... String 15)
    std::string value;
};

// A device visited in the cycle. An empty `nodes` means the daemon could
// not open it (its PLC did not answer the connection).
struct DeviceReading {
    uint32_t dev_id = 0;
    std::string dev_name;
    uint32_t dev_mfg = 0;
    uint32_t dev_type = 0;
    std::vector<NodeReading> nodes;
};

struct Cycle {
    uint64_t timestamp_ms = 0; // when the signal arrived, UTC ms since the epoch
    std::vector<DeviceReading> devices;
};

} // namespace bridge
