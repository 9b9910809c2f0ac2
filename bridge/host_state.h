// The primary host application's STATE, as the edge node follows it: the
// host publishes `spBv1.0/STATE/<host_id>` retained, JSON
// {"online":true|false,"timestamp":<UTC ms>}, and its Will carries the same
// timestamp as its birth. Births wait for the host; the host going offline
// ends the edge node's session. No I/O: the publisher feeds it messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace bridge {

struct HostState {
    bool online = false;
    uint64_t timestamp_ms = 0;
};

// The STATE topic of a host.
std::string host_state_topic(std::string_view host_id);

// Parses a STATE payload; nullopt with `reason` when it is not one.
std::optional<HostState> parse_host_state(std::string_view payload, std::string *reason);

class PrimaryHost {
public:
    explicit PrimaryHost(std::string host_id);

    const std::string &host_id() const { return host_id_; }
    const std::string &topic() const { return topic_; }

    enum class Verdict {
        Online,   // accepted: the host is online
        Offline,  // accepted: the host is offline
        Stale,    // older than what was seen already: ignored
        Ignored,  // not this host's STATE, or not a STATE payload
    };
    enum class Action {
        None,
        PublishBirths, // the host came online: NBIRTH and DBIRTHs may go now
        EndSession,    // the host went offline with our births out: publish
                       // NDEATH, disconnect, and start over
    };
    struct Outcome {
        Verdict verdict = Verdict::Ignored;
        Action action = Action::None;
        std::string reason; // for Stale and Ignored: why, for the log
    };

    // A message that arrived on a subscribed topic.
    Outcome on_message(std::string_view topic, std::string_view payload);

    // A new MQTT session: births wait for the host's STATE again (the
    // broker sends the retained one right after the subscription). What
    // was seen before is kept: an older STATE stays stale.
    void on_new_session() { online_ = false; }

    // Births may be published in this session.
    bool online() const { return online_; }
    // Timestamp of the newest STATE accepted, if any.
    std::optional<uint64_t> last_timestamp() const { return last_seen_; }

private:
    std::string host_id_;
    std::string topic_;
    bool online_ = false;
    std::optional<uint64_t> last_seen_;   // newest accepted STATE
    std::optional<uint64_t> last_online_; // newest accepted online STATE
};

const char *verdict_name(PrimaryHost::Verdict v);

} // namespace bridge
