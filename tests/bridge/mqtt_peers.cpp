#include "mqtt_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <mosquitto.h>

#include "values.h"

namespace bridgetest {

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



std::vector<std::string> bridge_args(const Broker &broker, const std::string &bus, const std::string &state_dir,
                                     const std::vector<std::string> &extra)
{
    std::vector<std::string> args = {DS_BRIDGE_BINARY, "--broker", broker.address(), "--bus-address", bus,
                                     "--state-dir", state_dir, "--group", "plant", "--edge-node", "gw1"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

const bridge::sp::Metric *metric(const bridge::sp::Payload &p, const std::string &name)
{
    for (const auto &m : p.metrics)
        if (m.name == name)
            return &m;
    return nullptr;
}

std::optional<int64_t> integer(const bridge::sp::Metric *m)
{
    if (m == nullptr)
        return std::nullopt;
    if (const auto *v = std::get_if<uint32_t>(&m->value))
        return bridge::integer_of(m->datatype, *v);
    if (const auto *v = std::get_if<uint64_t>(&m->value))
        return bridge::integer_of(m->datatype, *v);
    return std::nullopt;
}

std::optional<int64_t> integer(const bridge::sp::Payload &p, const std::string &name)
{
    return integer(metric(p, name));
}

void Traffic::watch(uint16_t port, const std::string &filter)
{
    static const int library = mosquitto_lib_init(); // once for the process
    (void)library;
    close();
    filter_ = filter;
    mosq_ = mosquitto_new(nullptr, true, this);
    mosquitto_connect_callback_set(mosq_, &Traffic::on_connect);
    mosquitto_subscribe_callback_set(mosq_, &Traffic::on_subscribe);
    mosquitto_message_callback_set(mosq_, &Traffic::on_message);
    mosquitto_connect(mosq_, "127.0.0.1", port, 30);
    mosquitto_loop_start(mosq_);
    ASSERT_TRUE(wait_until(
        [&] {
            std::lock_guard<std::mutex> lock(mutex_);
            return subscribed_;
        },
        5s));
}

void Traffic::close()
{
    if (mosq_ == nullptr)
        return;
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, true);
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
    subscribed_ = false;
}

void Traffic::on_connect(mosquitto *m, void *self, int rc)
{
    if (rc == 0)
        mosquitto_subscribe(m, nullptr, static_cast<Traffic *>(self)->filter_.c_str(), 1);
}

void Traffic::on_subscribe(mosquitto *, void *data, int, int, const int *)
{
    auto *self = static_cast<Traffic *>(data);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->subscribed_ = true;
}

void Traffic::on_message(mosquitto *, void *data, const mosquitto_message *msg)
{
    auto *self = static_cast<Traffic *>(data);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->messages_.push_back({msg->topic,
                               std::string(static_cast<const char *>(msg->payload),
                                           static_cast<size_t>(msg->payloadlen)),
                               msg->retain});
}

bool Traffic::publish(const std::string &topic, const std::string &payload, int qos, bool retain)
{
    return mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                             qos, retain) == MOSQ_ERR_SUCCESS;
}

std::vector<Received> Traffic::raw() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

bool Traffic::wait(const std::function<bool(const std::vector<Received> &)> &pred,
                   std::chrono::milliseconds timeout) const
{
    return wait_until([&] { return pred(raw()); }, timeout);
}

std::vector<SpMessage> Traffic::decoded() const
{
    std::vector<SpMessage> out;
    for (const auto &r : raw()) {
        SpMessage m;
        EXPECT_TRUE(bridge::sp::parse_topic(r.topic, m.topic)) << r.topic;
        if (m.topic.type != bridge::sp::MsgType::STATE) {
            EXPECT_TRUE(bridge::sp::decode(r.payload, m.payload)) << r.topic;
        }
        out.push_back(std::move(m));
    }
    return out;
}

int Traffic::wait_for(bridge::sp::MsgType type, const std::string &device, size_t from,
                      const std::function<bool(const bridge::sp::Payload &)> &pred, const Child *context,
                      std::chrono::milliseconds timeout) const
{
    // Only payloads of that type are decoded: a replay brings thousands.
    int found = -1;
    wait_until(
        [&] {
            const auto all = raw();
            for (size_t i = from; i < all.size() && found < 0; ++i) {
                bridge::sp::Topic t;
                bridge::sp::Payload p;
                if (bridge::sp::parse_topic(all[i].topic, t) && t.type == type && t.device == device &&
                    (!pred || (bridge::sp::decode(all[i].payload, p) && pred(p))))
                    found = static_cast<int>(i);
            }
            return found >= 0;
        },
        timeout);
    if (found < 0)
        ADD_FAILURE() << "no " << bridge::sp::msg_type_name(type) << " " << device << " from #" << from
                      << "; bridge said:\n" << (context != nullptr ? context->err() : "");
    return found;
}

void Traffic::expect_seq_continuity(size_t from) const
{
    std::optional<uint64_t> last;
    const auto all = decoded();
    for (size_t i = from; i < all.size(); ++i) {
        const auto &m = all[i];
        using bridge::sp::MsgType;
        if (m.topic.type == MsgType::NDEATH || m.topic.type == MsgType::NCMD || m.topic.type == MsgType::DCMD ||
            m.topic.type == MsgType::STATE)
            continue;
        ASSERT_TRUE(m.payload.seq) << i;
        if (m.topic.type == MsgType::NBIRTH) {
            EXPECT_EQ(*m.payload.seq, 0u) << i;
        } else if (last) {
            EXPECT_EQ(*m.payload.seq, (*last + 1) % 256) << "message #" << i;
        }
        last = m.payload.seq;
    }
}

} // namespace bridgetest
