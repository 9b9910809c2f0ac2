#include "sparkplug.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "bridge/sparkplug_b.pb-c.h"

namespace bridge::sp {

namespace {

using PbPayload = Org__Eclipse__Tahu__Protobuf__Payload;
using PbMetric = Org__Eclipse__Tahu__Protobuf__Payload__Metric;
using PbPropertySet = Org__Eclipse__Tahu__Protobuf__Payload__PropertySet;
using PbPropertyValue = Org__Eclipse__Tahu__Protobuf__Payload__PropertyValue;

constexpr std::string_view kNamespace = "spBv1.0";
constexpr const char *kAddressKey = "address";

struct UnpackedDeleter {
    void operator()(PbPayload *p) const
    {
        if (p != nullptr)
            org__eclipse__tahu__protobuf__payload__free_unpacked(p, nullptr);
    }
};
using UnpackedPayload = std::unique_ptr<PbPayload, UnpackedDeleter>;

Value take_value(const PbMetric &m)
{
    if (m.has_is_null && m.is_null)
        return {};
    switch (m.value_case) {
    case ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_INT_VALUE: return m.int_value;
    case ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_LONG_VALUE: return m.long_value;
    case ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_FLOAT_VALUE: return m.float_value;
    case ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_DOUBLE_VALUE: return m.double_value;
    case ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE:
        return m.boolean_value != 0;
    case ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_STRING_VALUE:
        return std::string(m.string_value != nullptr ? m.string_value : "");
    default:
        // Bytes and extensions are nothing the gateway sends or acts on.
        return {};
    }
}

std::string take_address(const PbMetric &m)
{
    const PbPropertySet *ps = m.properties;
    if (ps == nullptr)
        return {};
    for (size_t i = 0; i < ps->n_keys && i < ps->n_values; ++i) {
        const PbPropertyValue *pv = ps->values[i];
        if (ps->keys[i] != nullptr && std::string_view(ps->keys[i]) == kAddressKey &&
            pv != nullptr &&
            pv->value_case == ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__PROPERTY_VALUE__VALUE_STRING_VALUE &&
            pv->string_value != nullptr)
            return pv->string_value;
    }
    return {};
}

void append_varint(std::string &out, uint64_t v)
{
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7f) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
}

// Integers of a signed datatype are shown as the number they stand for.
std::string number_text(uint32_t datatype, uint64_t v)
{
    char buf[32];
    switch (datatype) {
    case Int8: snprintf(buf, sizeof buf, "%d", static_cast<int8_t>(v)); break;
    case Int16: snprintf(buf, sizeof buf, "%d", static_cast<int16_t>(v)); break;
    case Int32: snprintf(buf, sizeof buf, "%" PRId32, static_cast<int32_t>(v)); break;
    case Int64: snprintf(buf, sizeof buf, "%" PRId64, static_cast<int64_t>(v)); break;
    default: snprintf(buf, sizeof buf, "%" PRIu64, v); break;
    }
    return buf;
}

std::string value_text(const Metric &m)
{
    const Value &v = m.value;
    if (std::holds_alternative<std::monostate>(v))
        return "null";
    if (const auto *u32 = std::get_if<uint32_t>(&v))
        return number_text(m.datatype, *u32);
    if (const auto *u64 = std::get_if<uint64_t>(&v))
        return number_text(m.datatype, *u64);
    char buf[64];
    if (const auto *f = std::get_if<float>(&v)) {
        snprintf(buf, sizeof buf, "%g", static_cast<double>(*f));
        return buf;
    }
    if (const auto *d = std::get_if<double>(&v)) {
        snprintf(buf, sizeof buf, "%g", *d);
        return buf;
    }
    if (const auto *b = std::get_if<bool>(&v))
        return *b ? "true" : "false";
    return "\"" + std::get<std::string>(v) + "\"";
}

} // namespace

const char *datatype_name(uint32_t datatype)
{
    static const char *const names[] = {"Unknown", "Int8",   "Int16",  "Int32",   "Int64",
                                        "UInt8",   "UInt16", "UInt32", "UInt64",  "Float",
                                        "Double",  "Boolean", "String"};
    return datatype < sizeof names / sizeof names[0] ? names[datatype] : "Unknown";
}

const char *msg_type_name(MsgType t)
{
    switch (t) {
    case MsgType::NBIRTH: return "NBIRTH";
    case MsgType::NDEATH: return "NDEATH";
    case MsgType::DBIRTH: return "DBIRTH";
    case MsgType::DDEATH: return "DDEATH";
    case MsgType::NDATA: return "NDATA";
    case MsgType::DDATA: return "DDATA";
    case MsgType::NCMD: return "NCMD";
    case MsgType::DCMD: return "DCMD";
    case MsgType::STATE: return "STATE";
    }
    return "?";
}

// The wire form written directly, fields in number order as protobuf-c packs
// them: a DDATA of a thousand metrics is written in one pass into one
// buffer, with no message structs built on the way.
namespace {

enum Wire : uint8_t { Varint = 0, Fixed64 = 1, Delimited = 2, Fixed32 = 5 };

constexpr uint8_t tag(unsigned field, Wire wire) { return static_cast<uint8_t>(field << 3 | wire); }

size_t varint_size(uint64_t v)
{
    size_t n = 1;
    while (v >= 0x80) {
        v >>= 7;
        ++n;
    }
    return n;
}

size_t delimited_size(size_t length) { return 1 + varint_size(length) + length; }

// PropertySet { keys: "address", values: PropertyValue { type: String, string_value } }
size_t address_value_size(const std::string &address) { return 2 + delimited_size(address.size()); }
size_t address_set_size(const std::string &address)
{
    return delimited_size(std::strlen(kAddressKey)) + delimited_size(address_value_size(address));
}

size_t value_size(const Value &v)
{
    switch (v.index()) {
    case 0: return 2;                                              // is_null
    case 1: return 1 + varint_size(std::get<uint32_t>(v));
    case 2: return 1 + varint_size(std::get<uint64_t>(v));
    case 3: return 1 + 4;
    case 4: return 1 + 8;
    case 5: return 2;
    default: return delimited_size(std::get<std::string>(v).size());
    }
}

size_t metric_size(const Metric &m)
{
    size_t n = delimited_size(m.name.size());
    if (m.timestamp != 0)
        n += 1 + varint_size(m.timestamp);
    if (m.datatype != 0)
        n += 1 + varint_size(m.datatype);
    if (m.historical)
        n += 2;
    n += value_size(m.value);
    if (!m.address.empty())
        n += delimited_size(address_set_size(m.address));
    return n;
}

class Writer {
public:
    explicit Writer(char *at) : at_(at) {}
    char *end() const { return at_; }
    void byte(uint8_t b) { *at_++ = static_cast<char>(b); }
    void varint(uint64_t v)
    {
        while (v >= 0x80) {
            byte(static_cast<uint8_t>((v & 0x7f) | 0x80));
            v >>= 7;
        }
        byte(static_cast<uint8_t>(v));
    }
    void field_varint(unsigned field, uint64_t v)
    {
        byte(tag(field, Varint));
        varint(v);
    }
    void field_bytes(unsigned field, const char *data, size_t length)
    {
        byte(tag(field, Delimited));
        varint(length);
        std::memcpy(at_, data, length);
        at_ += length;
    }
    template <typename T>
    void field_fixed(unsigned field, Wire wire, T v)
    {
        byte(tag(field, wire));
        std::memcpy(at_, &v, sizeof v); // little-endian, as the wire
        at_ += sizeof v;
    }

private:
    char *at_;
};

void write_metric(Writer &w, const Metric &m)
{
    w.field_bytes(1, m.name.data(), m.name.size());
    if (m.timestamp != 0)
        w.field_varint(3, m.timestamp);
    if (m.datatype != 0)
        w.field_varint(4, m.datatype);
    if (m.historical)
        w.field_varint(5, 1);
    if (std::holds_alternative<std::monostate>(m.value))
        w.field_varint(7, 1);
    if (!m.address.empty()) {
        w.byte(tag(9, Delimited));
        w.varint(address_set_size(m.address));
        w.field_bytes(1, kAddressKey, std::strlen(kAddressKey));
        w.byte(tag(2, Delimited));
        w.varint(address_value_size(m.address));
        w.field_varint(1, String);
        w.field_bytes(8, m.address.data(), m.address.size());
    }
    switch (m.value.index()) {
    case 0: break;
    case 1: w.field_varint(10, std::get<uint32_t>(m.value)); break;
    case 2: w.field_varint(11, std::get<uint64_t>(m.value)); break;
    case 3: w.field_fixed(12, Fixed32, std::get<float>(m.value)); break;
    case 4: w.field_fixed(13, Fixed64, std::get<double>(m.value)); break;
    case 5: w.field_varint(14, std::get<bool>(m.value) ? 1 : 0); break;
    default: {
        const std::string &text = std::get<std::string>(m.value);
        w.field_bytes(15, text.data(), text.size());
    }
    }
}

} // namespace

std::string encode(const Payload &p)
{
    static_assert(std::variant_size_v<Value> == 7, "every kind of value has its field");
    size_t size = 0;
    if (p.timestamp != 0)
        size += 1 + varint_size(p.timestamp);
    for (const Metric &m : p.metrics)
        size += delimited_size(metric_size(m));
    if (p.seq)
        size += 1 + varint_size(*p.seq);

    std::string out(size, '\0');
    Writer w(out.data());
    if (p.timestamp != 0)
        w.field_varint(1, p.timestamp);
    for (const Metric &m : p.metrics) {
        w.byte(tag(2, Delimited));
        w.varint(metric_size(m));
        write_metric(w, m);
    }
    if (p.seq)
        w.field_varint(3, *p.seq);
    return out;
}

bool decode(const std::string &bytes, Payload &out)
{
    UnpackedPayload pb(org__eclipse__tahu__protobuf__payload__unpack(
        nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
    if (!pb)
        return false;
    out = Payload{};
    out.timestamp = pb->has_timestamp ? pb->timestamp : 0;
    if (pb->has_seq)
        out.seq = pb->seq;
    out.metrics.reserve(pb->n_metrics);
    for (size_t i = 0; i < pb->n_metrics; ++i) {
        const PbMetric &m = *pb->metrics[i];
        Metric dst;
        dst.name = m.name != nullptr ? m.name : "";
        dst.datatype = m.has_datatype ? m.datatype : 0;
        dst.timestamp = m.has_timestamp ? m.timestamp : 0;
        dst.historical = m.has_is_historical && m.is_historical;
        dst.value = take_value(m);
        dst.address = take_address(m);
        out.metrics.push_back(std::move(dst));
    }
    return true;
}

std::string with_seq(const std::string &encoded, uint64_t seq)
{
    std::string out;
    out.reserve(encoded.size() + 11);
    out = encoded;
    out.push_back(static_cast<char>(3 << 3)); // field 3, varint
    append_varint(out, seq);
    return out;
}

std::string topic(const std::string &group, MsgType type, const std::string &edge,
                  const std::string &device)
{
    std::string t(kNamespace);
    t += '/';
    if (type == MsgType::STATE) {
        // A host's STATE has no group and no edge node: the host id is all.
        t += "STATE/";
        t += device;
        return t;
    }
    t += group;
    t += '/';
    t += msg_type_name(type);
    t += '/';
    t += edge;
    if (!device.empty()) {
        t += '/';
        t += device;
    }
    return t;
}

bool parse_topic(const std::string &topic, Topic &out)
{
    std::vector<std::string_view> parts;
    std::string_view rest(topic);
    for (;;) {
        const size_t slash = rest.find('/');
        parts.push_back(rest.substr(0, slash));
        if (slash == std::string_view::npos)
            break;
        rest.remove_prefix(slash + 1);
    }
    if (parts.size() < 3 || parts[0] != kNamespace)
        return false;
    for (std::string_view p : parts)
        if (p.empty())
            return false;
    Topic t;
    if (parts[1] == "STATE") {
        if (parts.size() != 3)
            return false;
        t.type = MsgType::STATE;
        t.device = parts[2];
        out = t;
        return true;
    }
    static const MsgType kinds[] = {MsgType::NBIRTH, MsgType::NDEATH, MsgType::DBIRTH,
                                    MsgType::DDEATH, MsgType::NDATA,  MsgType::DDATA,
                                    MsgType::NCMD,   MsgType::DCMD};
    bool known = false;
    for (MsgType k : kinds)
        if (parts[2] == msg_type_name(k)) {
            t.type = k;
            known = true;
        }
    if (!known)
        return false;
    const bool device_message = t.type == MsgType::DBIRTH || t.type == MsgType::DDEATH ||
                                t.type == MsgType::DDATA || t.type == MsgType::DCMD;
    if (parts.size() != (device_message ? 5u : 4u))
        return false;
    t.group = parts[1];
    t.edge = parts[3];
    if (device_message)
        t.device = parts[4];
    out = t;
    return true;
}

std::string describe(const std::string &topic, const std::string &bytes)
{
    Topic t;
    if (!parse_topic(topic, t))
        return topic + ": not a Sparkplug topic (" + std::to_string(bytes.size()) + " bytes)";
    std::string line = msg_type_name(t.type);
    if (t.type == MsgType::STATE)
        return line + " " + t.device + " " + bytes;
    line += ' ';
    line += t.group + "/" + t.edge;
    if (!t.device.empty())
        line += "/" + t.device;
    Payload p;
    if (!decode(bytes, p))
        return line + ": undecodable payload (" + std::to_string(bytes.size()) + " bytes)";
    line += p.seq ? " seq=" + std::to_string(*p.seq) : std::string(" no seq");
    line += ':';
    if (p.metrics.empty())
        line += " no metrics";
    for (size_t i = 0; i < p.metrics.size(); ++i) {
        const Metric &m = p.metrics[i];
        line += i == 0 ? " " : ", ";
        line += m.name + "=" + value_text(m);
        if (m.datatype != 0)
            line += std::string(" (") + datatype_name(m.datatype) + ")";
        if (!m.address.empty())
            line += " @" + m.address;
        if (m.historical)
            line += " [historical]";
    }
    return line;
}

} // namespace bridge::sp
