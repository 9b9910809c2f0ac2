// The bridge's peers in the tests: a real mosquitto broker on a free
// loopback port and a stand-in daemon.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "cycle.h"
#include "support/child.h"

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

} // namespace bridgetest
