// The primary host's STATE: payloads, and what each one means to the edge
// node at that point of its sessions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host_state.h"

using bridge::HostState;
using bridge::PrimaryHost;
using bridge::parse_host_state;

TEST(HostStatePayload, ParsesTheJsonObjectAndRefusesAnythingElse)
{
    struct Good {
        const char *text;
        bool online;
        uint64_t ts;
    };
    for (const Good &g : std::vector<Good>{
             {R"({"online":true,"timestamp":1700000000123})", true, 1700000000123},
             {R"({"timestamp":5,"online":false})", false, 5},
             {" {\n \"online\" : true ,\"timestamp\":0, \"host\":\"scada-1\"}\n", true, 0},
         }) {
        SCOPED_TRACE(g.text);
        std::string reason;
        auto s = parse_host_state(g.text, &reason);
        ASSERT_TRUE(s) << reason;
        EXPECT_EQ(s->online, g.online);
        EXPECT_EQ(s->timestamp_ms, g.ts);
    }

    struct Bad {
        std::string text;
        const char *reason; // part of the reason given
    };
    for (const Bad &b : std::vector<Bad>{
             {"", "empty"},
             {"ONLINE", "not JSON"},
             {R"({"online":true,"timestamp":1)", "not JSON"},
             {R"([true, 1])", "not a JSON object"},
             {R"("online")", "not a JSON object"},
             {R"({"timestamp":1})", "\"online\""},
             {R"({"online":"true","timestamp":1})", "\"online\""},
             {R"({"online":null,"timestamp":1})", "\"online\""},
             {R"({"online":true})", "\"timestamp\""},
             {R"({"online":true,"timestamp":"1700000000123"})", "\"timestamp\""},
             {R"({"online":true,"timestamp":1.5})", "\"timestamp\""},
             {R"({"online":true,"timestamp":-1})", "\"timestamp\""},
             {std::string("{\"online\":true,\"timestamp\":1}\0x", 31), "not JSON"},
             {std::string(5000, ' ') + "{}", "bytes"},
         }) {
        SCOPED_TRACE(b.text.substr(0, 60));
        std::string reason;
        EXPECT_FALSE(parse_host_state(b.text, &reason));
        EXPECT_NE(reason.find(b.reason), std::string::npos) << reason;
    }
}

namespace {

using V = PrimaryHost::Verdict;
using A = PrimaryHost::Action;

std::string state(bool online, uint64_t ts)
{
    return std::string("{\"online\":") + (online ? "true" : "false") +
           ",\"timestamp\":" + std::to_string(ts) + "}";
}

// One step of a table: a message on a topic, or (topic empty) a new MQTT
// session; then what it means and whether births may go out after it.
struct Step {
    std::string topic;
    std::string payload;
    V verdict;
    A action;
    bool online;
};

const std::string kOurs = "spBv1.0/STATE/scada-1";

Step msg(bool online, uint64_t ts, V v, A a, bool after)
{
    return {kOurs, state(online, ts), v, a, after};
}

Step new_session(bool online_after = false)
{
    return {"", "", V::Ignored, A::None, online_after};
}

} // namespace

TEST(HostStateTracker, FollowsThePrimaryHostAcrossSessions)
{
    struct Case {
        const char *name;
        std::vector<Step> steps;
    };
    const std::vector<Case> cases = {
        {"births wait for the first online STATE, whatever its age",
         {msg(false, 900, V::Offline, A::None, false),
          msg(true, 900, V::Online, A::PublishBirths, true),
          msg(true, 900, V::Online, A::None, true)}},
        {"the host's Will ends the session; its next birth starts one",
         {msg(true, 100, V::Online, A::PublishBirths, true),
          msg(false, 100, V::Offline, A::EndSession, false),
          new_session(),
          msg(false, 100, V::Offline, A::None, false),
          msg(true, 250, V::Online, A::PublishBirths, true)}},
        {"stale STATEs are ignored, online or offline",
         {msg(true, 500, V::Online, A::PublishBirths, true),
          msg(false, 499, V::Stale, A::None, true),
          msg(true, 400, V::Stale, A::None, true),
          msg(false, 800, V::Offline, A::EndSession, false),
          msg(true, 700, V::Stale, A::None, false),
          msg(true, 800, V::Online, A::PublishBirths, true)}},
        {"what was seen is kept across reconnects: the retained STATE counts "
         "again, an older one does not",
         {msg(true, 300, V::Online, A::PublishBirths, true),
          new_session(),
          msg(true, 299, V::Stale, A::None, false),
          msg(true, 300, V::Online, A::PublishBirths, true)}},
        {"other hosts and malformed payloads change nothing",
         {msg(true, 10, V::Online, A::PublishBirths, true),
          {"spBv1.0/STATE/scada-2", state(false, 99), V::Ignored, A::None, true},
          {"spBv1.0/STATE/scada-1/x", state(false, 99), V::Ignored, A::None, true},
          {"STATE/scada-1", "OFFLINE", V::Ignored, A::None, true},
          {kOurs, "{\"online\":false}", V::Ignored, A::None, true},
          {kOurs, "", V::Ignored, A::None, true},
          msg(false, 10, V::Offline, A::EndSession, false)}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        PrimaryHost host("scada-1");
        EXPECT_EQ(host.topic(), kOurs);
        EXPECT_FALSE(host.online());
        for (size_t i = 0; i < c.steps.size(); ++i) {
            const Step &s = c.steps[i];
            SCOPED_TRACE("step " + std::to_string(i) + ": " + s.payload);
            if (s.topic.empty()) {
                host.on_new_session();
                EXPECT_EQ(host.online(), s.online);
                continue;
            }
            const auto out = host.on_message(s.topic, s.payload);
            EXPECT_EQ(bridge::verdict_name(out.verdict), bridge::verdict_name(s.verdict));
            EXPECT_EQ(out.action, s.action);
            EXPECT_EQ(host.online(), s.online);
            const bool explained = out.verdict == V::Stale || out.verdict == V::Ignored;
            EXPECT_EQ(!out.reason.empty(), explained) << out.reason;
        }
    }
}
