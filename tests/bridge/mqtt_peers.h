// The bridge's peers in the tests: a real mosquitto broker on a free
// loopback port, a stand-in daemon, the bridge's command line, and what
// the tests read from the broker: Sparkplug messages decoded, waited for by
// type and device, and checked for their seq.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "cycle.h"
#include "sparkplug.h"
#include "support/child.h"

struct mosquitto;
struct mosquitto_message;

namespace bridgetest {

using namespace std::chrono_literals;
using dstest::Child;

// mosquitto on 127.0.0.1 at a free port, without persistence.
class Broker {
public:
    enum Kind {
        Anonymous,
        Tls,      // TLS only, with a client certificate: "cert.pem" and "key.pem" (openssl)
        Password, // user "bridge", password "s3cret" (mosquitto_passwd)
    };
    explicit Broker(Kind kind = Anonymous);
    ~Broker();
    bool start();          // on a new free port the first time, the same port again after stop()
    void stop();
    void signal(int signo) { proc_->signal(signo); }
    uint16_t port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string file(const std::string &name) const { return dir_.file(name); }

private:
    dstest::TempDir dir_;
    Kind kind_;
    uint16_t port_ = 0;
    int starts_ = 0;
    std::unique_ptr<Child> proc_;
};

// A stand-in for the daemon: owns its name on a bus and emits `nodes` with
// the devices given, so a test decides exactly when each cycle happens.
class NodesEmitter {
public:
    explicit NodesEmitter(GDBusConnection *conn); // takes it
    ~NodesEmitter();
    NodesEmitter(const NodesEmitter &) = delete;
    NodesEmitter &operator=(const NodesEmitter &) = delete;

    bool owner() const { return owner_; }
    bool emit(const std::vector<bridge::DeviceReading> &devices);
    // A signal whose device holds no node array: the bridge logs that it
    // ignored it, which tells a test every earlier signal has been taken.
    bool emit_odd();

private:
    bool send(GVariant *args);

    GDBusConnection *conn_ = nullptr;
    bool owner_ = false;
};


// The bridge's command line to `broker` and `bus`, edge node plant/gw1.
std::vector<std::string> bridge_args(const Broker &broker, const std::string &bus, const std::string &state_dir,
                                     const std::vector<std::string> &extra = {});

struct SpMessage {
    bridge::sp::Topic topic;
    bridge::sp::Payload payload; // empty for STATE, whose payload is JSON
};

const bridge::sp::Metric *metric(const bridge::sp::Payload &p, const std::string &name);
// The number an integer metric stands for, whichever field carries it.
std::optional<int64_t> integer(const bridge::sp::Metric *m);
std::optional<int64_t> integer(const bridge::sp::Payload &p, const std::string &name);

struct Received {
    std::string topic;
    std::string payload;
    bool retained = false;
};

// What reached the test's MQTT subscriber (libmosquitto on a thread of its
// own), in order: watch() subscribes anew, after a broker restart too, and
// what came before is kept.
class Traffic {
public:
    Traffic() = default;
    ~Traffic() { close(); }
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    // Connects to the broker at `port`, waiting for the subscription.
    void watch(uint16_t port, const std::string &filter = "spBv1.0/#");
    bool publish(const std::string &topic, const std::string &payload, int qos = 1, bool retain = false);
    std::vector<Received> raw() const;
    size_t count() const { return raw().size(); }
    // Waits until `pred` holds for the messages received so far.
    bool wait(const std::function<bool(const std::vector<Received> &)> &pred,
              std::chrono::milliseconds timeout = 10s) const;
    std::vector<SpMessage> decoded() const;
    // The index of the first message of `type` for `device` at `from` or
    // later that satisfies `pred`, or -1 (a test failure naming `context`).
    int wait_for(bridge::sp::MsgType type, const std::string &device, size_t from = 0,
                 const std::function<bool(const bridge::sp::Payload &)> &pred = nullptr,
                 const Child *context = nullptr, std::chrono::milliseconds timeout = 20s) const;
    // seq of every edge message from `from` on: +1 each, 255 -> 0, NBIRTH 0.
    void expect_seq_continuity(size_t from = 0) const;

private:
    static void on_connect(mosquitto *, void *, int);
    static void on_subscribe(mosquitto *, void *, int, int, const int *);
    static void on_message(mosquitto *, void *, const mosquitto_message *);
    void close();

    std::string filter_;
    mosquitto *mosq_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<Received> messages_;
    bool subscribed_ = false;
};

} // namespace bridgetest
