// The MQTT client in process, on this thread's GLib main loop, against a
// real mosquitto that stops reading or goes away.
#include <gtest/gtest.h>

#include <csignal>

#include "mqtt.h"
#include "mqtt_peers.h"

using namespace bridgetest;
using dstest::wait_until;

namespace {

bool pump_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    return wait_until(
        [&] {
            while (g_main_context_iteration(nullptr, FALSE)) {
            }
            return pred();
        },
        timeout, 1ms);
}

} // namespace

TEST(BridgeMqttClient, BoundedWhileTheBrokerStallsNewWillOnEveryConnect)
{
    Broker broker;
    ASSERT_TRUE(broker.start());
    bridge::MqttSettings settings;
    settings.port = broker.port();
    settings.client_id = "bounded";
    settings.max_pending_bytes = 256u << 10;
    int connects = 0;
    bridge::MqttClient::Events events;
    events.before_connect = [&] {
        ++connects;
        return true;
    };
    bridge::MqttClient client(settings, events);
    std::string error;
    ASSERT_TRUE(client.start(error)) << error;
    ASSERT_TRUE(pump_until([&] { return client.connected(); }, 5s));

    // A broker that reads nothing: once the socket's buffers are full, what
    // waits stays under the bound and new messages are refused.
    broker.signal(SIGSTOP);
    const std::string payload(64u << 10, 'x');
    bool refused = false;
    int taken = 0;
    for (; taken < 1000 && !refused; ++taken) {
        refused = client.publish("bench/x", payload, 0, false) < 0;
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }
    EXPECT_TRUE(refused) << taken << " messages of 64 KiB taken";
    EXPECT_LE(client.pending_bytes(), settings.max_pending_bytes);
    EXPECT_GT(client.pending_bytes(), settings.max_pending_bytes / 2);
    EXPECT_GE(client.publish("bench/goodbye", "x", 1, false), 0) << "QoS 1 still goes";
    broker.signal(SIGCONT);
    EXPECT_TRUE(pump_until([&] { return client.pending_bytes() == 0; }, 10s));
    EXPECT_GE(client.publish("bench/x", payload, 0, false), 0);

    // Gone and back: a new CONNECT, prepared anew (its Will) by the owner.
    broker.stop();
    ASSERT_TRUE(pump_until([&] { return !client.connected(); }, 5s));
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(pump_until([&] { return client.connected(); }, 10s));
    EXPECT_EQ(connects, 2);
    EXPECT_EQ(client.pending_bytes(), 0u);
}
