// A private dbus-daemon per test, the daemon under test as a child process,
// and client-side helpers for calling it and recording its signals.
#pragma once

#include <gio/gio.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"

namespace dstest {

// A session-type dbus-daemon of the test's own, in the foreground, as a
// child of the test; torn down (and waited for) on destruction.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    const std::string &address() const { return address_; }
    // The test's own client connection (created on first use).
    GDBusConnection *connection();
    // A new, separate connection (for stand-in services and the like).
    GDBusConnection *new_connection() const;
    bool name_has_owner(const char *name);
    bool wait_for_name(const char *name, std::chrono::milliseconds timeout = 10s);
    bool wait_for_name_gone(const char *name, std::chrono::milliseconds timeout = 10s);

private:
    TempDir dir_;
    std::unique_ptr<Child> daemon_;
    std::string address_;
    GDBusConnection *conn_ = nullptr;
};

std::string default_daemon_binary();

struct DaemonOptions {
    std::string workdir;      // the daemon's working directory (my.db lives here)
    std::string bus_address;  // DBUS_SESSION_BUS_ADDRESS
    std::string pid_file;     // defaults to workdir/device-service.pid
    std::string tty1;         // defaults to workdir/ttymxc1
    std::string tty2;         // defaults to workdir/ttymxc2
    bool test_driver = false; // register the tests' driver (mfg 99, model 999)
    // The daemon binary; DS_TEST_DAEMON_BINARY overrides it, so that the
    // same tests can run against a sanitizer build of the daemon.
    std::string binary = default_daemon_binary();
    std::string log_name = "daemon"; // output goes to workdir/<log_name>.out and .err
};

// The daemon under test, started at construction; killed (SIGKILL) and
// waited for on destruction unless it has already ended.
class DaemonProcess : public Child {
public:
    explicit DaemonProcess(const DaemonOptions &options);
    bool wait_output(const std::string &needle, std::chrono::milliseconds timeout = 10s,
                     size_t occurrences = 1) const
    {
        return wait_out(needle, timeout, occurrences);
    }
};

// Result of a device service method call.
struct CallResult {
    bool ok = false;       // the call went through and answered (i)
    int response = 0;      // the result code
    std::string error;     // D-Bus error name when !ok
    std::string message;   // error message when !ok
};

// Calls a method of com.fernwick.DeviceService; `params` may be floating.
CallResult call_device(GDBusConnection *conn, const char *method, GVariant *params,
                       int timeout_ms = 30000);
// The device service's introspection data, empty when it does not answer.
std::string introspect_device(GDBusConnection *conn);

// Records every `nodes` signal of the device service on this thread's
// default main context; wait_* functions iterate that context.
class NodesRecorder {
public:
    explicit NodesRecorder(GDBusConnection *conn);
    ~NodesRecorder();
    NodesRecorder(const NodesRecorder &) = delete;
    NodesRecorder &operator=(const NodesRecorder &) = delete;

    size_t count() const { return cycles_.size(); }
    // Waits until `n` signals in total have been recorded.
    bool wait_for_count(size_t n, std::chrono::milliseconds timeout = 15s);
    // Waits for a cycle, recorded from now on, whose values (as cycle_values
    // gives them) are exactly `expected`: the first ones may predate a change.
    bool wait_for_values(const std::vector<std::string> &expected,
                         std::chrono::milliseconds timeout = 20s);
    // The argument a(usuuv) of signal `i` (owned by the recorder).
    GVariant *cycle(size_t i) const { return cycles_.at(i); }
    GVariant *last() const { return cycles_.back(); }
    std::vector<double> times() const { return times_; }
    void clear();

private:
    static void on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *, GVariant *, gpointer);
    GDBusConnection *conn_;
    guint id_ = 0;
    std::vector<GVariant *> cycles_;
    std::vector<double> times_;
};

// Iterates the default main context for the given time.
void pump_main_context(std::chrono::milliseconds duration);

// Values of one cycle as "dev_id/node_name=value" strings, in signal order.
std::vector<std::string> cycle_values(GVariant *cycle);
// The devices of one cycle as "dev_id:dev_name:node_count".
std::vector<std::string> cycle_devices(GVariant *cycle);

} // namespace dstest
