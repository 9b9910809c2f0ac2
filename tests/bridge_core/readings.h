// Building cycles of the `nodes` signal, and commands, for the bridge's tests.
#pragma once

#include <string>
#include <tuple>
#include <vector>

#include "cycle.h"
#include "sparkplug.h"

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

// A command's payload: each metric's name, datatype and value.
inline std::string command(const std::vector<std::tuple<const char *, uint32_t, bridge::sp::Value>> &metrics)
{
    bridge::sp::Payload p;
    p.timestamp = 1;
    for (const auto &[name, datatype, value] : metrics) {
        p.metrics.emplace_back();
        p.metrics.back().name = name;
        p.metrics.back().datatype = datatype;
        p.metrics.back().value = value;
    }
    return bridge::sp::encode(p);
}

} // namespace bctest
