// device-service-bridge: every reading cycle of device-service, from its
// `nodes` signal on D-Bus, to an MQTT broker as a Sparkplug B edge node or
// as plain JSON. One thread, one GLib main loop: the bus, the broker's
// socket, the timers and the signals all come through it.
#include <glib-unix.h>
#include <glib.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>

#include "bus_side.h"
#include "edge_node.h"
#include "guarded.h"
#include "mqtt.h"
#include "options.h"
#include "publisher.h"
#include "sparkplug.h"
#include "store.h"

namespace {

using namespace bridge;

enum Exit : int {
    EXIT_DONE = 0,
    EXIT_OPTIONS = 1,  // bad option or file
    EXIT_REFUSED = 2,  // the broker refused the credentials or the client id
    EXIT_BUS = 3,      // D-Bus could not be reached or closed
    EXIT_STATE = 4,    // the state directory cannot be written
};

// A planned stop waits this long for the broker to acknowledge our goodbye.
constexpr guint FAREWELL_MS = 3000;

struct MainLoopUnref {
    void operator()(GMainLoop *l) const { g_main_loop_unref(l); }
};

struct Program {
    Options opts;
    std::unique_ptr<GMainLoop, MainLoopUnref> loop{g_main_loop_new(nullptr, FALSE)};
    std::unique_ptr<MqttClient> mqtt;
    std::unique_ptr<EdgeNode> node;
    std::unique_ptr<Store> store;
    std::unique_ptr<Session> session;
    std::unique_ptr<BusSide> bus;
    int rc = EXIT_DONE;
    bool stopping = false;
    int farewell_mid = -1;
    guint farewell_timer = 0;

    void quit(int code)
    {
        if (rc == EXIT_DONE)
            rc = code;
        g_main_loop_quit(loop.get());
    }

    // SIGINT, SIGTERM, or the bus gone: say goodbye, then disconnect.
    void stop(int code)
    {
        if (rc == EXIT_DONE)
            rc = code;
        if (stopping)
            return;
        stopping = true;
        g_message("stopping");
        farewell_mid = session ? session->farewell() : -1;
        if (farewell_mid < 0) {
            disconnect();
            return;
        }
        farewell_timer = g_timeout_add(FAREWELL_MS, [](gpointer p) -> gboolean {
            auto *self = static_cast<Program *>(p);
            self->farewell_timer = 0;
            g_message("the broker did not acknowledge our goodbye in time");
            guarded("disconnecting", [self] { self->disconnect(); });
            return G_SOURCE_REMOVE;
        }, this);
    }

    void disconnect()
    {
        if (farewell_timer != 0) {
            g_source_remove(farewell_timer);
            farewell_timer = 0;
        }
        mqtt->disconnect([this] { g_main_loop_quit(loop.get()); });
    }
};

MqttSettings settings_of(const Options &o)
{
    MqttSettings s;
    s.host = o.broker_host;
    s.port = o.broker_port;
    s.client_id = o.client_id;
    s.username = o.username;
    s.password = o.password;
    s.tls_ca = o.tls_ca;
    s.tls_cert = o.tls_cert;
    s.tls_key = o.tls_key;
    return s;
}

gboolean on_stop_signal(gpointer p)
{
    guarded("stopping", [p] { static_cast<Program *>(p)->stop(EXIT_DONE); });
    return G_SOURCE_CONTINUE;
}

// Connects, and runs until a signal or a refusal ends it.
int run_client(Program &prog)
{
    std::string error;
    if (!prog.mqtt->start(error)) {
        fprintf(stderr, "device-service-bridge: %s\n", error.c_str());
        return EXIT_OPTIONS;
    }
    if (prog.rc != EXIT_DONE) // the first attempt already failed for good
        return prog.rc;
    g_unix_signal_add(SIGINT, on_stop_signal, &prog);
    g_unix_signal_add(SIGTERM, on_stop_signal, &prog);
    g_main_loop_run(prog.loop.get());
    return prog.rc;
}

std::function<void(const std::string &)> refusal_ends(Program &prog)
{
    return [&prog](const std::string &why) {
        fprintf(stderr, "device-service-bridge: broker refused: %s\n", why.c_str());
        prog.quit(EXIT_REFUSED);
    };
}

// --watch: what reaches the broker under our topics, one line a message.
int watch(Program &prog)
{
    const bool sparkplug = prog.opts.mode == Mode::Sparkplug;
    const std::string filter =
        sparkplug ? "spBv1.0/" + prog.opts.node.group + "/#" : prog.opts.topic_prefix + "/#";
    MqttClient::Events ev;
    ev.connected = [&] { prog.mqtt->subscribe(filter, 0); };
    ev.refused = refusal_ends(prog);
    ev.message = [sparkplug](const std::string &topic, const std::string &payload) {
        const std::string line = sparkplug ? sp::describe(topic, payload) : topic + " " + payload;
        printf("%s\n", line.c_str());
    };
    prog.mqtt = std::make_unique<MqttClient>(settings_of(prog.opts), std::move(ev));
    return run_client(prog);
}

// The store of messages waiting for the broker, in the state directory. A
// bridge without one still publishes live data.
std::unique_ptr<Store> open_store(const Options &o)
{
    if (o.store_max_mb <= 0) {
        g_message("no store (--store-max-mb 0): data that cannot be published at once are lost");
        return nullptr;
    }
    const std::string path = o.state_dir + "/store-" + (o.mode == Mode::Sparkplug ? "sparkplug-" : "json-") +
                             o.node.group + "-" + o.node.edge_node + ".db";
    std::string notice;
    std::unique_ptr<Store> store;
    if (g_mkdir_with_parents(o.state_dir.c_str(), 0700) != 0)
        notice = "cannot make the state directory " + o.state_dir + ": " + g_strerror(errno);
    else
        store = Store::open(path, static_cast<uint64_t>(o.store_max_mb * 1024 * 1024), &notice);
    if (!notice.empty())
        g_warning("%s", notice.c_str());
    if (!store)
        g_warning("running without a store: data that cannot be published at once are lost");
    return store;
}

int bridge_run(Program &prog)
{
    std::string error;
    MqttClient::Events ev;
    ev.before_connect = [&] {
        std::string why;
        if (prog.session->before_connect(why))
            return true;
        fprintf(stderr, "device-service-bridge: %s\n", why.c_str());
        prog.quit(EXIT_STATE);
        return false;
    };
    ev.connected = [&] { prog.session->connected(); };
    ev.disconnected = [&] { prog.session->disconnected(); };
    ev.refused = refusal_ends(prog);
    ev.message = [&](const std::string &topic, const std::string &payload) {
        prog.session->command(topic, payload);
    };
    ev.delivered = [&](int mid) {
        prog.session->delivered(mid);
        if (prog.stopping && mid == prog.farewell_mid)
            prog.disconnect();
    };
    prog.mqtt = std::make_unique<MqttClient>(settings_of(prog.opts), std::move(ev));
    prog.store = open_store(prog.opts);
    if (prog.opts.mode == Mode::Sparkplug) {
        prog.node = std::make_unique<EdgeNode>(prog.opts.node);
        prog.session = std::make_unique<SparkplugSession>(*prog.node, *prog.mqtt, prog.opts.state_dir,
                                                          prog.store.get(), prog.opts.primary_host);
    } else {
        prog.session = std::make_unique<JsonSession>(prog.opts.node, prog.opts.topic_prefix, *prog.mqtt,
                                                     prog.store.get());
    }

    BusSide::Events bev;
    bev.cycle = [&](const Cycle &c) {
        if (!prog.stopping)
            prog.session->cycle(c);
    };
    bev.daemon = [&](bool present) {
        if (!present && !prog.stopping)
            prog.session->daemon_gone();
    };
    bev.closed = [&] {
        if (!prog.stopping)
            prog.session->daemon_gone();
        prog.stop(EXIT_BUS);
    };
    prog.bus = BusSide::open(prog.opts.bus_address, std::move(bev), error);
    if (!prog.bus) {
        fprintf(stderr, "device-service-bridge: %s\n", error.c_str());
        return EXIT_BUS;
    }
    return run_client(prog);
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        Program prog;
        std::string error;
        if (!parse_options(argc, argv, prog.opts, error)) {
            fprintf(stderr, "device-service-bridge: %s\n", error.c_str());
            return EXIT_OPTIONS;
        }
        return prog.opts.watch ? watch(prog) : bridge_run(prog);
    } catch (const std::exception &e) {
        fprintf(stderr, "device-service-bridge: %s\n", e.what());
        return EXIT_BUS;
    }
}
