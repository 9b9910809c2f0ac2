// Building cycles of the `nodes` signal for the bridge's tests.
#pragma once

#include <string>
#include <vector>

#include "cycle.h"

namespace bctest {

inline bridge::NodeReading node(std::string name, std::string addr, uint32_t type, std::string value)
{
    return bridge::NodeReading{std::move(name), std::move(addr), type, std::move(value)};
}

inline bridge::DeviceReading device(uint32_t id, std::string name,
                                    std::vector<bridge::NodeReading> nodes, uint32_t mfg = 1,
                                    uint32_t type = 101)
{
    bridge::DeviceReading d;
    d.dev_id = id;
    d.dev_name = std::move(name);
    d.dev_mfg = mfg;
    d.dev_type = type;
    d.nodes = std::move(nodes);
    return d;
}

inline bridge::Cycle cycle(uint64_t ts, std::vector<bridge::DeviceReading> devices)
{
    return bridge::Cycle{ts, std::move(devices)};
}

} // namespace bctest
