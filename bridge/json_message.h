// JSON mode: one message per device per cycle, for integrators who want
// plain JSON rather than Sparkplug.
//
//   {"timestamp":1700000000123,"dev_id":7,"dev_name":"press 3",
//    "dev_mfg":1,"dev_type":101,
//    "values":{"temperature":21.5,"running":true,"count":-12,"recipe":"A7"}}
//
// - timestamp: when the cycle's signal arrived, UTC ms since the epoch.
// - dev_mfg, dev_type: the daemon's maker and model codes.
// - values: one member per node read in the cycle, named by node, typed by
//   its node type: Bit as true/false, the integer types as the number they
//   stand for (S16 "-87" is -87, U32 "4294967295" stays so), Float as a
//   number, String as a string. A text that does not read for its type,
//   and a Float that is not finite, is null.
//   Nodes are keyed by name alone: addresses belong to the configuration and
//   would only repeat it in every message. Two nodes of one device with the
//   same name are told apart as "name (address)".
// - A device whose PLC could not be opened, or that has no node, has an
//   empty "values" object.
#pragma once

#include <cstdint>
#include <string>

#include "cycle.h"

namespace bridge {

// The message for `device` in a cycle at `timestamp_ms`. Adds the number of
// values that did not read for their type to `*unparsable` when given.
std::string json_message(const DeviceReading &device, uint64_t timestamp_ms,
                         uint64_t *unparsable = nullptr);

} // namespace bridge
