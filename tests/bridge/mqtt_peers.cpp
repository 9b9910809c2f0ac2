#include "mqtt_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gio/gio.h>


namespace bridgetest {

using dstest::read_file;
using dstest::wait_until;

namespace {

// A loopback TCP socket bound to a free port (port 0), whose number it
// returns, or connected to `port`, returning it when something accepted.
uint16_t loopback(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    socklen_t len = sizeof a;
    const bool ok = port == 0 ? bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
                                    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0
                              : connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    close(fd);
    return ok ? ntohs(a.sin_port) : 0;
}

} // namespace

Broker::Broker(Kind kind) : kind_(kind) {}

Broker::~Broker()
{
    stop();
}

bool Broker::start()
{
    // A free port may be taken by someone else before mosquitto binds it:
    // then another one, unless the port must stay the same.
    // One self-signed certificate serves as the CA, the broker's and the
    // client's: the broker asks for a client certificate signed by its CA.
    if (kind_ == Tls && starts_ == 0) {
        Child openssl({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                       "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", file("key.pem"), "-out",
                       file("cert.pem"), "-days", "1", "-subj", "/CN=127.0.0.1", "-addext",
                       "subjectAltName=IP:127.0.0.1"},
                      dir_.path(), "openssl");
        if (openssl.wait_exit() != 0)
            return false;
    }
    if (kind_ == Password && starts_ == 0) {
        dstest::write_file(file("passwords"), "");
        Child passwd({"/usr/bin/mosquitto_passwd", "-b", file("passwords"), "bridge", "s3cret"}, dir_.path(),
                     "mosquitto_passwd");
        if (passwd.wait_exit() != 0)
            return false;
    }
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (starts_ == 0)
            port_ = loopback(0);
        const std::string conf = dir_.file("mosquitto.conf");
        // As root, mosquitto would change to its own user and could not read
        // the certificates in our private directory.
        const passwd *me = getpwuid(getuid());
        std::string text = "user " + std::string(me != nullptr ? me->pw_name : "root") + "\n" +
                           "listener " + std::to_string(port_) + " 127.0.0.1\n" +
                           "allow_anonymous " + (kind_ == Password ? "false" : "true") + "\n" +
                           "persistence false\n"
                           // QoS 0 messages beyond 1,000 waiting for a subscriber are
                           // otherwise dropped: a replay brings thousands at once.
                           "max_queued_messages 0\n";
        if (kind_ == Password)
            text += "password_file " + file("passwords") + "\n";
        if (kind_ == Tls)
            text += "cafile " + file("cert.pem") + "\ncertfile " + file("cert.pem") + "\nkeyfile " +
                    file("key.pem") + "\nrequire_certificate true\n";
        dstest::write_file(conf, text);
        proc_ = std::make_unique<Child>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", conf},
                                        dir_.path(), "mosquitto" + std::to_string(starts_));
        if (wait_until([&] { return loopback(port_) != 0 || !proc_->running(); }, 5s) && proc_->running()) {
            ++starts_;
            return true;
        }
        proc_.reset();
    }
    return false;
}

void Broker::stop()
{
    if (proc_) {
        proc_->signal(SIGCONT);
        proc_->signal(SIGTERM);
        if (proc_->wait_exit(5s) == -1)
            proc_->signal(SIGKILL);
        proc_.reset();
    }
}

NodesEmitter::NodesEmitter(GDBusConnection *conn) : conn_(conn)
{
    GError *error = nullptr;
    GVariant *reply = g_dbus_connection_call_sync(
        conn_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "com.fernwick.DeviceService", 4u /* do not queue */), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (reply == nullptr) {
        g_error_free(error);
        return;
    }
    guint32 result = 0;
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
    owner_ = result == 1;
}

NodesEmitter::~NodesEmitter()
{
    if (conn_ != nullptr) {
        g_dbus_connection_close_sync(conn_, nullptr, nullptr);
        g_object_unref(conn_);
    }
}

bool NodesEmitter::emit(const std::vector<bridge::DeviceReading> &devices)
{
    if (conn_ == nullptr)
        return false;
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("a(usuuv)"));
    for (const auto &d : devices) {
        GVariantBuilder nodes;
        g_variant_builder_init(&nodes, G_VARIANT_TYPE("a(ssus)"));
        for (const auto &n : d.nodes)
            g_variant_builder_add(&nodes, "(ssus)", n.name.c_str(), n.addr.c_str(), n.data_type,
                                  n.value.c_str());
        g_variant_builder_add(&list, "(usuuv)", d.dev_id, d.dev_name.c_str(), d.dev_mfg, d.dev_type,
                              g_variant_builder_end(&nodes));
    }
    return send(g_variant_new("(a(usuuv))", &list));
}

bool NodesEmitter::emit_odd()
{
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("a(usuuv)"));
    g_variant_builder_add(&list, "(usuuv)", 1u, "odd", 0u, 0u, g_variant_new_string("no nodes"));
    return send(g_variant_new("(a(usuuv))", &list));
}

bool NodesEmitter::send(GVariant *args)
{
    return g_dbus_connection_emit_signal(conn_, nullptr, "/com/fernwick/DeviceService",
                                         "com.fernwick.DeviceService", "nodes", args, nullptr) != FALSE;
}

} // namespace bridgetest
