#include "sim/standin_system_service.h"

#include <stdexcept>

#include <chrono>

namespace sim {

// Every method is answered here, before the typed handlers: the reply is
// built from the method's out arguments (texts are the argument names,
// integers 7, the scan interval and `response` as set), unless a test set
// a reply of its own.
struct StandInHandlers {
    static gboolean authorize(GDBusInterfaceSkeleton *, GDBusMethodInvocation *inv,
                              gpointer user_data)
    {
        auto *self = static_cast<StandInSystemService *>(user_data);
        const char *method = g_dbus_method_invocation_get_method_name(inv);
        self->count_call(method);
        {
            gchar *printed = g_variant_print(g_dbus_method_invocation_get_parameters(inv), FALSE);
            std::lock_guard<std::mutex> lock(self->calls_mutex_);
            self->params_[method] = printed;
            g_free(printed);
        }
        g_object_ref(inv);
        if (self->fail_calls_) {
            g_dbus_method_invocation_return_dbus_error(inv, "org.freedesktop.DBus.Error.Failed",
                                                       "stand-in told to fail");
            return FALSE;
        }
        g_dbus_method_invocation_return_value(
            inv, self->reply_for(method, g_dbus_method_invocation_get_method_info(inv)));
        return FALSE;
    }
};

GVariant *StandInSystemService::reply_for(const char *method, const GDBusMethodInfo *info)
{
    {
        std::lock_guard<std::mutex> lock(calls_mutex_);
        auto it = replies_.find(method);
        if (it != replies_.end())
            return g_variant_ref(it->second);
    }
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE_TUPLE);
    for (GDBusArgInfo **a = info->out_args; a != nullptr && *a != nullptr; ++a) {
        const std::string sig = (*a)->signature;
        const std::string name = (*a)->name;
        if (name == "response")
            g_variant_builder_add(&b, "i", response_.load());
        else if (name == "scanInterval")
            g_variant_builder_add(&b, "u", scan_interval_.load());
        else if (sig == "u")
            g_variant_builder_add(&b, "u", 7u);
        else if (sig == "s")
            g_variant_builder_add(&b, "s", name.c_str());
        else if (sig == "b")
            g_variant_builder_add(&b, "b", TRUE);
        else // a(ssu), the only other out type of the interface
            g_variant_builder_add_value(
                &b, g_variant_new_parsed("[('topic/a', 'press', uint32 5), ('topic/b', 'oven', 6)]"));
    }
    return g_variant_builder_end(&b);
}

void StandInSystemService::set_reply(const std::string &method, GVariant *reply)
{
    std::lock_guard<std::mutex> lock(calls_mutex_);
    auto &slot = replies_[method];
    if (slot != nullptr)
        g_variant_unref(slot);
    slot = g_variant_ref_sink(reply);
}

std::string StandInSystemService::last_params(const std::string &method)
{
    std::lock_guard<std::mutex> lock(calls_mutex_);
    auto it = params_.find(method);
    return it == params_.end() ? "" : it->second;
}

StandInSystemService::StandInSystemService(std::string bus_address)
    : address_(std::move(bus_address))
{
}

StandInSystemService::~StandInSystemService()
{
    stop();
    for (auto &r : replies_)
        g_variant_unref(r.second);
}

void StandInSystemService::count_call(const char *method)
{
    std::lock_guard<std::mutex> lock(calls_mutex_);
    call_log_ += std::string(method) + "\n";
}

int StandInSystemService::calls(const std::string &method)
{
    std::lock_guard<std::mutex> lock(calls_mutex_);
    const std::string needle = method + "\n";
    int n = 0;
    for (size_t pos = call_log_.find(needle); pos != std::string::npos;
         pos = call_log_.find(needle, pos + needle.size()))
        if (pos == 0 || call_log_[pos - 1] == '\n')
            ++n;
    return n;
}

void StandInSystemService::connect_handlers()
{
    g_signal_connect(skeleton_, "g-authorize-method", G_CALLBACK(StandInHandlers::authorize),
                     this);
}

void StandInSystemService::start()
{
    if (thread_.joinable())
        return;
    ready_ = false;
    thread_ = std::thread([this] { run(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ready_.load()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("stand-in system service did not come up");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void StandInSystemService::run()
{
    ctx_ = g_main_context_new();
    g_main_context_push_thread_default(ctx_);
    loop_ = g_main_loop_new(ctx_, FALSE);
    GError *error = nullptr;
    conn_ = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (conn_ != nullptr) {
        g_dbus_connection_set_exit_on_close(conn_, FALSE);
        skeleton_ = gateway_system_service_skeleton_new();
        connect_handlers();
        g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton_), conn_,
                                         "/com/fernwick/SystemService", nullptr);
        GVariant *r = g_dbus_connection_call_sync(
            conn_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", "com.fernwick.SystemService", 4u),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        if (r != nullptr)
            g_variant_unref(r);
        ready_ = true;
        g_main_loop_run(loop_);
        g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(skeleton_));
        g_object_unref(skeleton_);
        skeleton_ = nullptr;
        g_dbus_connection_close_sync(conn_, nullptr, nullptr);
        g_object_unref(conn_);
        conn_ = nullptr;
    } else {
        g_clear_error(&error);
        ready_ = true;
    }
    // Let pending idle work run before the context goes.
    while (g_main_context_iteration(ctx_, FALSE)) {
    }
    g_main_loop_unref(loop_);
    loop_ = nullptr;
    g_main_context_pop_thread_default(ctx_);
    g_main_context_unref(ctx_);
    ctx_ = nullptr;
}

void StandInSystemService::stop()
{
    if (!thread_.joinable())
        return;
    g_main_context_invoke(
        ctx_,
        [](gpointer data) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop *>(data));
            return G_SOURCE_REMOVE;
        },
        loop_);
    thread_.join();
}

void StandInSystemService::emit_notify(const std::string &key, const std::string &value)
{
    if (!thread_.joinable() || skeleton_ == nullptr)
        return;
    gateway_system_service_emit_signal_notify(skeleton_, key.c_str(), value.c_str());
    g_dbus_connection_flush_sync(conn_, nullptr, nullptr);
}

} // namespace sim
