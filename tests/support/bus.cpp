#include "support/bus.h"

#include <signal.h>

#include <functional>
#include <stdexcept>
#include <thread>

namespace dstest {

namespace {

constexpr char BUS_CONFIG[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

} // namespace

PrivateBus::PrivateBus()
{
    const std::string config = dir_.file("bus.conf");
    write_file(config, BUS_CONFIG);
    gchar *program = g_find_program_in_path("dbus-daemon");
    const std::string path = program != nullptr ? program : "dbus-daemon";
    g_free(program);
    daemon_ = std::make_unique<Child>(std::vector<std::string>{path, "--nofork", "--nopidfile",
                                                               "--config-file=" + config, "--print-address=1"},
                                      dir_.path(), "dbus-daemon");
    // The daemon prints its address once it listens: that is readiness.
    const auto printed = [&] { return daemon_->out().find('\n') != std::string::npos; };
    if (!wait_until([&] { return printed() || !daemon_->running(); }, 10s) || !printed())
        throw std::runtime_error("dbus-daemon did not start: " + daemon_->err());
    address_ = daemon_->out().substr(0, daemon_->out().find('\n'));
}

PrivateBus::~PrivateBus()
{
    if (conn_ != nullptr) {
        g_dbus_connection_close_sync(conn_, nullptr, nullptr);
        g_object_unref(conn_);
    }
    daemon_->signal(SIGTERM);
    daemon_->wait_exit(5s); // killed by its destructor otherwise
}

GDBusConnection *PrivateBus::new_connection() const
{
    GError *error = nullptr;
    GDBusConnection *c = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (c == nullptr) {
        std::string msg = error != nullptr ? error->message : "unknown";
        g_clear_error(&error);
        throw std::runtime_error("cannot connect to the private bus: " + msg);
    }
    g_dbus_connection_set_exit_on_close(c, FALSE);
    return c;
}

GDBusConnection *PrivateBus::connection()
{
    if (conn_ == nullptr)
        conn_ = new_connection();
    return conn_;
}

bool PrivateBus::name_has_owner(const char *name)
{
    GVariant *r = g_dbus_connection_call_sync(
        connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (r == nullptr)
        return false;
    gboolean has = FALSE;
    g_variant_get(r, "(b)", &has);
    g_variant_unref(r);
    return has != FALSE;
}

bool PrivateBus::wait_for_name(const char *name, std::chrono::milliseconds timeout)
{
    return wait_until([&] { return name_has_owner(name); }, timeout, 2ms);
}

bool PrivateBus::wait_for_name_gone(const char *name, std::chrono::milliseconds timeout)
{
    return wait_until([&] { return !name_has_owner(name); }, timeout, 20ms);
}

std::string default_daemon_binary()
{
    const char *env = getenv("DS_TEST_DAEMON_BINARY");
    return env != nullptr && *env != '\0' ? env : DS_TEST_DAEMON;
}

namespace {

std::vector<std::string> daemon_args(const DaemonOptions &o)
{
    const auto in_workdir = [&](const std::string &path, const char *name) {
        return path.empty() ? o.workdir + "/" + name : path;
    };
    std::vector<std::string> args = {o.binary, "--pid-file", in_workdir(o.pid_file, "device-service.pid"),
                                     "--tty1", in_workdir(o.tty1, "ttymxc1"),
                                     "--tty2", in_workdir(o.tty2, "ttymxc2")};
    if (o.test_driver)
        args.emplace_back("--test-driver");
    return args;
}

} // namespace

// GLib's own debug chatter stays out of the daemon's output.
DaemonProcess::DaemonProcess(const DaemonOptions &o)
    : Child(daemon_args(o), o.workdir, o.log_name,
            {o.workdir, {"DBUS_SESSION_BUS_ADDRESS=" + o.bus_address, "G_MESSAGES_DEBUG"}})
{
}

CallResult call_device(GDBusConnection *conn, const char *method, GVariant *params,
                       int timeout_ms)
{
    CallResult res;
    GError *error = nullptr;
    GVariant *r = g_dbus_connection_call_sync(
        conn, "com.fernwick.DeviceService", "/com/fernwick/DeviceService",
        "com.fernwick.DeviceService", method, params, nullptr, G_DBUS_CALL_FLAGS_NONE,
        timeout_ms, nullptr, &error);
    if (r == nullptr) {
        gchar *remote = g_dbus_error_get_remote_error(error);
        res.error = remote != nullptr ? remote : "";
        g_free(remote);
        g_dbus_error_strip_remote_error(error);
        res.message = error->message;
        g_clear_error(&error);
        return res;
    }
    if (g_variant_is_of_type(r, G_VARIANT_TYPE("(i)"))) {
        res.ok = true;
        g_variant_get(r, "(i)", &res.response);
    } else {
        res.error = "unexpected reply type";
        res.message = g_variant_get_type_string(r);
    }
    g_variant_unref(r);
    return res;
}

std::string introspect_device(GDBusConnection *conn)
{
    GVariant *r = g_dbus_connection_call_sync(
        conn, "com.fernwick.DeviceService", "/com/fernwick/DeviceService",
        "org.freedesktop.DBus.Introspectable", "Introspect", nullptr, G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
    if (r == nullptr)
        return "";
    const gchar *xml = nullptr;
    g_variant_get(r, "(&s)", &xml);
    std::string s = xml;
    g_variant_unref(r);
    return s;
}

NodesRecorder::NodesRecorder(GDBusConnection *conn) : conn_(conn)
{
    id_ = g_dbus_connection_signal_subscribe(
        conn_, nullptr, "com.fernwick.DeviceService", "nodes", "/com/fernwick/DeviceService",
        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr);
}

NodesRecorder::~NodesRecorder()
{
    g_dbus_connection_signal_unsubscribe(conn_, id_);
    clear();
}

void NodesRecorder::clear()
{
    for (GVariant *v : cycles_)
        g_variant_unref(v);
    cycles_.clear();
    times_.clear();
}

void NodesRecorder::on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                              const gchar *, GVariant *parameters, gpointer user_data)
{
    auto *self = static_cast<NodesRecorder *>(user_data);
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(a(usuuv))")))
        return;
    self->cycles_.push_back(g_variant_get_child_value(parameters, 0));
    self->times_.push_back(static_cast<double>(g_get_monotonic_time()) / 1e6);
}

namespace {

// Iterates the default main context until `done` holds or the time is up.
bool iterate_until(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(1ms);
    }
    return true;
}

} // namespace

bool NodesRecorder::wait_for_count(size_t n, std::chrono::milliseconds timeout)
{
    return iterate_until([&] { return cycles_.size() >= n; }, timeout);
}

bool NodesRecorder::wait_for_values(const std::vector<std::string> &expected,
                                    std::chrono::milliseconds timeout)
{
    size_t seen = cycles_.size();
    return iterate_until(
        [&] {
            for (; seen < cycles_.size(); ++seen)
                if (cycle_values(cycles_[seen]) == expected)
                    return true;
            return false;
        },
        timeout);
}

void pump_main_context(std::chrono::milliseconds duration)
{
    iterate_until([] { return false; }, duration);
}

namespace {

// Calls `fn(dev_id, dev_name, nodes)` for each device of one cycle.
void each_device(GVariant *cycle, const std::function<void(guint32, const gchar *, GVariant *)> &fn)
{
    GVariantIter it;
    g_variant_iter_init(&it, cycle);
    guint32 dev_id, mfg, type;
    const gchar *dev_name;
    GVariant *nodes;
    while (g_variant_iter_next(&it, "(u&suu@v)", &dev_id, &dev_name, &mfg, &type, &nodes)) {
        GVariant *arr = g_variant_get_variant(nodes);
        fn(dev_id, dev_name, arr);
        g_variant_unref(arr);
        g_variant_unref(nodes);
    }
}

} // namespace

std::vector<std::string> cycle_values(GVariant *cycle)
{
    std::vector<std::string> out;
    each_device(cycle, [&](guint32 dev_id, const gchar *, GVariant *arr) {
        GVariantIter nit;
        g_variant_iter_init(&nit, arr);
        const gchar *name, *addr, *value;
        guint32 dtype;
        while (g_variant_iter_next(&nit, "(&s&su&s)", &name, &addr, &dtype, &value))
            out.push_back(std::to_string(dev_id) + "/" + name + "=" + value);
    });
    return out;
}

std::vector<std::string> cycle_devices(GVariant *cycle)
{
    std::vector<std::string> out;
    each_device(cycle, [&](guint32 dev_id, const gchar *dev_name, GVariant *arr) {
        out.push_back(std::to_string(dev_id) + ":" + dev_name + ":" +
                      std::to_string(g_variant_n_children(arr)));
    });
    return out;
}

} // namespace dstest
