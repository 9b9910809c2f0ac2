// The bridge's peers in the tests: a real mosquitto broker on a free
// loopback port, a subscriber that records what reaches it, a stand-in
// daemon, and the bridge itself as a child process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "cycle.h"
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
        Closed,   // anonymous clients refused
        Tls,      // TLS only, with a client certificate (certificates made by openssl)
        Password, // user "bridge", password "s3cret" (mosquitto_passwd)
    };
    explicit Broker(Kind kind = Anonymous);
    ~Broker();
    bool start();          // on a new free port the first time, the same port again after stop()
    void stop();
    void signal(int signo) { proc_->signal(signo); }
    uint16_t port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    // Tls: "ca.crt", and the client's "client.crt" and "client.key".
    std::string file(const std::string &name) const { return dir_.file(name); }

private:
    bool make_certificates();

    dstest::TempDir dir_;
    Kind kind_;
    uint16_t port_ = 0;
    int starts_ = 0;
    std::unique_ptr<Child> proc_;
};

struct Received {
    std::string topic;
    std::string payload;
    bool retained = false;
};

// A libmosquitto client on a thread of its own, subscribed to `filter`
// from its CONNACK on; records every message.
class Subscriber {
public:
    Subscriber(uint16_t port, std::string filter);
    ~Subscriber();
    Subscriber(const Subscriber &) = delete;
    Subscriber &operator=(const Subscriber &) = delete;

    // Waits for the subscription to be acknowledged.
    bool ready(std::chrono::milliseconds timeout = 5s);
    std::vector<Received> messages() const;
    size_t count() const;
    // Waits until `pred` holds for the messages received so far.
    bool wait(const std::function<bool(const std::vector<Received> &)> &pred,
              std::chrono::milliseconds timeout = 10s) const;
    bool publish(const std::string &topic, const std::string &payload, int qos = 1, bool retain = false);

private:
    static void on_connect(mosquitto *, void *, int);
    static void on_subscribe(mosquitto *, void *, int, int, const int *);
    static void on_message(mosquitto *, void *, const mosquitto_message *);

    std::string filter_;
    mosquitto *mosq_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<Received> messages_;
    bool subscribed_ = false;
};

// A stand-in for the daemon: owns its name on a bus and emits `nodes` with
// the devices given, so a test decides exactly when each cycle happens.
class NodesEmitter {
public:
    explicit NodesEmitter(const std::string &bus_address);
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

} // namespace bridgetest
