#include "mqtt_peers.h"

#include <arpa/inet.h>
#include <mosquitto.h>
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

uint16_t free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

bool accepts(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    const bool ok = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

void library_once()
{
    struct Library {
        Library() { mosquitto_lib_init(); }
        ~Library() { mosquitto_lib_cleanup(); }
    };
    static Library library;
}

} // namespace

Broker::Broker(Kind kind) : kind_(kind) {}

bool Broker::make_certificates()
{
    const std::string d = dir_.path() + "/";
    const std::vector<std::string> ec = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    auto run = [&](const std::vector<std::string> &args) {
        std::vector<std::string> all = {"/usr/bin/openssl"};
        for (const auto &a : args)
            all.push_back(a);
        Child c(all, dir_.path(), "openssl");
        return c.wait_exit() == 0;
    };
    auto request = [&](const std::string &who, const std::string &cn) {
        std::vector<std::string> a = {"req"};
        a.insert(a.end(), ec.begin(), ec.end());
        a.insert(a.end(), {"-keyout", d + who + ".key", "-out", d + who + ".csr", "-subj", "/CN=" + cn});
        return run(a) && run({"x509", "-req", "-in", d + who + ".csr", "-CA", d + "ca.crt", "-CAkey",
                              d + "ca.key", "-CAcreateserial", "-days", "1", "-out", d + who + ".crt",
                              "-extfile", d + "ext.cnf"});
    };
    dstest::write_file(d + "ext.cnf", "subjectAltName=IP:127.0.0.1\n");
    std::vector<std::string> ca = {"req", "-x509"};
    ca.insert(ca.end(), ec.begin(), ec.end());
    ca.insert(ca.end(), {"-keyout", d + "ca.key", "-out", d + "ca.crt", "-days", "1", "-subj", "/CN=test CA"});
    return run(ca) && request("server", "127.0.0.1") && request("client", "bridge");
}

Broker::~Broker()
{
    stop();
}

bool Broker::start()
{
    // A free port may be taken by someone else before mosquitto binds it:
    // then another one, unless the port must stay the same.
    if (kind_ == Tls && starts_ == 0 && !make_certificates())
        return false;
    if (kind_ == Password && starts_ == 0) {
        dstest::write_file(file("passwords"), "");
        Child passwd({"/usr/bin/mosquitto_passwd", "-b", file("passwords"), "bridge", "s3cret"}, dir_.path(),
                     "mosquitto_passwd");
        if (passwd.wait_exit() != 0)
            return false;
    }
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (starts_ == 0)
            port_ = free_port();
        const std::string conf = dir_.file("mosquitto.conf");
        // As root, mosquitto would change to its own user and could not read
        // the certificates in our private directory.
        const passwd *me = getpwuid(getuid());
        std::string text = "user " + std::string(me != nullptr ? me->pw_name : "root") + "\n" +
                           "listener " + std::to_string(port_) + " 127.0.0.1\n" +
                           "allow_anonymous " + (kind_ == Closed || kind_ == Password ? "false" : "true") + "\n" +
                           "persistence false\n"
                           // QoS 0 messages beyond 1,000 waiting for a subscriber are
                           // otherwise dropped: a replay brings thousands at once.
                           "max_queued_messages 0\n";
        if (kind_ == Password)
            text += "password_file " + file("passwords") + "\n";
        if (kind_ == Tls)
            text += "cafile " + file("ca.crt") + "\ncertfile " + file("server.crt") + "\nkeyfile " +
                    file("server.key") + "\nrequire_certificate true\n";
        dstest::write_file(conf, text);
        proc_ = std::make_unique<Child>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", conf},
                                        dir_.path(), "mosquitto" + std::to_string(starts_));
        if (wait_until([&] { return accepts(port_) || !proc_->running(); }, 5s) && proc_->running()) {
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

Subscriber::Subscriber(uint16_t port, std::string filter) : filter_(std::move(filter))
{
    library_once();
    mosq_ = mosquitto_new(nullptr, true, this);
    mosquitto_connect_callback_set(mosq_, &Subscriber::on_connect);
    mosquitto_subscribe_callback_set(mosq_, &Subscriber::on_subscribe);
    mosquitto_message_callback_set(mosq_, &Subscriber::on_message);
    mosquitto_connect(mosq_, "127.0.0.1", port, 30);
    mosquitto_loop_start(mosq_);
}

Subscriber::~Subscriber()
{
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, true);
    mosquitto_destroy(mosq_);
}

void Subscriber::on_connect(mosquitto *m, void *self, int rc)
{
    if (rc == 0)
        mosquitto_subscribe(m, nullptr, static_cast<Subscriber *>(self)->filter_.c_str(), 1);
}

void Subscriber::on_subscribe(mosquitto *, void *data, int, int, const int *)
{
    auto *self = static_cast<Subscriber *>(data);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->subscribed_ = true;
}

void Subscriber::on_message(mosquitto *, void *data, const mosquitto_message *msg)
{
    auto *self = static_cast<Subscriber *>(data);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->messages_.push_back({msg->topic,
                               std::string(static_cast<const char *>(msg->payload),
                                           static_cast<size_t>(msg->payloadlen)),
                               msg->retain});
}

bool Subscriber::ready(std::chrono::milliseconds timeout)
{
    return wait_until(
        [&] {
            std::lock_guard<std::mutex> lock(mutex_);
            return subscribed_;
        },
        timeout);
}

std::vector<Received> Subscriber::messages() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

size_t Subscriber::count() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_.size();
}

bool Subscriber::wait(const std::function<bool(const std::vector<Received> &)> &pred,
                      std::chrono::milliseconds timeout) const
{
    return wait_until([&] { return pred(messages()); }, timeout);
}

bool Subscriber::publish(const std::string &topic, const std::string &payload, int qos, bool retain)
{
    return mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), qos, retain) == MOSQ_ERR_SUCCESS;
}

NodesEmitter::NodesEmitter(const std::string &bus_address)
{
    GError *error = nullptr;
    conn_ = g_dbus_connection_new_for_address_sync(
        bus_address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (conn_ == nullptr) {
        g_error_free(error);
        return;
    }
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
