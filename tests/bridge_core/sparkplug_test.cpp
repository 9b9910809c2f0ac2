// Sparkplug payloads on the wire: our encoder and decoder against each other,
// and against protoc's schema-free decoder, which knows only field numbers.
#include <gtest/gtest.h>
#include <glib.h>

#include <cmath>

#include "bridge/sparkplug_b.pb-c.h"
#include "sparkplug.h"
#include "support/child.h"

using namespace bridge;

namespace {

sp::Metric metric(std::string name, uint32_t datatype, sp::Value v, uint64_t ts = 0,
                  std::string addr = {}, bool historical = false)
{
    sp::Metric m;
    m.name = std::move(name);
    m.datatype = datatype;
    m.value = std::move(v);
    m.timestamp = ts;
    m.address = std::move(addr);
    m.historical = historical;
    return m;
}

sp::Payload every_kind()
{
    sp::Payload p;
    p.timestamp = 1700000000123;
    p.seq = 200;
    p.metrics = {
        metric("bdSeq", sp::Int64, uint64_t{3}, 1700000000001),
        metric("s16", sp::Int16, 0xFFFFFFA9u, 1700000000002, "D100"),
        metric("temp", sp::Float, 21.5f, 1700000000003, "VD4"),
        metric("flow", sp::Double, 0.25, 0),
        metric("run", sp::Boolean, true, 0, "M0"),
        metric("recipe", sp::String, std::string("A7 ü"), 0),
        metric("gone", sp::UInt16, sp::Value{}, 0, "D7"),
        metric("old", 0, 5u, 1600000000000, "", true),
    };
    return p;
}

// protoc --decode_raw on `bytes`; empty when protoc cannot be run.
std::string decode_raw(const std::string &protoc, const std::string &bytes)
{
    dstest::TempDir dir;
    dstest::write_file(dir.file("payload.bin"), bytes);
    dstest::Child c({"/bin/sh", "-c", "exec \"$0\" --decode_raw < \"$1\"", protoc, dir.file("payload.bin")},
                    dir.path(), "protoc");
    return c.wait_exit() == 0 ? c.out() : std::string();
}

} // namespace

// protobuf-c's generated code reads our bytes and, packing what it read,
// writes the very same ones: field order, wire types and length prefixes.
// Our decoder keeps every field: encoded again, the bytes are the same.
TEST(SparkplugPayload, BytesAreTheGeneratedCodesOwnAndReadBackWhole)
{
    sp::Payload long_ones;
    long_ones.seq = 0;
    long_ones.metrics = {
        metric("", 0, std::string(200, 'x')),
        metric(std::string(130, 'n'), sp::UInt64, UINT64_MAX, UINT64_MAX, std::string(300, 'a')),
        metric("neg", sp::Int32, 0x80000000u, 1),
    };
    sp::Payload many;
    many.timestamp = 1;
    for (uint32_t i = 0; i < 1000; ++i)
        many.metrics.push_back(metric("tag" + std::to_string(i), 0, i * 997u, 1700000000000 + i));
    const sp::Payload empty;
    const sp::Payload with_all = every_kind();
    for (const sp::Payload *q : std::initializer_list<const sp::Payload *>{&long_ones, &many, &empty, &with_all}) {
        const std::string ours = sp::encode(*q);
        Org__Eclipse__Tahu__Protobuf__Payload *read = org__eclipse__tahu__protobuf__payload__unpack(
            nullptr, ours.size(), reinterpret_cast<const uint8_t *>(ours.data()));
        ASSERT_NE(read, nullptr);
        std::string theirs(org__eclipse__tahu__protobuf__payload__get_packed_size(read), '\0');
        org__eclipse__tahu__protobuf__payload__pack(read, reinterpret_cast<uint8_t *>(theirs.data()));
        org__eclipse__tahu__protobuf__payload__free_unpacked(read, nullptr);
        EXPECT_EQ(theirs, ours) << q->metrics.size() << " metrics";
        sp::Payload back;
        ASSERT_TRUE(sp::decode(ours, back));
        EXPECT_EQ(sp::encode(back), ours) << q->metrics.size() << " metrics";
    }
}

TEST(SparkplugPayload, SeqAppendedOrAbsentAndNotAPayload)
{
    sp::Payload p = every_kind();
    p.seq.reset();
    p.timestamp = 0;
    const std::string plain = sp::encode(p);
    sp::Payload back;
    ASSERT_TRUE(sp::decode(plain, back));
    EXPECT_FALSE(back.seq.has_value());
    EXPECT_EQ(back.timestamp, 0u);
    EXPECT_EQ(std::get<uint64_t>(back.metrics.at(0).value), 3u);
    for (uint64_t seq : {0ull, 127ull, 128ull, 255ull, 300ull}) {
        ASSERT_TRUE(sp::decode(sp::with_seq(plain, seq), back));
        EXPECT_EQ(back.seq, seq);
        EXPECT_EQ(back.metrics.size(), p.metrics.size());
        p.seq = seq;
        EXPECT_EQ(sp::with_seq(plain, seq), sp::encode(p));
    }

    EXPECT_TRUE(sp::decode("", back)) << "an empty payload is a valid, empty message";
    EXPECT_TRUE(back.metrics.empty());
    EXPECT_FALSE(sp::decode(std::string("\x12\x05\x0a", 3), back)) << "metric cut short";
    EXPECT_FALSE(sp::decode(std::string("\xff\xff\xff", 3), back));
}

TEST(SparkplugPayload, FieldNumbersSeenByAnIndependentDecoder)
{
    gchar *found = g_find_program_in_path("protoc");
    if (found == nullptr)
        GTEST_SKIP() << "protoc (Debian protobuf-compiler) is not installed";
    const std::string protoc = found;
    g_free(found);

    sp::Payload p;
    p.timestamp = 1700000000123;
    p.seq = 7;
    p.metrics = {
        metric("s16", sp::Int16, 0xFFFFFFA9u, 1700000000002, "D100"),
        metric("big", sp::UInt64, uint64_t{5000000000}, 0),
        metric("temp", sp::Float, 1.0f, 0),
        metric("run", sp::Boolean, true, 0),
        metric("text", sp::String, std::string("hello"), 0),
        metric("gone", sp::UInt8, sp::Value{}, 0),
        metric("old", 0, 9u, 0, "", true),
    };
    const std::string raw = decode_raw(protoc, sp::encode(p));
    ASSERT_FALSE(raw.empty()) << "protoc --decode_raw failed";
    // Payload: 1 timestamp, 2 metrics, 3 seq. Metric: 1 name, 3 timestamp,
    // 4 datatype, 5 is_historical, 7 is_null, 9 properties (1 keys, 2 values:
    // 1 type, 8 string_value), 10 int, 11 long, 12 float, 14 bool, 15 string.
    const std::string expected = R"(1: 1700000000123
2 {
  1: "s16"
  3: 1700000000002
  4: 2
  9 {
    1: "address"
    2 {
      1: 12
      8: "D100"
    }
  }
  10: 4294967209
}
2 {
  1: "big"
  4: 8
  11: 5000000000
}
2 {
  1: "temp"
  4: 9
  12: 0x3f800000
}
2 {
  1: "run"
  4: 11
  14: 1
}
2 {
  1: "text"
  4: 12
  15: "hello"
}
2 {
  1: "gone"
  4: 5
  7: 1
}
2 {
  1: "old"
  5: 1
  10: 9
}
3: 7
)";
    EXPECT_EQ(raw, expected);
}

TEST(SparkplugTopics, BuiltAndSplit)
{
    EXPECT_EQ(sp::topic("g", sp::MsgType::NBIRTH, "e"), "spBv1.0/g/NBIRTH/e");
    EXPECT_EQ(sp::topic("g", sp::MsgType::DDATA, "e", "d"), "spBv1.0/g/DDATA/e/d");
    EXPECT_EQ(sp::topic("", sp::MsgType::STATE, "", "host"), "spBv1.0/STATE/host");

    sp::Topic t;
    ASSERT_TRUE(sp::parse_topic("spBv1.0/g/DCMD/e/d", t));
    EXPECT_EQ(t.type, sp::MsgType::DCMD);
    EXPECT_EQ(t.group + " " + t.edge + " " + t.device, "g e d");
    ASSERT_TRUE(sp::parse_topic("spBv1.0/g/NCMD/e", t));
    EXPECT_EQ(t.type, sp::MsgType::NCMD);
    EXPECT_EQ(t.device, "");
    ASSERT_TRUE(sp::parse_topic("spBv1.0/STATE/scada", t));
    EXPECT_EQ(t.type, sp::MsgType::STATE);
    EXPECT_EQ(t.device, "scada");

    for (const char *bad : {"spBv1.0/g/NCMD/e/d", "spBv1.0/g/DCMD/e", "spBv1.0/g/XCMD/e",
                            "spAv1.0/g/NCMD/e", "spBv1.0//NCMD/e", "spBv1.0/g/NCMD/e/",
                            "spBv1.0/STATE", "spBv1.0/STATE/a/b", "", "spBv1.0"})
        EXPECT_FALSE(sp::parse_topic(bad, t)) << bad;
}

TEST(SparkplugDescribe, ReadableLines)
{
    sp::Payload p;
    p.timestamp = 1;
    p.seq = 4;
    p.metrics = {metric("s8", sp::Int8, 0xFFFFFFC8u, 1, "D1"), metric("t", sp::Float, 21.5f, 1),
                 metric("gone", sp::UInt16, sp::Value{}, 1), metric("old", 0, 3u, 1, "", true),
                 metric("name", 0, std::string("A7"), 1)};
    EXPECT_EQ(sp::describe("spBv1.0/g/DBIRTH/e/press", sp::encode(p)),
              "DBIRTH g/e/press seq=4: s8=-56 (Int8) @D1, t=21.5 (Float), gone=null (UInt16), "
              "old=3 [historical], name=\"A7\"");

    sp::Payload death;
    death.metrics = {metric("bdSeq", sp::Int64, uint64_t{2})};
    EXPECT_EQ(sp::describe("spBv1.0/g/NDEATH/e", sp::encode(death)),
              "NDEATH g/e no seq: bdSeq=2 (Int64)");
    sp::Payload ddeath;
    ddeath.seq = 9;
    EXPECT_EQ(sp::describe("spBv1.0/g/DDEATH/e/d", sp::encode(ddeath)),
              "DDEATH g/e/d seq=9: no metrics");
    EXPECT_EQ(sp::describe("spBv1.0/g/NCMD/e", "\xff\xff"),
              "NCMD g/e: undecodable payload (2 bytes)");
    EXPECT_EQ(sp::describe("spBv1.0/STATE/h", R"({"online":true})"),
              R"(STATE h {"online":true})");
    EXPECT_EQ(sp::describe("other/topic", "x"), "other/topic: not a Sparkplug topic (1 bytes)");
}
