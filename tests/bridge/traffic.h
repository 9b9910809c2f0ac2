// What the bridge tests read from the broker: Sparkplug messages decoded,
// waited for by type and device, and checked for their seq; and the bridge's
// command line.
#pragma once

#include <optional>

#include "mqtt_peers.h"
#include "sparkplug.h"

namespace bridgetest {

// The bridge's command line to `broker` and `bus`, edge node plant/gw1.
std::vector<std::string> bridge_args(const Broker &broker, const std::string &bus, const std::string &state_dir,
                                     const std::vector<std::string> &extra = {});
// DS_TEST_BRIDGE_BINARY runs the tests against another build of the bridge.
std::string bridge_binary();

struct SpMessage {
    bridge::sp::Topic topic;
    bridge::sp::Payload payload; // empty for STATE, whose payload is JSON
};

const bridge::sp::Metric *metric(const bridge::sp::Payload &p, const std::string &name);
// The number an integer metric stands for, whichever field carries it.
std::optional<int64_t> integer(const bridge::sp::Metric *m);
std::optional<int64_t> integer(const bridge::sp::Payload &p, const std::string &name);

// What reached the test's subscribers, in order: one subscriber at a time,
// a new one after a broker restart, the earlier ones' messages kept.
class Traffic {
public:
    void watch(uint16_t port, const std::string &filter = "spBv1.0/#");
    Subscriber &sub() { return *sub_; }
    std::vector<Received> raw() const;
    size_t count() const { return archive_.size() + sub_->count(); }
    std::vector<SpMessage> decoded() const;
    // The index of the first message of `type` for `device` at `from` or
    // later that satisfies `pred`, or -1 (a test failure naming `context`).
    int wait_for(bridge::sp::MsgType type, const std::string &device, size_t from = 0,
                 const std::function<bool(const bridge::sp::Payload &)> &pred = nullptr,
                 const Child *context = nullptr, std::chrono::milliseconds timeout = 20s) const;
    // seq of every edge message from `from` on: +1 each, 255 -> 0, NBIRTH 0.
    void expect_seq_continuity(size_t from = 0) const;

private:
    std::vector<Received> archive_;
    std::unique_ptr<Subscriber> sub_;
};

} // namespace bridgetest
