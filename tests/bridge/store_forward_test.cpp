// Nothing lost while the broker or the primary host is away: the bridge as a
// child process between a stand-in daemon that emits one cycle when the test
// says so (every value changing each cycle) and a real mosquitto, which the
// test stops, starts and publishes host STATEs to.
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include <sys/stat.h>

#include <csignal>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "mqtt_peers.h"
#include "values.h"
#include "support/bus.h"

using namespace bridgetest;
using bridge::sp::MsgType;
using dstest::count_of;
using dstest::wait_until;

namespace {

constexpr char DEVICE[] = "line";
constexpr char HOST_STATE[] = "spBv1.0/STATE/scada";

// What the DDATA of the device said, checked across sessions (each one
// starting at an NBIRTH): every node of a message holds the same cycle;
// within a session the cycles rise strictly (nothing out of order); over all
// of them every cycle from `first` to `last` arrived, at most `max_repeats`
// of them twice (those in flight at a kill).
struct History {
    std::map<uint64_t, bool> historical; // cycle -> arrived marked historical
    std::vector<size_t> replayed_per_session;

    // `in_births`: cycles whose values came in a DBIRTH instead.
    void check(const std::vector<SpMessage> &all, uint64_t first, uint64_t last, size_t max_repeats,
               const std::vector<uint64_t> &in_births = {})
    {
        std::map<uint64_t, size_t> arrivals;
        std::optional<uint64_t> latest;
        size_t repeats = 0;
        for (size_t i = 0; i < all.size(); ++i) {
            const SpMessage &m = all[i];
            if (m.topic.type == MsgType::NBIRTH) {
                latest.reset();
                replayed_per_session.push_back(0);
            }
            if (m.topic.type != MsgType::DDATA || m.topic.device != DEVICE)
                continue;
            ASSERT_FALSE(replayed_per_session.empty()) << "DDATA before any NBIRTH";
            ASSERT_FALSE(m.payload.metrics.empty()) << i;
            const bridge::sp::Metric &head = m.payload.metrics[0];
            const auto k = static_cast<uint64_t>(integer(&head).value_or(-1));
            for (const auto &metric : m.payload.metrics) {
                ASSERT_EQ(integer(&metric), integer(&head)) << metric.name << " at #" << i;
                ASSERT_EQ(metric.historical, head.historical) << metric.name << " at #" << i;
            }
            ASSERT_LE(k, last);
            if (latest) {
                EXPECT_GT(k, *latest) << "out of order at #" << i;
            }
            latest = k;
            repeats += arrivals[k]++ > 0 ? 1 : 0;
            historical.emplace(k, head.historical);
            replayed_per_session.back() += head.historical ? 1 : 0;
        }
        for (uint64_t k = first; k <= last; ++k)
            if (std::find(in_births.begin(), in_births.end(), k) == in_births.end()) {
                EXPECT_GT(arrivals[k], 0u) << "missing cycle " << k;
            }
        EXPECT_LE(repeats, max_repeats);
    }
};

class StoreForward : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(broker_.start());
        plant_ = std::make_unique<NodesEmitter>(bus_.new_connection());
        ASSERT_TRUE(plant_->owner());
        traffic_.watch(broker_.port());
    }

    void start_bridge(const std::vector<std::string> &extra = {})
    {
        bridge_.reset(); // a bridge still running is killed first
        bridge_ = std::make_unique<Child>(bridge_args(broker_, bus_.address(), state_dir(), extra), dir_.path(),
                                          "bridge" + std::to_string(bridges_++));
        // Cycles emitted from now on reach it.
        EXPECT_TRUE(bridge_->wait_err("device-service is on the bus")) << bridge_->err();
    }
    std::string state_dir() const { return dir_.file("state"); }

    // Cycles `from`..`to`: every node of the device holds the cycle's number.
    void emit(uint64_t from, uint64_t to, int nodes = 4)
    {
        for (uint64_t k = from; k <= to; ++k) {
            bridge::DeviceReading d{1, DEVICE, 1, 101, {}};
            for (int n = 0; n < nodes; ++n)
                d.nodes.push_back({"v" + std::to_string(n), "D" + std::to_string(n), bridge::NodeU32,
                                   std::to_string(k)});
            ASSERT_TRUE(plant_->emit({d}));
        }
    }

    int wait_for(MsgType type, size_t from = 0,
                 const std::function<bool(const bridge::sp::Payload &)> &pred = nullptr)
    {
        return traffic_.wait_for(type, type == MsgType::DDATA || type == MsgType::DBIRTH ? DEVICE : "", from,
                                 pred, bridge_.get());
    }
    int wait_value(uint64_t k, size_t from = 0)
    {
        return wait_for(MsgType::DDATA, from, [k](const bridge::sp::Payload &p) {
            return integer(p, "v0") == static_cast<int64_t>(k);
        });
    }
    // Every cycle emitted so far has been through the bridge: it has
    // answered a signal sent after them.
    void wait_processed()
    {
        const size_t before = count_of(bridge_->err(), "unexpected shape");
        ASSERT_TRUE(plant_->emit_odd());
        ASSERT_TRUE(bridge_->wait_err("unexpected shape", 20s, before + 1)) << bridge_->err();
    }

    dstest::TempDir dir_;
    dstest::PrivateBus bus_;
    Broker broker_;
    std::unique_ptr<NodesEmitter> plant_;
    Traffic traffic_;
    std::unique_ptr<Child> bridge_;
    int bridges_ = 0;
};

} // namespace

TEST_F(StoreForward, BrokerOutageReplayedInOrderAcrossKills)
{
    // Enough to take the replay a good while: megabytes of values.
    constexpr int NODES = 200;
    constexpr uint64_t LAST_STORED = 3000;
    start_bridge();
    ASSERT_GE(wait_for(MsgType::NBIRTH), 0);
    emit(1, 5, NODES);
    ASSERT_GE(wait_value(5), 0);

    broker_.stop();
    ASSERT_TRUE(bridge_->wait_err("lost the broker")) << bridge_->err();
    emit(6, 300, NODES);
    wait_processed();
    // Killed during the outage: what it stored survives.
    bridge_->signal(SIGKILL);
    start_bridge();
    emit(301, LAST_STORED, NODES); // the first makes the device anew: its values are kept all the same
    wait_processed();

    ASSERT_TRUE(broker_.start());
    traffic_.watch(broker_.port());
    const int births = wait_for(MsgType::NBIRTH, traffic_.count());
    ASSERT_GE(births, 0);
    // Killed again a moment into the replay, the broker frozen meanwhile so
    // that what the bridge has written stays where it is.
    ASSERT_GE(wait_for(MsgType::DDATA, static_cast<size_t>(births)), 0);
    broker_.signal(SIGSTOP);
    bridge_->signal(SIGKILL);
    EXPECT_EQ(bridge_->wait_exit(), 128 + SIGKILL);
    broker_.signal(SIGCONT);
    start_bridge();
    ASSERT_GE(wait_for(MsgType::NBIRTH, static_cast<size_t>(births) + 1), 0);
    // A restarted bridge knows its devices from the first cycle on: the
    // replay follows that cycle's DBIRTH, and the next cycles wait behind it.
    emit(LAST_STORED + 1, LAST_STORED + 3, NODES);
    ASSERT_TRUE(bridge_->wait_err("every stored message has been sent", 30s)) << bridge_->err();
    emit(LAST_STORED + 4, LAST_STORED + 4, NODES);
    ASSERT_GE(wait_value(LAST_STORED + 4), 0);

    History h;
    h.check(traffic_.decoded(), 1, LAST_STORED + 4, 256 + 64, {1, LAST_STORED + 1});
    traffic_.expect_seq_continuity();
    ASSERT_EQ(h.replayed_per_session.size(), 3u);
    EXPECT_GT(h.replayed_per_session[1], 0u);
    EXPECT_GT(h.replayed_per_session[2], 0u) << "the replay ended before the kill";
    // First arrivals: live before the outage and after the replay, historical
    // for what was stored.
    for (const auto &[k, historical] : h.historical)
        if (k <= LAST_STORED || k == LAST_STORED + 4) {
            EXPECT_EQ(historical, k >= 6 && k <= LAST_STORED) << "cycle " << k;
        }
}

TEST_F(StoreForward, FullStoreDropsTheOldestAndSaysHowMany)
{
    constexpr int NODES = 100;
    start_bridge({"--store-max-mb", "0.25"});
    ASSERT_GE(wait_for(MsgType::NBIRTH), 0);
    emit(1, 1, NODES);
    ASSERT_GE(wait_for(MsgType::DBIRTH), 0);
    broker_.stop();
    ASSERT_TRUE(bridge_->wait_err("lost the broker")) << bridge_->err();
    emit(2, 600, NODES);
    wait_processed();
    EXPECT_TRUE(bridge_->wait_err("the store was full: ")) << bridge_->err();

    ASSERT_TRUE(broker_.start());
    traffic_.watch(broker_.port());
    ASSERT_TRUE(bridge_->wait_err("every stored message has been sent", 30s)) << bridge_->err();
    ASSERT_GE(wait_value(600), 0);
    const auto all = traffic_.decoded();
    const int birth = wait_for(MsgType::NBIRTH, 1);
    ASSERT_GE(birth, 0);
    const auto dropped = integer(all[static_cast<size_t>(birth)].payload, "Store/Dropped Values");
    ASSERT_TRUE(dropped);
    // Whole messages go, the oldest first: the replay starts right after them.
    const int first = wait_for(MsgType::DDATA, static_cast<size_t>(birth));
    ASSERT_GE(first, 0);
    const auto oldest_kept = static_cast<uint64_t>(integer(all[static_cast<size_t>(first)].payload, "v0").value_or(0));
    EXPECT_GT(oldest_kept, 2u);
    EXPECT_EQ(static_cast<uint64_t>(*dropped), (oldest_kept - 2) * NODES);
    EXPECT_TRUE(all[static_cast<size_t>(first)].payload.metrics.at(0).historical);
    std::vector<SpMessage> after(all.begin() + birth, all.end());
    History h;
    h.check(after, oldest_kept, 600, 0);
    traffic_.expect_seq_continuity(static_cast<size_t>(birth));
}

TEST_F(StoreForward, PrimaryHostGatesBirthsAndEndsTheSessionWhenOffline)
{
    start_bridge({"--primary-host", "scada"});
    ASSERT_TRUE(bridge_->wait_err("connected to")) << bridge_->err();
    emit(1, 3); // values wait for the host, births too
    ASSERT_TRUE(bridge_->wait_err("storing data until")) << bridge_->err();
    ASSERT_TRUE(traffic_.publish(HOST_STATE, R"({"online":true,"timestamp":1000})", 1, true));
    const int birth = wait_for(MsgType::NBIRTH);
    ASSERT_GE(birth, 0);
    const auto bd = integer(traffic_.decoded()[static_cast<size_t>(birth)].payload, "bdSeq");
    emit(4, 4);
    ASSERT_GE(wait_value(4), 0);

    ASSERT_TRUE(traffic_.publish(HOST_STATE, R"({"online":false,"timestamp":1000})", 1, true));
    const int death = wait_for(MsgType::NDEATH);
    ASSERT_GE(death, 0);
    EXPECT_EQ(integer(traffic_.decoded()[static_cast<size_t>(death)].payload, "bdSeq"), bd);
    ASSERT_TRUE(bridge_->wait_err("connected to", 20s, 2)) << bridge_->err();
    emit(5, 8);
    ASSERT_TRUE(bridge_->wait_err("storing data until", 10s, 2)) << bridge_->err();
    ASSERT_TRUE(traffic_.publish(HOST_STATE, R"({"online":true,"timestamp":2000})", 1, true));
    const int again = wait_for(MsgType::NBIRTH, static_cast<size_t>(death));
    ASSERT_GE(again, 0);
    EXPECT_EQ(integer(traffic_.decoded()[static_cast<size_t>(again)].payload, "bdSeq"), *bd + 1);
    emit(9, 9);
    ASSERT_GE(wait_value(9), 0);

    const auto all = traffic_.decoded();
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const SpMessage &m) { return m.topic.type == MsgType::NDEATH; }),
              1) << bridge_->err();
    History h;
    h.check(all, 1, 9, 0);
    traffic_.expect_seq_continuity();
    EXPECT_TRUE(h.historical.at(1));
    EXPECT_TRUE(h.historical.at(5));
    EXPECT_FALSE(h.historical.at(4));
    EXPECT_FALSE(h.historical.at(9));
}

TEST_F(StoreForward, JsonStatusAndReplayWithItsTimesPastACorruptStore)
{
    ASSERT_EQ(mkdir(state_dir().c_str(), 0700), 0);
    dstest::write_file(state_dir() + "/store-json-plant-gw1.db", std::string(8192, 'x'));
    traffic_.watch(broker_.port(), "site/#");
    start_bridge({"--mode", "json", "--topic-prefix", "site"});
    ASSERT_TRUE(bridge_->wait_err("is not usable")) << bridge_->err();
    EXPECT_TRUE(bridge_->wait_err("set aside as " + state_dir() + "/store-json-plant-gw1.db.corrupt-"))
        << bridge_->err();
    ASSERT_TRUE(bridge_->wait_err("connected to")) << bridge_->err();

    auto values = [&] {
        std::vector<std::pair<uint64_t, int64_t>> out; // v0, timestamp
        for (const auto &r : traffic_.raw()) {
            std::unique_ptr<JsonNode, void (*)(JsonNode *)> n(json_from_string(r.payload.c_str(), nullptr),
                                                              json_node_unref);
            JsonObject *o = n ? json_node_get_object(n.get()) : nullptr;
            if (o == nullptr)
                continue;
            out.emplace_back(json_object_get_int_member(json_object_get_object_member(o, "values"), "v0"),
                             json_object_get_int_member(o, "timestamp"));
        }
        return out;
    };
    emit(1, 1);
    ASSERT_TRUE(wait_until([&] { return values().size() == 1; }, 10s)) << bridge_->err();
    EXPECT_EQ(traffic_.raw().at(0).topic + " " + traffic_.raw().at(0).payload, "site/status online");

    broker_.stop();
    ASSERT_TRUE(bridge_->wait_err("lost the broker")) << bridge_->err();
    emit(2, 20);
    wait_processed();
    const auto back_at = g_get_real_time() / 1000;
    ASSERT_TRUE(broker_.start());
    traffic_.watch(broker_.port(), "site/#");
    ASSERT_TRUE(bridge_->wait_err("every stored message has been sent", 20s)) << bridge_->err();
    emit(21, 21);
    ASSERT_TRUE(wait_until([&] { return values().size() == 21; }, 10s)) << bridge_->err();

    const auto got = values();
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].first, i + 1);
        if (i > 0) {
            EXPECT_GE(got[i].second, got[i - 1].second);
        }
        if (i >= 1 && i < 20) {
            // The same millisecond as the broker's return at most: a replay
            // comes after the reconnection.
            EXPECT_LE(got[i].second, back_at) << "cycle " << i + 1 << " keeps the time it was read";
        }
    }

    // Killed: the Will leaves "offline" retained for whoever comes later.
    bridge_->signal(SIGKILL);
    ASSERT_TRUE(traffic_.wait([](const std::vector<Received> &all) {
        return all.back().topic == "site/status" && all.back().payload == "offline";
    }));
    Traffic late;
    late.watch(broker_.port(), "site/status");
    EXPECT_TRUE(late.wait([](const std::vector<Received> &all) {
        return !all.empty() && all.back().payload == "offline" && all.back().retained;
    })) << "status as retained: " << (late.count() == 0 ? "nothing" : late.raw().back().payload);
}
