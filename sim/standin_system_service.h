// A stand-in for the gateway's system service on a private bus: owns
// com.fernwick.SystemService, answers its methods from settable values and
// emits signalNotify on request. Runs on a thread of its own.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "idl/common/system_idl.h"

namespace sim {

class StandInSystemService {
public:
    explicit StandInSystemService(std::string bus_address);
    ~StandInSystemService();
    StandInSystemService(const StandInSystemService &) = delete;
    StandInSystemService &operator=(const StandInSystemService &) = delete;

    // Connects, exports the object and owns the name; returns once the name is owned.
    void start();
    // Leaves the bus (the name vanishes); start() may be called again.
    void stop();
    bool started() const { return thread_.joinable(); }

    void set_scan_interval(uint32_t seconds) { scan_interval_ = seconds; }
    // `response` of every method (0 success).
    void set_response(int response) { response_ = response; }
    // When set, every method answers with a D-Bus error instead.
    void set_fail_calls(bool fail) { fail_calls_ = fail; }
    // Overrides the reply of one method (a tuple of its out arguments).
    void set_reply(const std::string &method, GVariant *reply);
    // The in arguments of the last call of a method, as g_variant_print shows them.
    std::string last_params(const std::string &method);
    void emit_notify(const std::string &key, const std::string &value);
    // Number of calls of one method (by its D-Bus name) so far.
    int calls(const std::string &method);

private:
    void run();
    void connect_handlers();
    void count_call(const char *method);
    GVariant *reply_for(const char *method, const GDBusMethodInfo *info);

    std::string address_;
    std::thread thread_;
    GMainContext *ctx_ = nullptr;
    GMainLoop *loop_ = nullptr;
    GDBusConnection *conn_ = nullptr;
    GatewaySystemService *skeleton_ = nullptr;
    std::atomic<uint32_t> scan_interval_{1};
    std::atomic<int> response_{0};
    std::atomic<bool> fail_calls_{false};
    std::atomic<bool> ready_{false};
    std::mutex calls_mutex_;
    std::string call_log_;
    std::map<std::string, GVariant *> replies_;
    std::map<std::string, std::string> params_;

    friend struct StandInHandlers;
};

} // namespace sim
