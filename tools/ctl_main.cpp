// device-service-ctl: configures device-service over the session bus and
// shows what it reads. Everything a command would send is checked first;
// a mistake sends nothing.
#include <gio/gio.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/handles.h"
#include "ctl_config.h"
#include "ctl_monitor.h"
#include "idl/common/device_idl.h"

namespace {

constexpr char BUS_NAME[] = "com.fernwick.DeviceService";
constexpr char OBJECT_PATH[] = "/com/fernwick/DeviceService";

// A bulk synchronisation of tens of thousands of nodes is one database
// transaction in the daemon; give it time rather than give up on it.
constexpr int CALL_TIMEOUT_MS = 5 * 60 * 1000;

enum Exit : int {
    EXIT_DONE = 0,
    EXIT_INPUT = 1,   // bad command line or file: nothing was sent
    EXIT_REFUSED = 2, // a method answered a result code other than 0
    EXIT_BUS = 3,     // the bus or the service could not be reached, or a call failed
};

const char USAGE[] = R"(usage: device-service-ctl [--address BUS_ADDRESS] COMMAND [OPTIONS]

Talks to device-service on the session bus (DBUS_SESSION_BUS_ADDRESS), or on
the bus at BUS_ADDRESS.

  apply FILE            send the whole configuration in FILE (JSON): serial
                        devices, Ethernet devices, then nodes
                        (SerialDeviceSyncMulti, EthernetDeviceSyncMulti,
                        nodeTableSyncMulti)
  monitor [--json] [--count N]
                        one table per reading cycle (--json: one JSON object
                        per line); stops after N cycles
  check FILE            check FILE and say what it holds; sends nothing

  serial-add | serial-modify       (SerialDeviceAdd | SerialDeviceMdf)
      --dev-id N --dev-name TEXT --model MODEL --serial-number 1|2
      [--station-num N] [--serial-type N] [--baudrate N] [--data-bit 5-8]
      [--stop-bit 1|2] [--parity-bit none|even|odd]
  ethernet-add | ethernet-modify   (EthernetDeviceAdd | EthernetDeviceMdf)
      --dev-id N --dev-name TEXT --model MODEL --ip-addr A.B.C.D
      [--port N] [--rack N] [--slot N]
  serial-delete | ethernet-delete --dev-id N   (SerialDeviceDel | EthernetDeviceDel)
  serial-sync FILE | ethernet-sync FILE        (SerialDeviceSyncMulti | EthernetDeviceSyncMulti)
  node-add FILE | node-sync FILE               (nodeTableAddMulti | nodeTableSyncMulti)
                        send only that part of FILE
  node-modify           (nodeTableMdfOne)
      --dev-id N --dev-name TEXT --node-id N --node-name TEXT --node-addr TEXT
      --node-data-type TYPE [--node-unit TEXT] [--node-permission N]
      [--node-report-enable yes|no] [--node-alarm-enable yes|no]
      [--node-alarm-bit N] [--node-alarm-condition-major N]
      [--node-alarm-value-major N] [--node-alarm-operation-type N]
      [--node-alarm-condition-minor N] [--node-alarm-value-minor N]
      [--node-alarm-content TEXT] [--node-description TEXT]
  node-delete NODE_ID...                        (nodeTableDelMulti)

MODEL: FX-3U, FX-1N, FX-5U, QnA_3E, Q-serial, S7-200, S7-200 Smart, S7-1200,
S7-1500, S7-300, S7-400, DVP-32EC, or the model number.
TYPE: Bit, U8, S8, U16, S16, U32, S32, BCD16, BCD32, Float, HEX16, HEX32,
BIN16, BIN32, String, or the type number.

Exit status: 0 done; 1 bad input, nothing sent; 2 a method answered a result
other than 0; 3 the bus or device-service could not be reached.
)";

int input_error(const std::string &msg)
{
    fprintf(stderr, "device-service-ctl: %s\n", msg.c_str());
    return EXIT_INPUT;
}

// One method call, made once everything has been checked.
struct Call {
    const char *method;
    std::string what; // what is sent, for the report
    std::function<gboolean(GatewayDeviceService *, gint *, GError **)> run;
};

struct Parsed {
    ctl::Options opts;
    std::vector<std::string> positional;
};

// "--name value" and "--name=value"; names in `flags` take no value.
bool parse_args(const std::vector<std::string> &args, const std::set<std::string> &flags,
                Parsed &out, std::string &err)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a.size() < 3 || a.compare(0, 2, "--") != 0) {
            out.positional.push_back(a);
            continue;
        }
        std::string name = a.substr(2), value;
        const size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.resize(eq);
        } else if (flags.count(name) != 0) {
            value = "yes";
        } else if (i + 1 < args.size()) {
            value = args[++i];
        } else {
            err = "--" + name + " needs a value";
            return false;
        }
        if (!out.opts.emplace(name, value).second) {
            err = "--" + name + " is given twice";
            return false;
        }
    }
    return true;
}

bool load_config(const std::string &path, ctl::Config &cfg, std::string &err)
{
    gchar_owner text;
    gsize len = 0;
    gerror_owner error;
    if (!g_file_get_contents(path.c_str(), out_ptr(text), &len, out_ptr(error))) {
        err = error->message;
        return false;
    }
    return ctl::parse_config(path, std::string_view(text.get(), len), cfg, err);
}

std::string counted(size_t n, const char *what)
{
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// Turns a command line into the calls it makes, or says what is wrong.
bool plan(const std::string &cmd, const Parsed &p, std::vector<Call> &calls, std::string &err)
{
    const auto &o = p.opts;
    auto no_positional = [&] {
        if (p.positional.empty())
            return true;
        err = cmd + ": unexpected '" + p.positional[0] + "'";
        return false;
    };
    if (cmd == "serial-add" || cmd == "serial-modify") {
        ctl::SerialDevice d;
        if (!no_positional() || !ctl::serial_from_options(o, d, err))
            return false;
        const bool add = cmd == "serial-add";
        calls.push_back({add ? "SerialDeviceAdd" : "SerialDeviceMdf", "",
                         [d, add](GatewayDeviceService *px, gint *code, GError **e) {
                             auto fn = add ? gateway_device_service_call_serial_device_add_sync
                                           : gateway_device_service_call_serial_device_mdf_sync;
                             return fn(px, d.dev_id, 0, d.dev_mfg, d.dev_type, d.dev_name.c_str(),
                                       d.station_num, d.serial_type, d.serial_number, d.baudrate,
                                       d.data_bit, d.stop_bit, d.parity_bit, code, nullptr, e);
                         }});
        return true;
    }
    if (cmd == "ethernet-add" || cmd == "ethernet-modify") {
        ctl::EthernetDevice d;
        if (!no_positional() || !ctl::ethernet_from_options(o, d, err))
            return false;
        const bool add = cmd == "ethernet-add";
        calls.push_back({add ? "EthernetDeviceAdd" : "EthernetDeviceMdf", "",
                         [d, add](GatewayDeviceService *px, gint *code, GError **e) {
                             auto fn = add ? gateway_device_service_call_ethernet_device_add_sync
                                           : gateway_device_service_call_ethernet_device_mdf_sync;
                             return fn(px, d.dev_id, 1, d.dev_mfg, d.dev_type, d.dev_name.c_str(),
                                       d.ip_addr.c_str(), d.port, d.rack, d.slot, code, nullptr, e);
                         }});
        return true;
    }
    if (cmd == "serial-delete" || cmd == "ethernet-delete") {
        if (!no_positional())
            return false;
        auto it = o.find("dev-id");
        for (const auto &[name, value] : o) {
            if (name != "dev-id") {
                err = "--" + name + ": unknown option";
                return false;
            }
        }
        const auto id = it != o.end() ? ctl::parse_u32(it->second) : std::nullopt;
        if (!id) {
            err = it == o.end() ? "--dev-id: missing field" : "--dev-id: expected a whole number";
            return false;
        }
        // Only dev_id is looked at by the daemon.
        if (cmd == "serial-delete")
            calls.push_back({"SerialDeviceDel", "", [id](GatewayDeviceService *px, gint *code, GError **e) {
                                 return gateway_device_service_call_serial_device_del_sync(
                                     px, *id, 0, 0, 0, "", code, nullptr, e);
                             }});
        else
            calls.push_back({"EthernetDeviceDel", "", [id](GatewayDeviceService *px, gint *code, GError **e) {
                                 return gateway_device_service_call_ethernet_device_del_sync(
                                     px, *id, 1, 0, 0, "", code, nullptr, e);
                             }});
        return true;
    }
    if (cmd == "node-modify") {
        ctl::Node n;
        if (!no_positional() || !ctl::node_from_options(o, n, err))
            return false;
        calls.push_back({"nodeTableMdfOne", "", [n](GatewayDeviceService *px, gint *code, GError **e) {
                             return gateway_device_service_call_node_table_mdf_one_sync(
                                 px, n.dev_name.c_str(), n.dev_id, n.node_id, n.node_name.c_str(),
                                 n.node_addr.c_str(), n.node_data_type, n.node_unit.c_str(),
                                 n.node_permission, n.node_report_enable, n.node_alarm_enable,
                                 n.node_alarm_bit, n.node_alarm_condition_major,
                                 n.node_alarm_value_major, n.node_alarm_operation_type,
                                 n.node_alarm_condition_minor, n.node_alarm_value_minor,
                                 n.node_alarm_content.c_str(), n.node_description.c_str(), code,
                                 nullptr, e);
                         }});
        return true;
    }
    if (cmd == "node-delete") {
        if (!o.empty()) {
            err = "--" + o.begin()->first + ": unknown option";
            return false;
        }
        if (p.positional.empty()) {
            err = "node-delete: give the node_id of each node to delete";
            return false;
        }
        std::vector<uint32_t> ids;
        for (const auto &a : p.positional) {
            const auto id = ctl::parse_u32(a);
            if (!id) {
                err = "node-delete: '" + a + "' is not a node_id";
                return false;
            }
            ids.push_back(*id);
        }
        calls.push_back({"nodeTableDelMulti", counted(ids.size(), "node"),
                         [ids](GatewayDeviceService *px, gint *code, GError **e) {
                             gvariant_builder b(G_VARIANT_TYPE("a(u)"));
                             for (uint32_t id : ids)
                                 g_variant_builder_add(b.get(), "(u)", id);
                             return gateway_device_service_call_node_table_del_multi_sync(
                                 px, b.end(), code, nullptr, e);
                         }});
        return true;
    }

    // The commands that read a configuration file.
    if (!o.empty()) {
        err = "--" + o.begin()->first + ": unknown option";
        return false;
    }
    if (p.positional.size() != 1) {
        err = cmd + " takes one FILE";
        return false;
    }
    auto cfg = std::make_shared<ctl::Config>();
    if (!load_config(p.positional[0], *cfg, err))
        return false;
    const Call serial{"SerialDeviceSyncMulti", counted(cfg->serial.size(), "serial device"),
                      [cfg](GatewayDeviceService *px, gint *code, GError **e) {
                          return gateway_device_service_call_serial_device_sync_multi_sync(
                              px, ctl::serial_array(cfg->serial), code, nullptr, e);
                      }};
    const Call ethernet{"EthernetDeviceSyncMulti",
                        counted(cfg->ethernet.size(), "Ethernet device"),
                        [cfg](GatewayDeviceService *px, gint *code, GError **e) {
                            return gateway_device_service_call_ethernet_device_sync_multi_sync(
                                px, ctl::ethernet_array(cfg->ethernet), code, nullptr, e);
                        }};
    auto nodes = [&](bool add) {
        return Call{add ? "nodeTableAddMulti" : "nodeTableSyncMulti",
                    counted(cfg->nodes.size(), "node"),
                    [cfg, add](GatewayDeviceService *px, gint *code, GError **e) {
                        auto fn = add ? gateway_device_service_call_node_table_add_multi_sync
                                      : gateway_device_service_call_node_table_sync_multi_sync;
                        return fn(px, ctl::node_array(cfg->nodes), code, nullptr, e);
                    }};
    };
    if (cmd == "apply") {
        // Devices before nodes: a device synchronisation drops the nodes of
        // the devices it replaces.
        calls = {serial, ethernet, nodes(false)};
    } else if (cmd == "serial-sync") {
        calls = {serial};
    } else if (cmd == "ethernet-sync") {
        calls = {ethernet};
    } else if (cmd == "node-add" || cmd == "node-sync") {
        calls = {nodes(cmd == "node-add")};
    } else if (cmd == "check") {
        printf("%s: %s, %s, %s\n", p.positional[0].c_str(), serial.what.c_str(),
               ethernet.what.c_str(), nodes(false).what.c_str());
    } else {
        err = "unknown command '" + cmd + "' (device-service-ctl --help lists them)";
        return false;
    }
    return true;
}

gobject_owner<GDBusConnection> connect_bus(const std::string &address, std::string &err)
{
    gerror_owner error;
    gobject_owner<GDBusConnection> c;
    if (address.empty())
        c.reset(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, out_ptr(error)));
    else
        c.reset(g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, out_ptr(error)));
    if (c == nullptr)
        err = std::string("cannot reach the session bus") +
              (address.empty() ? "" : " at " + address) + ": " + error->message;
    return c;
}

int run_calls(GatewayDeviceService *proxy, const std::vector<Call> &calls)
{
    int rc = EXIT_DONE;
    for (const auto &c : calls) {
        const std::string label =
            std::string(c.method) + (c.what.empty() ? "" : " (" + c.what + ")");
        gint code = 0;
        gerror_owner error;
        const bool answered = c.run(proxy, &code, out_ptr(error)) != FALSE;
        if (!answered) {
            std::string why = "no answer";
            if (error && g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN)) {
                why = std::string("device-service is not running on this bus (nobody owns ") +
                      BUS_NAME + ")";
            } else if (error) {
                g_dbus_error_strip_remote_error(error.get());
                why = error->message;
            }
            fprintf(stderr, "device-service-ctl: %s failed: %s\n", label.c_str(), why.c_str());
            return EXIT_BUS; // later calls would meet the same fate
        }
        const std::string words = ctl::result_text(c.method, code);
        if (code == 0) {
            printf("%s: %d %s\n", label.c_str(), code, words.c_str());
        } else {
            fprintf(stderr, "device-service-ctl: %s: %d %s\n", label.c_str(), code, words.c_str());
            rc = EXIT_REFUSED;
        }
        fflush(stdout);
    }
    return rc;
}

struct Monitor {
    bool json = false;
    unsigned wanted = 0; // 0: until interrupted
    unsigned seen = 0;
    int rc = EXIT_DONE;
    GMainLoop *loop = nullptr;
};

void on_nodes(GatewayDeviceService *, GVariant *cycle, gpointer data)
{
    auto *m = static_cast<Monitor *>(data);
    try {
        std::vector<ctl::DeviceValues> devices;
        if (!ctl::decode_cycle(cycle, devices)) {
            fprintf(stderr, "device-service-ctl: a nodes signal of an unexpected shape %s\n",
                    g_variant_get_type_string(cycle));
            return;
        }
        const c_owner<GDateTime, g_date_time_unref> now(g_date_time_new_now_local());
        ++m->seen;
        const std::string text = m->json ? ctl::cycle_json(devices, m->seen, now.get()) + "\n"
                                         : ctl::cycle_table(devices, m->seen, now.get()) + "\n";
        fputs(text.c_str(), stdout);
        fflush(stdout);
    } catch (...) {
        m->rc = EXIT_BUS;
        g_main_loop_quit(m->loop);
        return;
    }
    if (m->wanted != 0 && m->seen >= m->wanted)
        g_main_loop_quit(m->loop);
}

void on_owner(GObject *proxy, GParamSpec *, gpointer)
{
    const gchar_owner owner(g_dbus_proxy_get_name_owner(G_DBUS_PROXY(proxy)));
    fprintf(stderr, owner ? "device-service-ctl: device-service is on the bus\n"
                          : "device-service-ctl: device-service left the bus; waiting\n");
}

void on_closed(GDBusConnection *, gboolean, GError *, gpointer data)
{
    auto *m = static_cast<Monitor *>(data);
    fprintf(stderr, "device-service-ctl: the bus connection closed\n");
    m->rc = EXIT_BUS;
    g_main_loop_quit(m->loop);
}

int monitor(GDBusConnection *conn, GatewayDeviceService *proxy, Monitor &m)
{
    const c_owner<GMainLoop, g_main_loop_unref> loop(g_main_loop_new(nullptr, FALSE));
    m.loop = loop.get();
    g_signal_connect(proxy, "nodes", G_CALLBACK(on_nodes), &m);
    g_signal_connect(proxy, "notify::g-name-owner", G_CALLBACK(on_owner), nullptr);
    g_signal_connect(conn, "closed", G_CALLBACK(on_closed), &m);
    if (!gchar_owner(g_dbus_proxy_get_name_owner(G_DBUS_PROXY(proxy))))
        fprintf(stderr, "device-service-ctl: device-service is not on the bus yet; waiting\n");
    g_main_loop_run(m.loop);
    g_signal_handlers_disconnect_by_data(conn, &m);
    g_signal_handlers_disconnect_by_data(proxy, &m);
    return m.rc;
}

int run(std::vector<std::string> args)
{
    std::string address;
    while (!args.empty() && args[0].rfind("--", 0) == 0) {
        if (args[0] == "--help") {
            fputs(USAGE, stdout);
            return EXIT_DONE;
        }
        if (args[0].rfind("--address=", 0) == 0) {
            address = args[0].substr(10);
            args.erase(args.begin());
        } else if (args[0] == "--address" && args.size() >= 2) {
            address = args[1];
            args.erase(args.begin(), args.begin() + 2);
        } else {
            return input_error(args[0] + ": unknown option (device-service-ctl --help)");
        }
    }
    if (args.empty() || args[0] == "-h" || args[0] == "help") {
        fputs(USAGE, args.empty() ? stderr : stdout);
        return args.empty() ? EXIT_INPUT : EXIT_DONE;
    }
    const std::string cmd = args[0];
    args.erase(args.begin());
    Parsed parsed;
    std::string err;
    if (!parse_args(args, cmd == "monitor" ? std::set<std::string>{"json"} : std::set<std::string>{},
                    parsed, err))
        return input_error(err);

    Monitor mon;
    std::vector<Call> calls;
    if (cmd == "monitor") {
        mon.json = parsed.opts.count("json") != 0;
        for (const auto &[name, value] : parsed.opts) {
            if (name == "count") {
                const auto n = ctl::parse_u32(value);
                if (!n || *n == 0)
                    return input_error("--count: expected a whole number of cycles from 1");
                mon.wanted = *n;
            } else if (name != "json") {
                return input_error("--" + name + ": unknown option");
            }
        }
        if (!parsed.positional.empty())
            return input_error("monitor: unexpected '" + parsed.positional[0] + "'");
    } else if (!plan(cmd, parsed, calls, err)) {
        return input_error(err);
    } else if (cmd == "check") {
        return EXIT_DONE;
    }

    const gobject_owner<GDBusConnection> conn = connect_bus(address, err);
    if (!conn) {
        fprintf(stderr, "device-service-ctl: %s\n", err.c_str());
        return EXIT_BUS;
    }
    gerror_owner error;
    gobject_owner<GatewayDeviceService> proxy(
        gateway_device_service_proxy_new_sync(conn.get(), G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES,
                                              BUS_NAME, OBJECT_PATH, nullptr, out_ptr(error)));
    if (!proxy) {
        fprintf(stderr, "device-service-ctl: %s\n", error->message);
        return EXIT_BUS;
    }
    g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(proxy.get()), CALL_TIMEOUT_MS);
    return cmd == "monitor" ? monitor(conn.get(), proxy.get(), mon) : run_calls(proxy.get(), calls);
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception &e) {
        fprintf(stderr, "device-service-ctl: %s\n", e.what());
        return EXIT_BUS;
    }
}
