#include "values.h"

#include <charconv>
#include <limits>

namespace bridge {

namespace {

// The longest value text a driver can write (its buffer holds 32 bytes).
constexpr size_t kValueTextMax = 31;

std::string_view trimmed(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\n' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

// A whole text as an integer: "-12", "4294967295", "0x1f" (either case).
bool parse_integer(std::string_view s, int64_t &out)
{
    s = trimmed(s);
    bool negative = false;
    if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
        negative = s.front() == '-';
        s.remove_prefix(1);
    }
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        s.remove_prefix(2);
    }
    if (s.empty() || s.front() == '-' || s.front() == '+')
        return false;
    uint64_t magnitude = 0;
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), magnitude, base);
    if (ec != std::errc() || end != s.data() + s.size())
        return false;
    if (magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return false;
    out = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

// Fits a number to `bits` bits: it must read either as the signed or as the
// unsigned number of that width; the result is the pattern, sign-extended to
// 32 bits for signed types.
bool fit(int64_t v, unsigned bits, bool is_signed, uint32_t &out)
{
    const int64_t lowest = -(int64_t{1} << (bits - 1));
    const int64_t highest = (int64_t{1} << bits) - 1;
    if (v < lowest || v > highest)
        return false;
    const uint64_t mask = (uint64_t{1} << bits) - 1;
    const uint64_t pattern = static_cast<uint64_t>(v) & mask;
    if (is_signed && bits < 32 && (pattern >> (bits - 1)) != 0)
        out = static_cast<uint32_t>(pattern | ~mask);
    else
        out = static_cast<uint32_t>(pattern);
    return true;
}

} // namespace

uint32_t sparkplug_datatype(uint32_t node_type)
{
    switch (node_type) {
    case NodeBit: return sp::Boolean;
    case NodeU8: return sp::UInt8;
    case NodeS8: return sp::Int8;
    case NodeU16: case NodeBCD16: case NodeHEX16: case NodeBIN16: return sp::UInt16;
    case NodeS16: return sp::Int16;
    // UInt32 goes in int_value, where the 3.0 payload definition and the
    // newer compatibility kits put it; decoders that expect long_value for it
    // (older Tahu) read int_value as well, the reverse is not true.
    case NodeU32: case NodeBCD32: case NodeHEX32: case NodeBIN32: return sp::UInt32;
    case NodeS32: return sp::Int32;
    case NodeFloat: return sp::Float;
    default: return sp::String;
    }
}

NodeValue node_value(uint32_t node_type, std::string_view text)
{
    NodeValue r;
    r.datatype = sparkplug_datatype(node_type);
    unsigned bits = 0;
    bool is_signed = false;
    switch (node_type) {
    case NodeBit: {
        int64_t v = 0;
        if (parse_integer(text, v) && (v == 0 || v == 1)) {
            r.value = v == 1;
            r.parsed = true;
        }
        return r;
    }
    case NodeFloat: {
        const std::string_view s = trimmed(text);
        // Drivers print floats with "%f" into the node's 32-byte buffer: from
        // 1e30 on the text ends before its decimal point, and beyond that the
        // integer digits themselves are cut: what is left reads as a number
        // many times too small.
        if (s.size() >= kValueTextMax && s.find_first_of(".eEnN") == std::string_view::npos)
            return r;
        float f = 0;
        const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), f);
        // A number beyond float's range is no reading of a 32-bit register.
        if (!s.empty() && ec == std::errc() && end == s.data() + s.size()) {
            r.value = f;
            r.parsed = true;
        }
        return r;
    }
    case NodeU8: bits = 8; break;
    case NodeS8: bits = 8; is_signed = true; break;
    case NodeU16: case NodeBCD16: case NodeHEX16: case NodeBIN16: bits = 16; break;
    case NodeS16: bits = 16; is_signed = true; break;
    case NodeU32: case NodeBCD32: case NodeHEX32: case NodeBIN32: bits = 32; break;
    case NodeS32: bits = 32; is_signed = true; break;
    default:
        r.value = std::string(text);
        r.parsed = true;
        return r;
    }
    int64_t v = 0;
    uint32_t wire = 0;
    if (parse_integer(text, v) && fit(v, bits, is_signed, wire)) {
        r.value = wire;
        r.parsed = true;
    }
    return r;
}

int64_t integer_of(uint32_t datatype, uint64_t wire)
{
    switch (datatype) {
    case sp::Int8: return static_cast<int8_t>(wire);
    case sp::Int16: return static_cast<int16_t>(wire);
    case sp::Int32: return static_cast<int32_t>(wire);
    case sp::Int64: return static_cast<int64_t>(wire);
    default: return static_cast<int64_t>(wire);
    }
}

} // namespace bridge
