// Sparkplug B payloads: our own message model, encoded to and decoded from
// the protobuf wire form (sparkplug_b.proto, generated with protoc-c).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace bridge::sp {

// Sparkplug datatypes the gateway uses.
enum DataType : uint32_t {
    Int8 = 1, Int16 = 2, Int32 = 3, Int64 = 4,
    UInt8 = 5, UInt16 = 6, UInt32 = 7, UInt64 = 8,
    Float = 9, Double = 10, Boolean = 11, String = 12,
};

// The datatype's name as Sparkplug spells it ("Int16"); "Unknown" for others.
const char *datatype_name(uint32_t datatype);

enum class MsgType { NBIRTH, NDEATH, DBIRTH, DDEATH, NDATA, DDATA, NCMD, DCMD, STATE };
const char *msg_type_name(MsgType t);

// A metric value: monostate is null (is_null on the wire). Integers travel
// as the wire's uint32 (int_value) or uint64 (long_value); signed values as
// their two's-complement pattern.
using Value = std::variant<std::monostate, uint32_t, uint64_t, float, double, bool, std::string>;

struct Metric {
    std::string name;
    uint32_t datatype = 0;     // 0: not sent (data messages)
    uint64_t timestamp = 0;    // capture time, UTC ms; 0: not sent
    Value value;
    bool historical = false;   // is_historical
    std::string address;       // births only: property "address" (String) when non-empty
};

struct Payload {
    uint64_t timestamp = 0;       // publish time, UTC ms; 0: not sent
    std::optional<uint64_t> seq;  // absent in NDEATH
    std::vector<Metric> metrics;
};

// Wire bytes of a payload.
std::string encode(const Payload &p);
// Parses wire bytes; false on bytes that are not a Payload.
bool decode(const std::string &bytes, Payload &out);
// The wire bytes of `encoded` with a seq field appended (protobuf merges a
// field that comes late): how a stored message gets its seq on replay.
std::string with_seq(const std::string &encoded, uint64_t seq);

// spBv1.0/<group>/<TYPE>/<edge>[/<device>]
std::string topic(const std::string &group, MsgType type, const std::string &edge,
                  const std::string &device = {});
// Splits a Sparkplug topic; false when it is not one.
struct Topic {
    std::string group;
    MsgType type = MsgType::NDATA;
    std::string edge;
    std::string device;    // empty for node messages; host id for STATE
};
bool parse_topic(const std::string &topic, Topic &out);

// One line (or a few) a person can read: type, device, seq, metrics.
std::string describe(const std::string &topic, const std::string &bytes);

} // namespace bridge::sp
