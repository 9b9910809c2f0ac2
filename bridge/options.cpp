#include "options.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <optional>
#include <vector>

namespace bridge {

namespace {

struct GFreeDeleter {
    void operator()(void *p) const { g_free(p); }
};
using CharPtr = std::unique_ptr<gchar, GFreeDeleter>;

struct OptionContextFree {
    void operator()(GOptionContext *c) const { g_option_context_free(c); }
};
struct KeyFileFree {
    void operator()(GKeyFile *k) const { g_key_file_free(k); }
};
struct ErrorFree {
    void operator()(GError *e) const { g_error_free(e); }
};
struct StrvFree {
    void operator()(gchar **v) const { g_strfreev(v); }
};

// Every option that takes a value, by the name the command line and the key
// file share. GOption writes the command line's text into `cli`.
struct Setting {
    const char *name;
    const char *arg;
    const char *help;
    gchar *cli = nullptr;
    std::string value;
    bool given = false;
};

bool read_first_line(const std::string &path, std::string &line, std::string &error)
{
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}

bool readable(const std::string &option, const std::string &path, std::string &error)
{
    std::ifstream in(path);
    if (in)
        return true;
    error = "--" + option + ": cannot read " + path;
    return false;
}

// Sparkplug ids and MQTT topic levels: '+' and '#' are wildcards, '/'
// separates levels.
bool valid_id(const std::string &what, const std::string &id, bool slash_allowed, std::string &error)
{
    if (id.empty()) {
        error = "--" + what + " must not be empty";
        return false;
    }
    const char *bad = slash_allowed ? "+#" : "+/#";
    if (id.find_first_of(bad) != std::string::npos) {
        error = "--" + what + " '" + id + "' must not hold " +
                (slash_allowed ? "'+' or '#'" : "'+', '/' or '#'");
        return false;
    }
    if (!g_utf8_validate(id.c_str(), static_cast<gssize>(id.size()), nullptr)) {
        error = "--" + what + " must be UTF-8";
        return false;
    }
    return true;
}

bool parse_broker(const std::string &text, Options &out, std::string &error)
{
    const std::string bad = "--broker '" + text + "': expected HOST[:PORT]";
    std::string host = text;
    std::optional<std::string> port;
    const size_t colons = static_cast<size_t>(std::count(text.begin(), text.end(), ':'));
    if (!text.empty() && text[0] == '[') { // [::1]:1883
        const size_t close = text.find(']');
        if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':')) {
            error = bad;
            return false;
        }
        host = text.substr(1, close - 1);
        if (close + 1 < text.size())
            port = text.substr(close + 2);
    } else if (colons == 1) {
        host = text.substr(0, text.find(':'));
        port = text.substr(text.find(':') + 1);
    } // more colons: a bare IPv6 address on the default port
    if (host.empty()) {
        error = bad;
        return false;
    }
    out.broker_host = host;
    if (port) {
        guint64 n = 0;
        if (!g_ascii_string_to_unsigned(port->c_str(), 10, 1, 65535, &n, nullptr)) {
            error = "--broker '" + text + "': the port must be 1-65535";
            return false;
        }
        out.broker_port = static_cast<uint16_t>(n);
    }
    return true;
}

bool load_key_file(const std::string &path, std::vector<Setting> &settings, std::string &error)
{
    std::unique_ptr<GKeyFile, KeyFileFree> kf(g_key_file_new());
    GError *raw = nullptr;
    if (!g_key_file_load_from_file(kf.get(), path.c_str(), G_KEY_FILE_NONE, &raw)) {
        std::unique_ptr<GError, ErrorFree> e(raw);
        error = "--config " + path + ": " + e->message;
        return false;
    }
    if (!g_key_file_has_group(kf.get(), "bridge")) {
        error = "--config " + path + ": no [bridge] group";
        return false;
    }
    std::unique_ptr<gchar *, StrvFree> keys(g_key_file_get_keys(kf.get(), "bridge", nullptr, nullptr));
    for (gchar **k = keys.get(); k != nullptr && *k != nullptr; ++k) {
        Setting *s = nullptr;
        for (auto &candidate : settings)
            if (std::string(candidate.name) == *k)
                s = &candidate;
        if (s == nullptr) {
            error = "--config " + path + ": unknown key '" + *k + "' in [bridge]";
            return false;
        }
        CharPtr v(g_key_file_get_string(kf.get(), "bridge", *k, &raw));
        if (!v) {
            std::unique_ptr<GError, ErrorFree> e(raw);
            error = "--config " + path + ": " + e->message;
            return false;
        }
        if (!s->given) {
            s->value = v.get();
            s->given = true;
        }
    }
    return true;
}

} // namespace

std::string default_state_dir()
{
    return std::string(g_get_user_state_dir()) + "/device-service-bridge";
}

bool parse_options(int argc, char **argv, Options &out, std::string &error)
{
    out = Options{};
    std::vector<Setting> settings = {
        {"broker", "HOST[:PORT]", "MQTT broker (default 127.0.0.1:1883)", nullptr, {}, false},
        {"client-id", "ID", "MQTT client id (default device-service-bridge-<edge node>)", nullptr, {}, false},
        {"username", "NAME", "MQTT user name", nullptr, {}, false},
        {"password-file", "FILE", "file whose first line is the MQTT password", nullptr, {}, false},
        {"tls-ca", "FILE", "CA certificates: connect with TLS", nullptr, {}, false},
        {"tls-cert", "FILE", "client certificate (with --tls-key)", nullptr, {}, false},
        {"tls-key", "FILE", "client key (with --tls-cert)", nullptr, {}, false},
        {"mode", "sparkplug|json", "what to publish (default sparkplug)", nullptr, {}, false},
        {"group", "ID", "Sparkplug group id (default device-service)", nullptr, {}, false},
        {"edge-node", "ID", "Sparkplug edge node id (default the host name)", nullptr, {}, false},
        {"device-id", "name|id", "device ids from dev_name (default) or dev_id", nullptr, {}, false},
        {"topic-prefix", "PREFIX", "JSON mode's topic prefix (default device-service)", nullptr, {}, false},
        {"state-dir", "DIR", "where the session counter and the store are kept", nullptr, {}, false},
        {"store-max-mb", "N", "cap of the store of unsent messages in MiB (default 64; 0: none)",
         nullptr, {}, false},
        {"primary-host", "ID", "Sparkplug primary host id: publish only while it is online",
         nullptr, {}, false},
        {"bus-address", "ADDRESS", "D-Bus address (default the session bus)", nullptr, {}, false},
    };
    gchar *config = nullptr;
    gboolean watch = FALSE;
    std::vector<GOptionEntry> entries;
    for (auto &s : settings)
        entries.push_back({s.name, 0, 0, G_OPTION_ARG_STRING, &s.cli, s.help, s.arg});
    entries.push_back({"config", 0, 0, G_OPTION_ARG_FILENAME, &config,
                       "key file with the same keys in its [bridge] group", "FILE"});
    entries.push_back({"watch", 0, 0, G_OPTION_ARG_NONE, &watch,
                       "print each message that reaches the broker, decoded", nullptr});
    entries.push_back(GOptionEntry{});

    std::unique_ptr<GOptionContext, OptionContextFree> ctx(
        g_option_context_new("- publishes device-service's readings to an MQTT broker"));
    g_option_context_add_main_entries(ctx.get(), entries.data(), nullptr);
    // A copy: parsing removes what it took.
    std::unique_ptr<gchar *, StrvFree> args(g_new0(gchar *, static_cast<gsize>(argc) + 1));
    for (int i = 0; i < argc; ++i)
        args.get()[i] = g_strdup(argv[i]);
    gchar **argv_copy = args.get();
    GError *raw = nullptr;
    const bool parsed = g_option_context_parse_strv(ctx.get(), &argv_copy, &raw);
    args.release();
    args.reset(argv_copy);
    CharPtr config_owner(config);
    for (auto &s : settings) {
        if (s.cli != nullptr) {
            s.value = s.cli;
            s.given = true;
            g_free(s.cli);
            s.cli = nullptr;
        }
    }
    if (!parsed) {
        std::unique_ptr<GError, ErrorFree> e(raw);
        error = e->message;
        return false;
    }
    if (argv_copy[0] != nullptr && argv_copy[1] != nullptr) {
        error = std::string("unexpected '") + argv_copy[1] + "'";
        return false;
    }
    if (config != nullptr && !load_key_file(config, settings, error))
        return false;

    auto get = [&](const char *name) -> const Setting & {
        for (const auto &s : settings)
            if (std::string(s.name) == name)
                return s;
        return settings.front(); // not reached: every name is in the table
    };
    out.watch = watch != FALSE;
    if (get("broker").given && !parse_broker(get("broker").value, out, error))
        return false;
    if (const auto &m = get("mode"); m.given) {
        if (m.value == "sparkplug")
            out.mode = Mode::Sparkplug;
        else if (m.value == "json")
            out.mode = Mode::Json;
        else {
            error = "--mode '" + m.value + "': expected sparkplug or json";
            return false;
        }
    }
    if (const auto &d = get("device-id"); d.given) {
        if (d.value == "name")
            out.node.device_id = DeviceIdMode::Name;
        else if (d.value == "id")
            out.node.device_id = DeviceIdMode::Id;
        else {
            error = "--device-id '" + d.value + "': expected name or id";
            return false;
        }
    }
    out.node.group = get("group").given ? get("group").value : "device-service";
    out.node.edge_node = get("edge-node").given ? get("edge-node").value : g_get_host_name();
    if (get("topic-prefix").given)
        out.topic_prefix = get("topic-prefix").value;
    if (!valid_id("group", out.node.group, false, error) ||
        !valid_id("edge-node", out.node.edge_node, false, error) ||
        !valid_id("topic-prefix", out.topic_prefix, true, error))
        return false;

    if (get("client-id").given)
        out.client_id = get("client-id").value;
    else if (out.watch) // the bridge's own id would take its session away
        out.client_id = "device-service-bridge-watch-" + std::to_string(getpid());
    else
        out.client_id = "device-service-bridge-" + out.node.edge_node;
    if (out.client_id.empty()) {
        error = "--client-id must not be empty";
        return false;
    }
    out.username = get("username").value;
    if (const auto &p = get("password-file"); p.given) {
        if (out.username.empty()) {
            error = "--password-file needs --username";
            return false;
        }
        if (!read_first_line(p.value, out.password, error)) {
            error = "--password-file: " + error;
            return false;
        }
    }
    out.tls_ca = get("tls-ca").value;
    out.tls_cert = get("tls-cert").value;
    out.tls_key = get("tls-key").value;
    if (out.tls_cert.empty() != out.tls_key.empty()) {
        error = "--tls-cert and --tls-key go together";
        return false;
    }
    if (!out.tls_cert.empty() && out.tls_ca.empty()) {
        error = "--tls-cert needs --tls-ca";
        return false;
    }
    if ((!out.tls_ca.empty() && !readable("tls-ca", out.tls_ca, error)) ||
        (!out.tls_cert.empty() && !readable("tls-cert", out.tls_cert, error)) ||
        (!out.tls_key.empty() && !readable("tls-key", out.tls_key, error)))
        return false;
    out.state_dir = get("state-dir").given ? get("state-dir").value : default_state_dir();
    if (out.state_dir.empty()) {
        error = "--state-dir must not be empty";
        return false;
    }
    if (const auto &m = get("store-max-mb"); m.given) {
        gchar *end = nullptr;
        const double mb = g_ascii_strtod(m.value.c_str(), &end);
        // Up to 1 TiB: beyond it the figure is surely a mistake.
        if (m.value.empty() || end == nullptr || *end != '\0' || !(mb >= 0 && mb <= 1048576)) {
            error = "--store-max-mb '" + m.value + "': expected a number of MiB (0 for no store)";
            return false;
        }
        out.store_max_mb = mb;
    }
    if (const auto &h = get("primary-host"); h.given) {
        if (out.mode != Mode::Sparkplug) {
            error = "--primary-host is for Sparkplug mode";
            return false;
        }
        if (!valid_id("primary-host", h.value, false, error))
            return false;
        out.primary_host = h.value;
    }
    out.bus_address = get("bus-address").value;
    return true;
}

} // namespace bridge
