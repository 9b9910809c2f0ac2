// Node value texts, as the drivers print them, to typed Sparkplug values.
#include <gtest/gtest.h>

#include <cmath>

#include "values.h"

using namespace bridge;

namespace {

struct Case {
    uint32_t node_type;
    const char *text;
    uint32_t datatype;
    sp::Value value; // monostate: the text does not read
};

} // namespace

TEST(NodeValues, EveryNodeTypeWithItsEdges)
{
    const Case cases[] = {
        // Bit: 0 and 1 only.
        {NodeBit, "0", sp::Boolean, false},
        {NodeBit, "1", sp::Boolean, true},
        {NodeBit, "2", sp::Boolean, {}},
        // U8 and S8: S8 arrives unsigned from the FX and PPI drivers.
        {NodeU8, "255", sp::UInt8, 255u},
        {NodeU8, "256", sp::UInt8, {}},
        {NodeU8, "-1", sp::UInt8, 255u},
        {NodeS8, "200", sp::Int8, 0xFFFFFFC8u},
        {NodeS8, "-56", sp::Int8, 0xFFFFFFC8u},
        {NodeS8, "-128", sp::Int8, 0xFFFFFF80u},
        {NodeS8, "-129", sp::Int8, {}},
        // 16 bits: the 3E driver prints every word with "%d".
        {NodeU16, "65535", sp::UInt16, 65535u},
        {NodeU16, "-25536", sp::UInt16, 40000u},
        {NodeU16, "65536", sp::UInt16, {}},
        {NodeS16, "-87", sp::Int16, 0xFFFFFFA9u},
        {NodeS16, "40000", sp::Int16, 0xFFFF9C40u},
        // 32 bits: the FX and PPI drivers print U32 with "%d".
        {NodeU32, "-1", sp::UInt32, 4294967295u},
        {NodeU32, "4294967295", sp::UInt32, 4294967295u},
        {NodeU32, "4294967296", sp::UInt32, {}},
        {NodeS32, "-2147483648", sp::Int32, 0x80000000u},
        {NodeS32, "4294967295", sp::Int32, 0xFFFFFFFFu},
        {NodeS32, "-2147483649", sp::Int32, {}},
        // BCD, HEX and BIN travel unsigned; HEX is printed "0x%x".
        {NodeBCD16, "1234", sp::UInt16, 1234u},
        {NodeBCD32, "12345678", sp::UInt32, 12345678u},
        {NodeHEX16, "0xffff", sp::UInt16, 65535u},
        {NodeHEX16, "0x1A2B", sp::UInt16, 0x1A2Bu},
        {NodeHEX16, "0x10000", sp::UInt16, {}},
        {NodeHEX32, "0xdeadbeef", sp::UInt32, 0xDEADBEEFu},
        {NodeHEX32, "-1", sp::UInt32, 0xFFFFFFFFu},
        {NodeBIN16, "0x8001", sp::UInt16, 0x8001u},
        {NodeBIN32, "7", sp::UInt32, 7u},
        // Float: "%f".
        {NodeFloat, "21.500000", sp::Float, 21.5f},
        {NodeFloat, "3", sp::Float, 3.0f},
        {NodeFloat, "1e60", sp::Float, {}},
        {NodeFloat, "-inf", sp::Float, -INFINITY},
        // 1e24f with "%f" fits 31 characters; 1e36f is cut there.
        {NodeFloat, "999999995904443918750720.000000", sp::Float, 1e24f},
        {NodeFloat, "1000000040918478759629753193452", sp::Float, {}},
        // String: the text itself, whatever it is.
        {NodeString, "AB-12", sp::String, std::string("AB-12")},
        {NodeString, "", sp::String, std::string()},
        // A code the daemon does not define: the text, as a String.
        {99, "0x12", sp::String, std::string("0x12")},
        // Texts that are no number: drivers' error words, stray characters.
        {NodeU16, "read error", sp::UInt16, {}},
        {NodeS16, "unkown type", sp::Int16, {}},
        {NodeU16, "", sp::UInt16, {}},
        {NodeU16, "12abc", sp::UInt16, {}},
        {NodeU16, "0x", sp::UInt16, {}},
        {NodeU16, " 12 ", sp::UInt16, 12u},
        {NodeS16, "--5", sp::Int16, {}},
        {NodeS16, "-0x10", sp::Int16, 0xFFFFFFF0u},
        {NodeU32, "99999999999999999999999", sp::UInt32, {}},
        {NodeFloat, "1.5x", sp::Float, {}},
        {NodeFloat, "", sp::Float, {}},
    };
    for (const Case &c : cases) {
        const NodeValue v = node_value(c.node_type, c.text);
        const std::string what = std::string("type ") + std::to_string(c.node_type) + " \"" + c.text + "\"";
        EXPECT_EQ(v.datatype, c.datatype) << what;
        EXPECT_EQ(v.value, c.value) << what;
        EXPECT_EQ(v.parsed, !std::holds_alternative<std::monostate>(c.value)) << what;
    }
}

// A NaN is what the register holds: it reads, and stays a NaN.
TEST(NodeValues, NotANumberAndWirePatternsReadBack)
{
    for (const char *text : {"nan", "-nan"}) {
        const NodeValue nan = node_value(NodeFloat, text);
        ASSERT_TRUE(nan.parsed) << text;
        EXPECT_TRUE(std::isnan(std::get<float>(nan.value))) << text;
    }
    EXPECT_EQ(integer_of(sp::Int8, 0xFFFFFFC8u), -56);
    EXPECT_EQ(integer_of(sp::Int16, 0xFFFFFFA9u), -87);
    EXPECT_EQ(integer_of(sp::Int32, 0x80000000u), INT32_MIN);
    EXPECT_EQ(integer_of(sp::UInt32, 0xFFFFFFFFu), 4294967295);
    EXPECT_EQ(integer_of(sp::UInt16, 0xFFFFu), 65535);
}
