#include "sparkplug.h"

#include <cinttypes>
#include <cstdio>
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

// protobuf-c takes char * for strings it only reads while packing.
char *c_str(const std::string &s) { return const_cast<char *>(s.c_str()); }

void put_value(PbMetric &m, const Value &v)
{
    if (std::holds_alternative<std::monostate>(v)) {
        m.has_is_null = 1;
        m.is_null = 1;
    } else if (const auto *u32 = std::get_if<uint32_t>(&v)) {
        m.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_INT_VALUE;
        m.int_value = *u32;
    } else if (const auto *u64 = std::get_if<uint64_t>(&v)) {
        m.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_LONG_VALUE;
        m.long_value = *u64;
    } else if (const auto *f = std::get_if<float>(&v)) {
        m.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_FLOAT_VALUE;
        m.float_value = *f;
    } else if (const auto *d = std::get_if<double>(&v)) {
        m.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_DOUBLE_VALUE;
        m.double_value = *d;
    } else if (const auto *b = std::get_if<bool>(&v)) {
        m.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE;
        m.boolean_value = *b ? 1 : 0;
    } else if (const auto *s = std::get_if<std::string>(&v)) {
        m.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_STRING_VALUE;
        m.string_value = c_str(*s);
    }
}

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

std::string encode(const Payload &p)
{
    const size_t n = p.metrics.size();
    std::vector<PbMetric> metrics(n);
    std::vector<PbMetric *> metric_ptrs(n);
    // Births carry one property per metric: its address.
    std::vector<PbPropertySet> sets(n);
    std::vector<PbPropertyValue> values(n);
    std::vector<PbPropertyValue *> value_ptrs(n);
    char *address_key = const_cast<char *>(kAddressKey);

    for (size_t i = 0; i < n; ++i) {
        const Metric &src = p.metrics[i];
        PbMetric &m = metrics[i];
        org__eclipse__tahu__protobuf__payload__metric__init(&m);
        m.name = c_str(src.name);
        if (src.timestamp != 0) {
            m.has_timestamp = 1;
            m.timestamp = src.timestamp;
        }
        if (src.datatype != 0) {
            m.has_datatype = 1;
            m.datatype = src.datatype;
        }
        if (src.historical) {
            m.has_is_historical = 1;
            m.is_historical = 1;
        }
        put_value(m, src.value);
        if (!src.address.empty()) {
            PbPropertyValue &pv = values[i];
            org__eclipse__tahu__protobuf__payload__property_value__init(&pv);
            pv.has_type = 1;
            pv.type = String;
            pv.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__PROPERTY_VALUE__VALUE_STRING_VALUE;
            pv.string_value = c_str(src.address);
            value_ptrs[i] = &pv;
            PbPropertySet &ps = sets[i];
            org__eclipse__tahu__protobuf__payload__property_set__init(&ps);
            ps.n_keys = 1;
            ps.keys = &address_key;
            ps.n_values = 1;
            ps.values = &value_ptrs[i];
            m.properties = &ps;
        }
        metric_ptrs[i] = &m;
    }

    PbPayload pb;
    org__eclipse__tahu__protobuf__payload__init(&pb);
    if (p.timestamp != 0) {
        pb.has_timestamp = 1;
        pb.timestamp = p.timestamp;
    }
    pb.n_metrics = n;
    pb.metrics = metric_ptrs.data();
    if (p.seq) {
        pb.has_seq = 1;
        pb.seq = *p.seq;
    }
    std::string out(org__eclipse__tahu__protobuf__payload__get_packed_size(&pb), '\0');
    org__eclipse__tahu__protobuf__payload__pack(&pb, reinterpret_cast<uint8_t *>(out.data()));
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
