// An MQTT 3.1.1 client (libmosquitto) driven by the GLib main loop of the
// thread that made it: the socket is watched by a GSource and libmosquitto's
// read, write and keep-alive steps run from it, so every callback comes on
// that thread and nothing is shared with another one. libmosquitto's own
// reconnect is not used: each new CONNECT must carry a new Will, so the
// owner is asked for it (before_connect) before every attempt.
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

struct mosquitto;
struct mosquitto_message;

namespace bridge {

struct MqttSettings {
    std::string host = "127.0.0.1";
    uint16_t port = 1883;
    std::string client_id;
    std::string username;
    std::string password;
    std::string tls_ca, tls_cert, tls_key;
    int keepalive_s = 30;
    // Bytes handed to libmosquitto and not yet written (QoS 0) or
    // acknowledged (QoS 1): past this, publish() refuses new QoS 0 messages
    // rather than let a broker that does not keep up fill our memory.
    size_t max_pending_bytes = 4u << 20;
};

// What a session needs of a broker connection (a fake one in the tests).
class Transport {
public:
    virtual ~Transport() = default;
    virtual bool connected() const = 0;
    virtual bool set_will(const std::string &topic, const std::string &payload, int qos, bool retain) = 0;
    // The message id, or -1 when it could not be queued (not connected).
    virtual int publish(const std::string &topic, const std::string &payload, int qos, bool retain) = 0;
    virtual bool subscribe(const std::string &topic, int qos) = 0;
    // Ends the session once what is queued has gone out, and connects again
    // (a new CONNECT, so a new Will).
    virtual void restart() = 0;
};

class MqttClient final : public Transport {
public:
    struct Events {
        // Before every CONNECT: set the Will here. False stops the client.
        std::function<bool()> before_connect;
        std::function<void()> connected;
        // The session ended (broker gone, network); a reconnect is scheduled.
        std::function<void()> disconnected;
        // The broker refused the connection for good (credentials, id):
        // the client stops and says why.
        std::function<void(const std::string &why)> refused;
        std::function<void(const std::string &topic, const std::string &payload)> message;
        // A QoS 1 message was acknowledged.
        std::function<void(int mid)> delivered;
    };

    MqttClient(MqttSettings settings, Events events);
    ~MqttClient() override;
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    // Prepares the library (TLS, credentials) and makes the first attempt
    // (at once). False with `error` when the settings cannot be used.
    bool start(std::string &error);
    // Planned end: DISCONNECT once what is queued has gone out, then no
    // reconnect. `done` is called when the socket is closed.
    void disconnect(std::function<void()> done);

    bool connected() const override { return connected_; }
    bool set_will(const std::string &topic, const std::string &payload, int qos, bool retain) override;
    int publish(const std::string &topic, const std::string &payload, int qos, bool retain) override;
    size_t pending_bytes() const { return pending_bytes_; }
    bool subscribe(const std::string &topic, int qos) override;
    void restart() override;

    std::string where() const { return settings_.host + ":" + std::to_string(settings_.port); }
    // The wait before the next attempt, doubled after each failure from 1 s to 30 s.
    unsigned backoff_ms() const { return backoff_ms_; }

private:
    static void on_connect(mosquitto *, void *self, int rc);
    static void on_disconnect(mosquitto *, void *self, int rc);
    static void on_message(mosquitto *, void *self, const mosquitto_message *msg);
    static void on_publish(mosquitto *, void *self, int mid);
    static gboolean on_retry(gpointer self);
    static gboolean on_misc(gpointer self);

    void attempt();
    void watch_socket();
    void unwatch_socket();
    void lost(const std::string &why);
    void schedule_retry();
    void io(GIOCondition cond);
    void sent(int mid);

    struct SocketSource;
    MqttSettings settings_;
    Events events_;
    mosquitto *mosq_ = nullptr;
    GSource *source_ = nullptr;   // the socket's watch while one is open
    guint retry_id_ = 0;
    guint misc_id_ = 0;
    bool ever_attempted_ = false;
    bool connected_ = false;
    bool stopping_ = false;
    bool stopped_ = false;
    bool restarting_ = false;                // restart() asked for this disconnect
    std::unordered_map<int, size_t> pending_; // message id -> bytes
    size_t pending_bytes_ = 0;
    bool publishing_ = false;                // inside mosquitto_publish
    bool written_at_once_ = false;           // ... which wrote the message itself
    bool over_limit_ = false;
    unsigned backoff_ms_ = 1000;
    std::function<void()> done_;
};

} // namespace bridge
