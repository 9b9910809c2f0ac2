// Node values as the drivers write them (text), turned into typed Sparkplug
// values: which datatype a node type travels as, and how its text reads.
#pragma once

#include <cstdint>
#include <string_view>

#include "sparkplug.h"

namespace bridge {

// node_data_type codes of the daemon.
enum NodeType : uint32_t {
    NodeBit = 1, NodeU8 = 2, NodeS8 = 3, NodeU16 = 4, NodeS16 = 5, NodeU32 = 6, NodeS32 = 7,
    NodeBCD16 = 8, NodeBCD32 = 9, NodeFloat = 10, NodeHEX16 = 11, NodeHEX32 = 12,
    NodeBIN16 = 13, NodeBIN32 = 14, NodeString = 15,
};

// The Sparkplug datatype a node type is published as. A code the daemon
// does not define travels as String, its text unchanged: nothing is lost
// and nothing is guessed.
uint32_t sparkplug_datatype(uint32_t node_type);

struct NodeValue {
    uint32_t datatype = 0;
    sp::Value value;        // monostate when the text did not parse
    bool parsed = false;
};

// Reads a driver's value text for a node of `node_type`. Integers are
// decimal, or hexadecimal after "0x"; they are then fitted to the type's
// width and sign, because drivers print some types with the other sign
// (S8 as 0..255, U32 with "%d"): S8 "200" is -56, U32 "-1" is 4294967295.
// A number outside both readings of the width (U8 "300") does not parse.
// Signed values travel as their 32-bit two's-complement pattern.
NodeValue node_value(uint32_t node_type, std::string_view text);

// An integer value of `datatype` as the number it stands for (the low 8, 16
// or 32 bits taken as signed for Int8/16/32).
int64_t integer_of(uint32_t datatype, uint64_t wire);

} // namespace bridge
