// The bridge's side of D-Bus: device-service's `nodes` signal, through the
// generated proxy, as one Cycle per signal; and whether the daemon is on the
// bus at all. Callbacks come on the thread's default main context.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>

#include "cycle.h"

namespace bridge {

// Reads the signal's argument a(usuuv), each variant holding a(ssus);
// false when it has another shape. What `out` holds is overwritten in place.
bool cycle_from_variant(GVariant *nodes, uint64_t arrival_ms, Cycle &out);

class BusSide {
public:
    struct Events {
        std::function<void(const Cycle &)> cycle;
        // The daemon's name got an owner (true) or lost it (false).
        std::function<void(bool present)> daemon;
        // The bus connection itself closed: nothing more will come.
        std::function<void()> closed;
    };

    // Connects to `address` (empty: the session bus). nullptr with `error`
    // when the bus cannot be reached.
    static std::unique_ptr<BusSide> open(const std::string &address, Events events,
                                         std::string &error);
    ~BusSide();
    BusSide(const BusSide &) = delete;
    BusSide &operator=(const BusSide &) = delete;

private:
    BusSide() = default;
    static void on_nodes(GObject *proxy, GVariant *nodes, gpointer self);
    static void on_appeared(GDBusConnection *, const gchar *, const gchar *, gpointer self);
    static void on_vanished(GDBusConnection *, const gchar *, gpointer self);
    static void on_closed(GDBusConnection *, gboolean, GError *, gpointer self);

    Events events_;
    Cycle cycle_;          // the latest signal's, its storage reused by the next
    GDBusConnection *conn_ = nullptr;
    GObject *proxy_ = nullptr;
    guint watch_id_ = 0;
    gulong nodes_handler_ = 0;
    gulong closed_handler_ = 0;
    bool present_ = false;
    bool known_ = false;
};

} // namespace bridge
