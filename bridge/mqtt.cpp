#include "mqtt.h"

#include <mosquitto.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "guarded.h"

namespace bridge {

namespace {

constexpr unsigned FIRST_BACKOFF_MS = 1000;
constexpr unsigned LAST_BACKOFF_MS = 30000;
constexpr size_t MAX_PENDING_MESSAGES = 20000;

void library_once()
{
    struct Library {
        Library() { mosquitto_lib_init(); }
        ~Library() { mosquitto_lib_cleanup(); }
    };
    static Library library;
}

std::string reason(int rc)
{
    return rc == MOSQ_ERR_ERRNO ? g_strerror(errno) : mosquitto_strerror(rc);
}

// CONNACK codes of MQTT 3.1.1 that no retry will change.
const char *refusal(int rc)
{
    switch (rc) {
    case 1: return "the broker does not accept MQTT 3.1.1";
    case 2: return "client id rejected";
    case 4: return "bad user name or password";
    case 5: return "not authorised";
    default: return nullptr;
    }
}

} // namespace

// Watches the client's socket: readable always, writable while libmosquitto
// has bytes queued.
struct MqttClient::SocketSource {
    GSource base;
    MqttClient *owner;
    gpointer tag;
    GIOCondition events;

    static gboolean prepare(GSource *s, gint *timeout)
    {
        auto *self = reinterpret_cast<SocketSource *>(s);
        const bool out = mosquitto_want_write(self->owner->mosq_);
        const auto events = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR | (out ? G_IO_OUT : 0));
        // Every change of the watched events wakes the main context up:
        // changing them on each iteration would keep the loop spinning.
        if (events != self->events) {
            g_source_modify_unix_fd(s, self->tag, events);
            self->events = events;
        }
        *timeout = -1;
        return FALSE;
    }
    static gboolean check(GSource *s)
    {
        auto *self = reinterpret_cast<SocketSource *>(s);
        return g_source_query_unix_fd(s, self->tag) != 0;
    }
    static gboolean dispatch(GSource *s, GSourceFunc, gpointer)
    {
        auto *self = reinterpret_cast<SocketSource *>(s);
        self->owner->io(g_source_query_unix_fd(s, self->tag));
        return G_SOURCE_CONTINUE;
    }
};

MqttClient::MqttClient(MqttSettings settings, Events events)
    : settings_(std::move(settings)), events_(std::move(events))
{
    library_once();
    mosq_ = mosquitto_new(settings_.client_id.c_str(), true, this);
    if (mosq_ == nullptr)
        return;
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_connect_callback_set(mosq_, &MqttClient::on_connect);
    mosquitto_disconnect_callback_set(mosq_, &MqttClient::on_disconnect);
    mosquitto_message_callback_set(mosq_, &MqttClient::on_message);
    mosquitto_publish_callback_set(mosq_, &MqttClient::on_publish);
}

MqttClient::~MqttClient()
{
    unwatch_socket();
    if (retry_id_ != 0)
        g_source_remove(retry_id_);
    if (mosq_ != nullptr)
        mosquitto_destroy(mosq_);
}

bool MqttClient::start(std::string &error)
{
    if (mosq_ == nullptr) {
        error = "cannot make an MQTT client";
        return false;
    }
    if (!settings_.username.empty()) {
        const int rc = mosquitto_username_pw_set(
            mosq_, settings_.username.c_str(),
            settings_.password.empty() ? nullptr : settings_.password.c_str());
        if (rc != MOSQ_ERR_SUCCESS) {
            error = std::string("user name: ") + mosquitto_strerror(rc);
            return false;
        }
    }
    if (!settings_.tls_ca.empty()) {
        const int rc = mosquitto_tls_set(mosq_, settings_.tls_ca.c_str(), nullptr,
                                         settings_.tls_cert.empty() ? nullptr : settings_.tls_cert.c_str(),
                                         settings_.tls_key.empty() ? nullptr : settings_.tls_key.c_str(),
                                         nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            error = std::string("TLS: ") + mosquitto_strerror(rc);
            return false;
        }
    }
    attempt();
    return true;
}

void MqttClient::attempt()
{
    retry_id_ = 0;
    if (stopped_ || stopping_)
        return;
    bool go = false;
    guarded("before connect", [&] { go = !events_.before_connect || events_.before_connect(); });
    if (!go) {
        stopped_ = true;
        return;
    }
    const int rc = mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port,
                                           settings_.keepalive_s);
    if (rc != MOSQ_ERR_SUCCESS) {
        lost(reason(rc));
        return;
    }
    watch_socket();
}

void MqttClient::watch_socket()
{
    unwatch_socket();
    const int fd = mosquitto_socket(mosq_);
    if (fd < 0)
        return;
    static GSourceFuncs funcs = {&SocketSource::prepare, &SocketSource::check,
                                 &SocketSource::dispatch, nullptr, nullptr, nullptr};
    source_ = g_source_new(&funcs, sizeof(SocketSource));
    auto *s = reinterpret_cast<SocketSource *>(source_);
    s->owner = this;
    s->events = static_cast<GIOCondition>(G_IO_IN | G_IO_OUT);
    s->tag = g_source_add_unix_fd(source_, fd, s->events);
    g_source_set_name(source_, "mqtt socket");
    g_source_attach(source_, nullptr);
    // Keep-alive pings and their time-outs.
    misc_id_ = g_timeout_add_seconds(1, &MqttClient::on_misc, this);
}

void MqttClient::unwatch_socket()
{
    if (source_ != nullptr) {
        g_source_destroy(source_);
        g_source_unref(source_);
        source_ = nullptr;
    }
    if (misc_id_ != 0) {
        g_source_remove(misc_id_);
        misc_id_ = 0;
    }
}

void MqttClient::io(GIOCondition cond)
{
    // Before the session, libmosquitto keeps waiting on a TLS handshake whose
    // socket failed or was closed by the peer, reading nothing, again and
    // again: such a socket is seen to here.
    if (!connected_ && (cond & (G_IO_IN | G_IO_ERR | G_IO_HUP)) != 0) {
        const int fd = mosquitto_socket(mosq_);
        int err = 0;
        socklen_t len = sizeof err;
        char byte = 0;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err != 0) {
            lost(g_strerror(err));
            return;
        }
        if (recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0) {
            lost("the broker closed the connection");
            return;
        }
    }
    // mosquitto_loop with no wait: it looks at the socket again itself, and
    // also drives a TLS handshake and reads what TLS already holds, which
    // its separate read and write steps do not.
    if (const int rc = mosquitto_loop(mosq_, 0, 1); rc != MOSQ_ERR_SUCCESS)
        lost(reason(rc));
}

gboolean MqttClient::on_misc(gpointer data)
{
    auto *self = static_cast<MqttClient *>(data);
    const int rc = mosquitto_loop_misc(self->mosq_);
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
        self->misc_id_ = 0; // the source ends with this call
        self->lost(reason(rc));
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

void MqttClient::lost(const std::string &why)
{
    const bool was = connected_;
    connected_ = false;
    unwatch_socket();
    // A new session starts with an empty queue (clean session).
    pending_.clear();
    pending_bytes_ = 0;
    over_limit_ = false;
    if (stopping_) {
        if (done_) {
            auto done = std::move(done_);
            done_ = nullptr;
            done();
        }
        return;
    }
    // libmosquitto reports a loss both through its callback and through the
    // call that met it: the first report counts.
    if (stopped_ || retry_id_ != 0)
        return;
    if (was && restarting_) {
        restarting_ = false;
        g_message("ended the session with %s; connecting again in %u s", where().c_str(),
                  backoff_ms_ / 1000);
        guarded("disconnected", [&] {
            if (events_.disconnected)
                events_.disconnected();
        });
    } else if (was) {
        g_message("lost the broker at %s (%s); next attempt in %u s", where().c_str(), why.c_str(),
                  backoff_ms_ / 1000);
        guarded("disconnected", [&] {
            if (events_.disconnected)
                events_.disconnected();
        });
    } else {
        g_message("cannot reach the broker at %s: %s; next attempt in %u s", where().c_str(),
                  why.c_str(), backoff_ms_ / 1000);
    }
    schedule_retry();
}

void MqttClient::schedule_retry()
{
    if (retry_id_ != 0 || stopped_ || stopping_)
        return;
    retry_id_ = g_timeout_add(backoff_ms_, &MqttClient::on_retry, this);
    backoff_ms_ = std::min(backoff_ms_ * 2, LAST_BACKOFF_MS);
}

gboolean MqttClient::on_retry(gpointer data)
{
    static_cast<MqttClient *>(data)->attempt();
    return G_SOURCE_REMOVE;
}

void MqttClient::on_connect(mosquitto *, void *data, int rc)
{
    auto *self = static_cast<MqttClient *>(data);
    if (rc == 0) {
        self->connected_ = true;
        self->backoff_ms_ = FIRST_BACKOFF_MS;
        g_message("connected to %s as %s", self->where().c_str(), self->settings_.client_id.c_str());
        guarded("connected", [&] {
            if (self->events_.connected)
                self->events_.connected();
        });
        return;
    }
    if (const char *why = refusal(rc)) {
        self->stopped_ = true;
        guarded("refused", [&] {
            if (self->events_.refused)
                self->events_.refused(why);
        });
        return;
    }
    g_message("the broker at %s is unavailable (CONNACK %d)", self->where().c_str(), rc);
}

void MqttClient::on_disconnect(mosquitto *, void *data, int rc)
{
    static_cast<MqttClient *>(data)->lost(reason(rc));
}

void MqttClient::on_message(mosquitto *, void *data, const mosquitto_message *msg)
{
    auto *self = static_cast<MqttClient *>(data);
    guarded("message", [&] {
        if (!self->events_.message || msg->topic == nullptr)
            return;
        const char *bytes = static_cast<const char *>(msg->payload);
        self->events_.message(msg->topic, bytes != nullptr
                                              ? std::string(bytes, static_cast<size_t>(msg->payloadlen))
                                              : std::string());
    });
}

void MqttClient::on_publish(mosquitto *, void *data, int mid)
{
    auto *self = static_cast<MqttClient *>(data);
    guarded("delivered", [&] {
        self->sent(mid);
        if (self->events_.delivered)
            self->events_.delivered(mid);
    });
}

void MqttClient::disconnect(std::function<void()> done)
{
    stopping_ = true;
    if (retry_id_ != 0) {
        g_source_remove(retry_id_);
        retry_id_ = 0;
    }
    // Before the CONNACK there is no session to end: the socket just closes.
    if (source_ == nullptr || !connected_) {
        unwatch_socket();
        done();
        return;
    }
    // The socket closes once DISCONNECT has been written, and lost() then
    // calls `done`: often within mosquitto_disconnect itself, when the
    // socket takes the packet at once, so `done` must be in place first.
    done_ = std::move(done);
    if (mosquitto_disconnect(mosq_) != MOSQ_ERR_SUCCESS) {
        unwatch_socket();
        if (done_) {
            auto finish = std::move(done_);
            done_ = nullptr;
            finish();
        }
    }
}

bool MqttClient::set_will(const std::string &topic, const std::string &payload, int qos, bool retain)
{
    return mosquitto_will_set(mosq_, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                              qos, retain) == MOSQ_ERR_SUCCESS;
}

int MqttClient::publish(const std::string &topic, const std::string &payload, int qos, bool retain)
{
    if (!connected_)
        return -1;
    const size_t size = topic.size() + payload.size();
    // Message ids are 16-bit: far fewer may wait than could share one. QoS 1
    // is left out of the bound: it carries the rare messages that must not
    // be lost, the goodbye and the status.
    if (qos == 0 && (pending_bytes_ + size > settings_.max_pending_bytes ||
                     pending_.size() >= MAX_PENDING_MESSAGES)) {
        if (!over_limit_)
            g_message("the broker at %s does not keep up: %zu bytes wait to go out; "
                      "messages are not sent until it does",
                      where().c_str(), pending_bytes_);
        over_limit_ = true;
        return -1;
    }
    int mid = 0;
    publishing_ = true;
    written_at_once_ = false;
    const int rc = mosquitto_publish(mosq_, &mid, topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), qos, retain);
    publishing_ = false;
    if (rc != MOSQ_ERR_SUCCESS)
        return -1;
    if (!written_at_once_) {
        pending_[mid] = size;
        pending_bytes_ += size;
    }
    return mid;
}

void MqttClient::sent(int mid)
{
    const auto it = pending_.find(mid);
    if (it == pending_.end()) {
        // Written within mosquitto_publish itself, before its id was known.
        written_at_once_ = publishing_;
        return;
    }
    pending_bytes_ -= it->second;
    pending_.erase(it);
    if (over_limit_ && pending_bytes_ <= settings_.max_pending_bytes / 2) {
        over_limit_ = false;
        g_message("the broker at %s keeps up again", where().c_str());
    }
}

void MqttClient::restart()
{
    if (!connected_ || stopping_ || stopped_)
        return;
    restarting_ = true;
    if (const int rc = mosquitto_disconnect(mosq_); rc != MOSQ_ERR_SUCCESS)
        lost(reason(rc));
}

bool MqttClient::subscribe(const std::string &topic, int qos)
{
    return connected_ && mosquitto_subscribe(mosq_, nullptr, topic.c_str(), qos) == MOSQ_ERR_SUCCESS;
}

} // namespace bridge
