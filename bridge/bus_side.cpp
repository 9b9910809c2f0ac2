#include "bus_side.h"

#include "guarded.h"
#include "idl/common/device_idl.h"

namespace bridge {

namespace {

constexpr char BUS_NAME[] = "com.fernwick.DeviceService";
constexpr char OBJECT_PATH[] = "/com/fernwick/DeviceService";

struct VariantUnref {
    void operator()(GVariant *v) const { g_variant_unref(v); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;
struct ErrorFree {
    void operator()(GError *e) const { g_error_free(e); }
};

// GDBus hands a received signal over as a tree of GVariants. g_variant_get()
// with a '&' format flattens that tree into one serialised copy first, and
// every child taken from the copy is a new GVariant: for thousands of nodes
// a cycle that is most of the bridge's work. Children taken from the tree
// are references to what is there already, so the walk goes member by member.
VariantPtr child(GVariant *v, gsize i)
{
    return VariantPtr(g_variant_get_child_value(v, i));
}

// Assigned in place: a Cycle kept from one signal to the next reuses its
// strings' storage, and a cycle allocates next to nothing.
void assign_string_at(GVariant *tuple, gsize i, std::string &out)
{
    const VariantPtr v = child(tuple, i);
    gsize length = 0;
    const gchar *text = g_variant_get_string(v.get(), &length);
    out.assign(text, length);
}

guint32 uint32_at(GVariant *tuple, gsize i)
{
    return g_variant_get_uint32(child(tuple, i).get());
}

} // namespace

bool cycle_from_variant(GVariant *nodes, uint64_t arrival_ms, Cycle &out)
{
    out.timestamp_ms = arrival_ms;
    if (!g_variant_is_of_type(nodes, G_VARIANT_TYPE("a(usuuv)"))) {
        out.devices.clear();
        return false;
    }
    const gsize n = g_variant_n_children(nodes);
    // Devices and nodes already in `out` are overwritten, not rebuilt.
    out.devices.resize(n);
    for (gsize i = 0; i < n; ++i) {
        VariantPtr dev = child(nodes, i);
        DeviceReading &d = out.devices[i];
        d.dev_id = uint32_at(dev.get(), 0);
        assign_string_at(dev.get(), 1, d.dev_name);
        d.dev_mfg = uint32_at(dev.get(), 2);
        d.dev_type = uint32_at(dev.get(), 3);
        VariantPtr boxed(g_variant_get_variant(child(dev.get(), 4).get()));
        if (!g_variant_is_of_type(boxed.get(), G_VARIANT_TYPE("a(ssus)"))) {
            out.devices.clear();
            return false;
        }
        const gsize count = g_variant_n_children(boxed.get());
        d.nodes.resize(count);
        for (gsize k = 0; k < count; ++k) {
            VariantPtr node = child(boxed.get(), k);
            NodeReading &r = d.nodes[k];
            assign_string_at(node.get(), 0, r.name);
            assign_string_at(node.get(), 1, r.addr);
            r.data_type = uint32_at(node.get(), 2);
            assign_string_at(node.get(), 3, r.value);
        }
    }
    return true;
}

std::unique_ptr<BusSide> BusSide::open(const std::string &address, Events events, std::string &error)
{
    std::unique_ptr<BusSide> self(new BusSide());
    self->events_ = std::move(events);
    GError *raw = nullptr;
    if (address.empty()) {
        self->conn_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &raw);
    } else {
        self->conn_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &raw);
    }
    if (self->conn_ == nullptr) {
        std::unique_ptr<GError, ErrorFree> e(raw);
        error = std::string("cannot reach the bus: ") + e->message;
        return nullptr;
    }
    // A closed bus must not end the process: we say so and stop cleanly.
    g_dbus_connection_set_exit_on_close(self->conn_, FALSE);
    GatewayDeviceService *proxy = gateway_device_service_proxy_new_sync(
        self->conn_,
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                     G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START),
        BUS_NAME, OBJECT_PATH, nullptr, &raw);
    if (proxy == nullptr) {
        std::unique_ptr<GError, ErrorFree> e(raw);
        error = std::string("cannot watch device-service: ") + e->message;
        return nullptr;
    }
    self->proxy_ = G_OBJECT(proxy);
    self->nodes_handler_ =
        g_signal_connect(self->proxy_, "nodes", G_CALLBACK(&BusSide::on_nodes), self.get());
    self->closed_handler_ =
        g_signal_connect(self->conn_, "closed", G_CALLBACK(&BusSide::on_closed), self.get());
    self->watch_id_ = g_bus_watch_name_on_connection(self->conn_, BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                     &BusSide::on_appeared, &BusSide::on_vanished,
                                                     self.get(), nullptr);
    return self;
}

BusSide::~BusSide()
{
    if (watch_id_ != 0)
        g_bus_unwatch_name(watch_id_);
    if (proxy_ != nullptr) {
        g_signal_handler_disconnect(proxy_, nodes_handler_);
        g_object_unref(proxy_);
    }
    if (conn_ != nullptr) {
        if (closed_handler_ != 0)
            g_signal_handler_disconnect(conn_, closed_handler_);
        g_object_unref(conn_);
    }
}

void BusSide::on_nodes(GObject *, GVariant *nodes, gpointer data)
{
    auto *self = static_cast<BusSide *>(data);
    // The moment of arrival stamps every value of the cycle.
    const auto now_ms = static_cast<uint64_t>(g_get_real_time() / 1000);
    guarded("a cycle was lost", [&] {
        Cycle &cycle = self->cycle_;
        if (!cycle_from_variant(nodes, now_ms, cycle)) {
            g_warning("a nodes signal of an unexpected shape %s: ignored", g_variant_get_type_string(nodes));
            return;
        }
        if (self->events_.cycle)
            self->events_.cycle(cycle);
    });
}

void BusSide::on_appeared(GDBusConnection *, const gchar *, const gchar *, gpointer data)
{
    auto *self = static_cast<BusSide *>(data);
    if (self->known_ && self->present_)
        return;
    self->known_ = self->present_ = true;
    g_message("device-service is on the bus");
    if (self->events_.daemon)
        guarded("device-service appeared", [&] { self->events_.daemon(true); });
}

void BusSide::on_vanished(GDBusConnection *, const gchar *, gpointer data)
{
    auto *self = static_cast<BusSide *>(data);
    const bool was = self->present_;
    const bool first = !self->known_;
    self->known_ = true;
    self->present_ = false;
    if (first) {
        g_message("device-service is not on the bus yet; waiting");
        return;
    }
    if (was) {
        g_message("device-service left the bus");
        if (self->events_.daemon)
            guarded("device-service left", [&] { self->events_.daemon(false); });
    }
}

void BusSide::on_closed(GDBusConnection *, gboolean, GError *, gpointer data)
{
    auto *self = static_cast<BusSide *>(data);
    g_warning("the bus connection closed");
    if (self->events_.closed)
        guarded("the bus closed", [&] { self->events_.closed(); });
}

} // namespace bridge
