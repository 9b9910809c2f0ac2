// device-service-ctl: configure device-service and watch what it reads.
//
//   device-service-ctl [--address BUS] COMMAND ...
//     apply FILE                       serial devices, Ethernet devices, nodes from JSON
//     monitor [--json] [--count N]     one table (or JSON line) per reading cycle
//     serial-add|serial-modify --id N --name S --model M --port 1|2 [--station N]
//                [--baudrate N] [--data-bits N] [--stop-bits N] [--parity none|even|odd]
//     ethernet-add|ethernet-modify --id N --name S --model M --ip A --port N [--rack N] [--slot N]
//     serial-delete|ethernet-delete --id N
//     node-modify --id N --dev-id N --dev-name S --name S --address A --type T [--unit S]
//     node-delete ID...
//     serial-sync|ethernet-sync|node-add|node-sync FILE   that part of a JSON file
#include <gio/gio.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ctl_config.h"

namespace {

constexpr char NAME[] = "com.fernwick.DeviceService";
constexpr char PATH[] = "/com/fernwick/DeviceService";

int fail(const std::string &msg)
{
    fprintf(stderr, "device-service-ctl: %s\n", msg.c_str());
    return 1;
}

GDBusConnection *connect_bus(const std::string &address, std::string &err)
{
    GError *error = nullptr;
    GDBusConnection *c = nullptr;
    if (address.empty())
        c = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    else
        c = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
    if (c == nullptr) {
        err = std::string("cannot reach the session bus: ") + (error ? error->message : "");
        g_clear_error(&error);
    }
    return c;
}

// Calls one method; prints its result in words. 0 when it answered 0.
int call(GDBusConnection *c, const char *method, GVariant *params)
{
    GError *error = nullptr;
    GVariant *r = g_dbus_connection_call_sync(c, NAME, PATH, NAME, method, params,
                                              G_VARIANT_TYPE("(i)"), G_DBUS_CALL_FLAGS_NONE,
                                              600000, nullptr, &error);
    if (r == nullptr) {
        g_dbus_error_strip_remote_error(error);
        const int rc = fail(std::string(method) + " failed: " + error->message);
        g_clear_error(&error);
        return rc;
    }
    gint code = 0;
    g_variant_get(r, "(i)", &code);
    g_variant_unref(r);
    printf("%s: %d %s\n", method, code, ctl::result_text(code));
    return code == 0 ? 0 : 2;
}

using Options = std::map<std::string, std::string>;

bool parse_options(const std::vector<std::string> &args, size_t from, Options &opts,
                   std::vector<std::string> &rest, std::string &err)
{
    for (size_t i = from; i < args.size(); ++i) {
        if (args[i].rfind("--", 0) == 0 && args[i] != "--json") {
            if (i + 1 >= args.size()) {
                err = args[i] + " needs a value";
                return false;
            }
            opts[args[i].substr(2)] = args[i + 1];
            ++i;
        } else if (args[i] == "--json") {
            opts["json"] = "1";
        } else {
            rest.push_back(args[i]);
        }
    }
    return true;
}

bool need(const Options &o, const char *key, std::string &value, std::string &err)
{
    auto it = o.find(key);
    if (it == o.end()) {
        err = std::string("--") + key + " is required";
        return false;
    }
    value = it->second;
    return true;
}

bool number(const Options &o, const char *key, uint32_t &v, std::string &err,
            std::optional<uint32_t> def = {})
{
    auto it = o.find(key);
    if (it == o.end()) {
        if (def) {
            v = *def;
            return true;
        }
        err = std::string("--") + key + " is required";
        return false;
    }
    char *end = nullptr;
    v = static_cast<uint32_t>(strtoul(it->second.c_str(), &end, 10));
    if (it->second.empty() || *end != '\0') {
        err = std::string("--") + key + ": expected a number, not '" + it->second + "'";
        return false;
    }
    return true;
}

bool load_file(const std::string &path, ctl::Config &cfg, std::string &err)
{
    gchar *text = nullptr;
    gsize len = 0;
    GError *error = nullptr;
    if (!g_file_get_contents(path.c_str(), &text, &len, &error)) {
        err = error->message;
        g_clear_error(&error);
        return false;
    }
    const bool ok = ctl::parse_config(path, std::string(text, len), cfg, err);
    g_free(text);
    return ok;
}

struct MonitorState {
    bool json = false;
    long remaining = -1;
    GMainLoop *loop = nullptr;
};

void on_nodes(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
              GVariant *params, gpointer data)
{
    auto *st = static_cast<MonitorState *>(data);
    GVariant *cycle = g_variant_get_child_value(params, 0);
    GVariantIter devs;
    g_variant_iter_init(&devs, cycle);
    guint32 id, mfg, type;
    const gchar *dev_name;
    GVariant *v;
    std::string line = "[";
    if (!st->json)
        printf("%-8s %-24s %-24s %-12s %-8s %s\n", "dev_id", "device", "node", "address", "type",
               "value");
    bool first_dev = true;
    while (g_variant_iter_next(&devs, "(u&suu@v)", &id, &dev_name, &mfg, &type, &v)) {
        GVariant *arr = g_variant_get_variant(v);
        GVariantIter nodes;
        g_variant_iter_init(&nodes, arr);
        const gchar *name, *addr, *value;
        guint32 dtype;
        gchar *dev_json = g_strescape(dev_name, nullptr);
        line += std::string(first_dev ? "" : ",") + "{\"dev_id\":" + std::to_string(id) +
                ",\"device\":\"" + dev_json + "\",\"model\":\"" + ctl::model_name(type) +
                "\",\"nodes\":[";
        g_free(dev_json);
        first_dev = false;
        bool first_node = true;
        while (g_variant_iter_next(&nodes, "(&s&su&s)", &name, &addr, &dtype, &value)) {
            if (!st->json) {
                printf("%-8u %-24s %-24s %-12s %-8s %s\n", id, dev_name, name, addr,
                       ctl::data_type_name(dtype), value);
                continue;
            }
            gchar *n = g_strescape(name, nullptr), *a = g_strescape(addr, nullptr),
                  *val = g_strescape(value, nullptr);
            line += std::string(first_node ? "" : ",") + "{\"name\":\"" + n + "\",\"address\":\"" +
                    a + "\",\"type\":\"" + ctl::data_type_name(dtype) + "\",\"value\":\"" + val +
                    "\"}";
            g_free(n);
            g_free(a);
            g_free(val);
            first_node = false;
        }
        line += "]}";
        g_variant_unref(arr);
        g_variant_unref(v);
    }
    g_variant_unref(cycle);
    if (st->json)
        printf("%s]\n", line.c_str());
    else
        printf("\n");
    fflush(stdout);
    if (st->remaining > 0 && --st->remaining == 0)
        g_main_loop_quit(st->loop);
}

int monitor(GDBusConnection *c, const Options &o)
{
    MonitorState st;
    st.json = o.count("json") != 0;
    std::string err;
    uint32_t count = 0;
    if (!number(o, "count", count, err, 0u))
        return fail(err);
    st.remaining = count == 0 ? -1 : static_cast<long>(count);
    st.loop = g_main_loop_new(nullptr, FALSE);
    g_dbus_connection_signal_subscribe(c, nullptr, NAME, "nodes", PATH, nullptr,
                                       G_DBUS_SIGNAL_FLAGS_NONE, on_nodes, &st, nullptr);
    g_main_loop_run(st.loop);
    g_main_loop_unref(st.loop);
    return 0;
}

GVariant *device_args(const std::string &cmd, const Options &o, std::string &err)
{
    uint32_t id = 0;
    std::string name, model_text;
    if (!number(o, "id", id, err) || !need(o, "name", name, err) || !need(o, "model", model_text, err))
        return nullptr;
    auto model = ctl::find_model(model_text);
    if (!model) {
        err = "--model: unknown model '" + model_text + "'";
        return nullptr;
    }
    if (cmd.rfind("serial", 0) == 0) {
        uint32_t port, station, baud, data, stop, line_type;
        std::string parity = o.count("parity") ? o.at("parity") : "none";
        const uint32_t p = parity == "none" ? 0 : parity == "even" ? 1 : parity == "odd" ? 2 : 99;
        if (!number(o, "port", port, err) || !number(o, "station", station, err, 0u) ||
            !number(o, "baudrate", baud, err, 9600u) || !number(o, "data-bits", data, err, 8u) ||
            !number(o, "stop-bits", stop, err, 1u) || !number(o, "line-type", line_type, err, 0u))
            return nullptr;
        if (p == 99) {
            err = "--parity: expected none, even or odd";
            return nullptr;
        }
        return g_variant_new("(uuuusuuuuuuu)", id, 0u, model->mfg, model->type, name.c_str(),
                             station, line_type, port, baud, data, stop, p);
    }
    uint32_t port, rack, slot;
    std::string ip;
    if (!need(o, "ip", ip, err) || !number(o, "port", port, err) ||
        !number(o, "rack", rack, err, 0u) || !number(o, "slot", slot, err, 1u))
        return nullptr;
    return g_variant_new("(uuuussuuu)", id, 1u, model->mfg, model->type, name.c_str(), ip.c_str(),
                         port, rack, slot);
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string address;
    if (args.size() >= 2 && args[0] == "--address") {
        address = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty())
        return fail("usage: device-service-ctl [--address BUS] COMMAND ... (see the source header)");
    const std::string cmd = args[0];
    Options opts;
    std::vector<std::string> rest;
    std::string err;
    if (!parse_options(args, 1, opts, rest, err))
        return fail(err);

    // Everything a command sends is checked before the bus is touched.
    ctl::Config cfg;
    GVariant *params = nullptr;
    const char *method = nullptr;
    static const std::map<std::string, const char *> simple = {
        {"serial-add", "SerialDeviceAdd"},       {"serial-modify", "SerialDeviceMdf"},
        {"ethernet-add", "EthernetDeviceAdd"},   {"ethernet-modify", "EthernetDeviceMdf"},
        {"serial-delete", "SerialDeviceDel"},    {"ethernet-delete", "EthernetDeviceDel"},
        {"serial-sync", "SerialDeviceSyncMulti"}, {"ethernet-sync", "EthernetDeviceSyncMulti"},
        {"node-add", "nodeTableAddMulti"},       {"node-sync", "nodeTableSyncMulti"},
        {"node-delete", "nodeTableDelMulti"},    {"node-modify", "nodeTableMdfOne"}};
    if (cmd == "apply" || cmd == "serial-sync" || cmd == "ethernet-sync" || cmd == "node-add" ||
        cmd == "node-sync") {
        if (rest.size() != 1)
            return fail(cmd + " takes one FILE");
        if (!load_file(rest[0], cfg, err))
            return fail(err);
    } else if (cmd == "serial-add" || cmd == "serial-modify" || cmd == "ethernet-add" ||
               cmd == "ethernet-modify") {
        params = device_args(cmd, opts, err);
        if (params == nullptr)
            return fail(err);
    } else if (cmd == "serial-delete" || cmd == "ethernet-delete") {
        uint32_t id = 0;
        if (!number(opts, "id", id, err))
            return fail(err);
        params = g_variant_new("(uuuus)", id, cmd[0] == 's' ? 0u : 1u, 0u, 0u, "");
    } else if (cmd == "node-delete") {
        GVariantBuilder b;
        g_variant_builder_init(&b, G_VARIANT_TYPE("a(u)"));
        for (const auto &r : rest) {
            char *end = nullptr;
            const unsigned long id = strtoul(r.c_str(), &end, 10);
            if (r.empty() || *end != '\0') {
                g_variant_builder_clear(&b);
                return fail("node-delete: '" + r + "' is not a node id");
            }
            g_variant_builder_add(&b, "(u)", static_cast<guint32>(id));
        }
        params = g_variant_new("(@a(u))", g_variant_builder_end(&b));
    } else if (cmd == "node-modify") {
        uint32_t id, dev_id;
        std::string dev_name, name, addr, type_text;
        if (!number(opts, "id", id, err) || !number(opts, "dev-id", dev_id, err) ||
            !need(opts, "dev-name", dev_name, err) || !need(opts, "name", name, err) ||
            !need(opts, "address", addr, err) || !need(opts, "type", type_text, err))
            return fail(err);
        auto type = ctl::find_data_type(type_text);
        if (!type)
            return fail("--type: unknown data type '" + type_text + "'");
        const std::string unit = opts.count("unit") ? opts.at("unit") : "";
        params = g_variant_new("(suussusubbuuiuuiss)", dev_name.c_str(), dev_id, id, name.c_str(),
                               addr.c_str(), *type, unit.c_str(), 0u, FALSE, FALSE, 0u, 0u, 0, 0u,
                               0u, 0, "", "");
    } else if (cmd != "monitor") {
        return fail("unknown command '" + cmd + "'");
    }
    if (params != nullptr)
        g_variant_ref_sink(params);

    GDBusConnection *c = connect_bus(address, err);
    if (c == nullptr) {
        if (params != nullptr)
            g_variant_unref(params);
        return fail(err);
    }
    int rc = 0;
    if (cmd == "monitor") {
        rc = monitor(c, opts);
    } else if (cmd == "apply") {
        // Devices first: nodes are kept only under devices that exist.
        rc |= call(c, "SerialDeviceSyncMulti", g_variant_new("(@a(uuuusuuuuuuu))", cfg.serial));
        rc |= call(c, "EthernetDeviceSyncMulti", g_variant_new("(@a(uuuussuuu))", cfg.ethernet));
        rc |= call(c, "nodeTableSyncMulti", g_variant_new("(@a(suussusubbuuiuuiss))", cfg.nodes));
    } else if (cmd == "serial-sync") {
        rc = call(c, "SerialDeviceSyncMulti", g_variant_new("(@a(uuuusuuuuuuu))", cfg.serial));
    } else if (cmd == "ethernet-sync") {
        rc = call(c, "EthernetDeviceSyncMulti", g_variant_new("(@a(uuuussuuu))", cfg.ethernet));
    } else if (cmd == "node-add" || cmd == "node-sync") {
        rc = call(c, simple.at(cmd), g_variant_new("(@a(suussusubbuuiuuiss))", cfg.nodes));
    } else {
        method = simple.at(cmd);
        rc = call(c, method, params);
    }
    if (params != nullptr)
        g_variant_unref(params);
    g_object_unref(c);
    return rc;
}
