#include "host_state.h"

#include <json-glib/json-glib.h>

#include <memory>

namespace bridge {

namespace {

struct ObjectUnref {
    void operator()(gpointer p) const
    {
        if (p)
            g_object_unref(p);
    }
};
struct ErrorFree {
    void operator()(GError *e) const
    {
        if (e)
            g_error_free(e);
    }
};

constexpr std::string_view kStatePrefix = "spBv1.0/STATE/";
// A STATE is a few dozen bytes; anything far larger is not one.
constexpr size_t kMaxPayload = 4096;

} // namespace

std::string host_state_topic(std::string_view host_id)
{
    return std::string(kStatePrefix) + std::string(host_id);
}

std::optional<HostState> parse_host_state(std::string_view payload, std::string *reason)
{
    std::string local;
    if (!reason)
        reason = &local;
    if (payload.empty()) {
        *reason = "empty payload (the retained STATE was cleared)";
        return std::nullopt;
    }
    if (payload.size() > kMaxPayload) {
        *reason = "payload of " + std::to_string(payload.size()) + " bytes";
        return std::nullopt;
    }
    if (payload.find('\0') != std::string_view::npos) {
        *reason = "not JSON text";
        return std::nullopt;
    }
    std::unique_ptr<JsonParser, ObjectUnref> parser(json_parser_new());
    GError *raw = nullptr;
    const bool parsed = json_parser_load_from_data(parser.get(), payload.data(),
                                                   static_cast<gssize>(payload.size()), &raw);
    std::unique_ptr<GError, ErrorFree> error(raw);
    if (!parsed) {
        *reason = std::string("not JSON: ") + (error ? error->message : "?");
        return std::nullopt;
    }
    JsonNode *root = json_parser_get_root(parser.get());
    if (!root || !JSON_NODE_HOLDS_OBJECT(root)) {
        *reason = "not a JSON object";
        return std::nullopt;
    }
    JsonObject *obj = json_node_get_object(root);
    JsonNode *online = json_object_get_member(obj, "online");
    if (!online || !JSON_NODE_HOLDS_VALUE(online) ||
        json_node_get_value_type(online) != G_TYPE_BOOLEAN) {
        *reason = "\"online\" is not true or false";
        return std::nullopt;
    }
    JsonNode *stamp = json_object_get_member(obj, "timestamp");
    if (!stamp || !JSON_NODE_HOLDS_VALUE(stamp) ||
        json_node_get_value_type(stamp) != G_TYPE_INT64 || json_node_get_int(stamp) < 0) {
        *reason = "\"timestamp\" is not a whole number of milliseconds";
        return std::nullopt;
    }
    HostState s;
    s.online = json_node_get_boolean(online);
    s.timestamp_ms = static_cast<uint64_t>(json_node_get_int(stamp));
    return s;
}

PrimaryHost::PrimaryHost(std::string host_id)
    : host_id_(std::move(host_id)), topic_(host_state_topic(host_id_))
{
}

PrimaryHost::Outcome PrimaryHost::on_message(std::string_view topic, std::string_view payload)
{
    Outcome out;
    if (topic != topic_) {
        out.reason = "not the STATE of host " + host_id_;
        return out;
    }
    auto state = parse_host_state(payload, &out.reason);
    if (!state)
        return out;
    const uint64_t ts = state->timestamp_ms;
    // An online STATE counts when it is at least as new as anything seen
    // (the host's birth repeats its Will's timestamp, so equal is newer).
    // An offline one counts against the last online one: the Will of the
    // session we followed carries exactly that timestamp.
    const std::optional<uint64_t> &bar = state->online ? last_seen_ : last_online_;
    if (bar && ts < *bar) {
        out.verdict = Verdict::Stale;
        out.reason = std::string(state->online ? "online" : "offline") + " STATE of " +
                     std::to_string(ts) + " is older than " + std::to_string(*bar);
        return out;
    }
    if (!last_seen_ || ts > *last_seen_)
        last_seen_ = ts;
    if (state->online) {
        last_online_ = ts;
        out.verdict = Verdict::Online;
        out.action = online_ ? Action::None : Action::PublishBirths;
        online_ = true;
    } else {
        out.verdict = Verdict::Offline;
        out.action = online_ ? Action::EndSession : Action::None;
        online_ = false;
    }
    return out;
}

const char *verdict_name(PrimaryHost::Verdict v)
{
    switch (v) {
    case PrimaryHost::Verdict::Online: return "online";
    case PrimaryHost::Verdict::Offline: return "offline";
    case PrimaryHost::Verdict::Stale: return "stale";
    case PrimaryHost::Verdict::Ignored: return "ignored";
    }
    return "?";
}

} // namespace bridge
