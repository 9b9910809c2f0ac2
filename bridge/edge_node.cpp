// Which metrics a device has. The `nodes` signal carries only the nodes read
// successfully, so a node missing from a device that was read is a failed
// read: its metric stays in the birth and goes null once, until its next
// value. A node whose name the birth does not hold, or that comes with
// another datatype or address, changes the set: the device is born again,
// with the nodes of that cycle as its new set. A renamed or deleted node's
// old metric thus leaves at the next birth of its device, and a node that
// happened to fail in that cycle comes back with one more birth later:
// rarer, and more honest, than keeping dead metrics forever.
#include "edge_node.h"

#include <glib.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "values.h"

namespace bridge {

namespace {

constexpr const char *kBdSeq = "bdSeq";
constexpr const char *kRebirth = "Node Control/Rebirth";
constexpr const char *kOnlyReads = "the gateway only reads";

std::string folded(const std::string &s)
{
    std::string out(s);
    for (char &c : out)
        c = g_ascii_tolower(c);
    return out;
}

// NaN never equals itself: compared by bits, an unchanged NaN is not news.
bool same_value(const sp::Value &a, const sp::Value &b)
{
    const auto *fa = std::get_if<float>(&a);
    const auto *fb = std::get_if<float>(&b);
    if (fa != nullptr && fb != nullptr)
        return std::memcmp(fa, fb, sizeof *fa) == 0;
    return a == b;
}

std::string joined_names(const std::vector<sp::Metric> &metrics)
{
    std::string out;
    for (const sp::Metric &m : metrics) {
        if (!out.empty())
            out += ", ";
        out += m.name.empty() ? "(no name)" : m.name;
    }
    return out.empty() ? "no metric" : out;
}

} // namespace

EdgeNode::EdgeNode(EdgeNodeConfig config) : config_(std::move(config)) {}

Message EdgeNode::death(uint64_t bd_seq) const
{
    // The Will is fixed when the session starts: no time in it would be true
    // when it is delivered, so it carries none.
    Message m;
    m.type = sp::MsgType::NDEATH;
    sp::Metric bd;
    bd.name = kBdSeq;
    bd.datatype = sp::Int64;
    bd.value = bd_seq;
    m.payload.metrics.push_back(std::move(bd));
    return m;
}

std::vector<Message> EdgeNode::births(uint64_t bd_seq, uint64_t now_ms) const
{
    std::vector<Message> out;
    Message nb;
    nb.type = sp::MsgType::NBIRTH;
    nb.payload.timestamp = now_ms;
    auto add = [&](const std::string &name, uint32_t datatype, sp::Value v) {
        sp::Metric m;
        m.name = name;
        m.datatype = datatype;
        m.timestamp = now_ms;
        m.value = std::move(v);
        nb.payload.metrics.push_back(std::move(m));
    };
    add(kBdSeq, sp::Int64, bd_seq);
    add(kRebirth, sp::Boolean, false);
    for (const auto &[name, value] : node_metrics_)
        add(name, sp::UInt64, value);
    out.push_back(std::move(nb));
    for (const auto &[id, state] : alive_in_order())
        out.push_back(device_birth(*id, *state, now_ms));
    return out;
}

std::vector<EdgeNode::Reading> EdgeNode::readings(const DeviceReading &device)
{
    std::vector<Reading> out;
    out.reserve(device.nodes.size());
    std::unordered_set<std::string> taken;
    taken.reserve(device.nodes.size());
    for (const NodeReading &n : device.nodes) {
        Reading r;
        r.node = &n;
        // Metric names must be distinct lower-cased within a device; the
        // daemon does not keep node names unique, their addresses tell
        // them apart. (A wrong pairing cannot last: the address is part of
        // the birth, so a mix-up shows as a changed set.)
        const std::string &given = !n.name.empty() ? n.name : n.addr;
        std::string name = !given.empty() ? given : "node";
        if (!taken.insert(folded(name)).second) {
            name += " (" + n.addr + ")";
            for (unsigned k = 2; !taken.insert(folded(name)).second; ++k)
                name = (given.empty() ? std::string("node") : given) + " (" + n.addr + ") #" +
                       std::to_string(k);
        }
        r.metric = std::move(name);
        NodeValue v = node_value(n.data_type, n.value);
        if (!v.parsed)
            ++unparsable_;
        r.datatype = v.datatype;
        r.value = std::move(v.value);
        out.push_back(std::move(r));
    }
    return out;
}

bool EdgeNode::same_set(const DeviceState &state, const std::vector<Reading> &now)
{
    for (const Reading &r : now) {
        const auto it = state.index.find(r.metric);
        if (it == state.index.end())
            return false;
        const MetricState &born_as = state.metrics[it->second];
        if (born_as.datatype != r.datatype || born_as.address != r.node->addr)
            return false;
    }
    return true;
}

Message EdgeNode::device_birth(const std::string &id, const DeviceState &state, uint64_t ts)
{
    Message m;
    m.type = sp::MsgType::DBIRTH;
    m.device = id;
    m.payload.timestamp = ts;
    m.payload.metrics.reserve(state.metrics.size());
    for (const MetricState &ms : state.metrics) {
        sp::Metric &out = m.payload.metrics.emplace_back();
        out.name = ms.name;
        out.datatype = ms.datatype;
        out.timestamp = ms.timestamp;
        out.value = ms.value;
        out.address = ms.address;
    }
    return m;
}

Message EdgeNode::device_death(const std::string &id, uint64_t ts)
{
    Message m;
    m.type = sp::MsgType::DDEATH;
    m.device = id;
    m.payload.timestamp = ts;
    return m;
}

// Does the cycle bring every metric of the birth, in the birth's order, each
// under its own node's name, address and datatype? Then the names it would be
// given are the birth's, and nothing else needs looking up.
bool EdgeNode::same_nodes(const DeviceState &state, const DeviceReading &device)
{
    if (device.nodes.size() != state.metrics.size())
        return false;
    for (size_t k = 0; k < device.nodes.size(); ++k) {
        const NodeReading &n = device.nodes[k];
        const MetricState &ms = state.metrics[k];
        if (!ms.node_named || ms.name != n.name || ms.address != n.addr ||
            ms.datatype != sparkplug_datatype(n.data_type))
            return false;
    }
    return true;
}

void EdgeNode::born_with(DeviceState &state, std::vector<Reading> &now, uint64_t ts)
{
    state.index.clear();
    state.metrics.clear();
    state.metrics.shrink_to_fit();
    state.metrics.reserve(now.size());
    for (Reading &r : now) {
        MetricState &ms = state.metrics.emplace_back();
        ms.node_named = r.metric == r.node->name;
        ms.name = std::move(r.metric);
        ms.address = r.node->addr;
        ms.datatype = r.datatype;
        ms.timestamp = ts;
        ms.value = std::move(r.value);
    }
    // Keys point into the metrics, which no longer move.
    state.index.reserve(state.metrics.size());
    for (size_t k = 0; k < state.metrics.size(); ++k)
        state.index.emplace(state.metrics[k].name, k);
}

template <typename Next>
Message EdgeNode::changes(const std::string &id, DeviceState &state, uint64_t ts, Next next)
{
    Message m;
    m.type = sp::MsgType::DDATA;
    m.device = id;
    m.payload.timestamp = ts;
    for (size_t k = 0; k < state.metrics.size(); ++k) {
        MetricState &ms = state.metrics[k];
        sp::Value v = next(k);
        if (same_value(ms.value, v))
            continue;
        ms.value = std::move(v);
        ms.timestamp = ts;
        if (m.payload.metrics.empty())
            m.payload.metrics.reserve(state.metrics.size() - k);
        sp::Metric &changed = m.payload.metrics.emplace_back();
        changed.name = ms.name;
        changed.timestamp = ts;
        changed.value = ms.value;
    }
    return m;
}

std::vector<std::pair<const std::string *, const EdgeNode::DeviceState *>>
EdgeNode::alive_in_order() const
{
    std::vector<std::pair<const std::string *, const DeviceState *>> out;
    for (const auto &[id, state] : devices_)
        if (state.alive)
            out.emplace_back(&id, &state);
    std::stable_sort(out.begin(), out.end(), [](const auto &a, const auto &b) {
        return a.second->position < b.second->position;
    });
    return out;
}

std::vector<Message> EdgeNode::on_cycle(const Cycle &cycle)
{
    const uint64_t ts = cycle.timestamp_ms;
    const std::vector<std::string> ids = device_ids(cycle.devices, config_.device_id);
    std::vector<Message> deaths, births, data;
    std::unordered_set<std::string> present;

    for (size_t i = 0; i < cycle.devices.size(); ++i) {
        const DeviceReading &dev = cycle.devices[i];
        const std::string &id = ids[i];
        present.insert(id);
        DeviceState &state = devices_[id];
        state.position = i;
        if (dev.nodes.empty()) {
            // The PLC did not answer the connection: the device is lost
            // until values come back.
            if (state.alive)
                deaths.push_back(device_death(id, ts));
            state.alive = false;
            state.dev_id = dev.dev_id;
            continue;
        }
        if (state.alive && state.dev_id == dev.dev_id && same_nodes(state, dev)) {
            // The nodes of the birth, in its order: node k is metric k.
            Message m = changes(id, state, ts, [&](size_t k) {
                const NodeReading &n = dev.nodes[k];
                NodeValue v = node_value(n.data_type, n.value);
                if (!v.parsed)
                    ++unparsable_;
                return std::move(v.value);
            });
            if (!m.payload.metrics.empty())
                data.push_back(std::move(m));
            continue;
        }
        std::vector<Reading> now = readings(dev);
        if (!state.alive || state.dev_id != dev.dev_id || !same_set(state, now)) {
            state.alive = true;
            state.dev_id = dev.dev_id;
            state.dev_name = dev.dev_name;
            born_with(state, now, ts);
            births.push_back(device_birth(id, state, ts));
            continue;
        }
        // Same set, nodes missing or in another order: metrics the cycle did
        // not bring were not read and go null.
        std::vector<Reading *> slot(state.metrics.size(), nullptr);
        for (Reading &r : now)
            slot[state.index.at(r.metric)] = &r;
        Message m = changes(id, state, ts, [&](size_t k) {
            return slot[k] != nullptr ? std::move(slot[k]->value) : sp::Value{};
        });
        if (!m.payload.metrics.empty())
            data.push_back(std::move(m));
    }

    // Devices no longer in the signal were deleted from the daemon.
    for (auto it = devices_.begin(); it != devices_.end();) {
        if (present.count(it->first) != 0) {
            ++it;
            continue;
        }
        if (it->second.alive)
            deaths.push_back(device_death(it->first, ts));
        it = devices_.erase(it);
    }

    std::vector<Message> out;
    out.reserve(deaths.size() + births.size() + data.size());
    for (auto *group : {&deaths, &births, &data})
        for (Message &m : *group)
            out.push_back(std::move(m));
    return out;
}

std::vector<Message> EdgeNode::on_daemon_gone(uint64_t now_ms)
{
    std::vector<Message> out;
    for (const auto &[id, state] : alive_in_order())
        out.push_back(device_death(*id, now_ms));
    // Whatever the daemon brings when it returns is born anew.
    devices_.clear();
    return out;
}

CommandResult EdgeNode::on_command(const std::string &topic, const std::string &payload) const
{
    CommandResult r;
    sp::Topic t;
    if (!sp::parse_topic(topic, t) || t.group != config_.group || t.edge != config_.edge_node ||
        (t.type != sp::MsgType::NCMD && t.type != sp::MsgType::DCMD)) {
        r.log_line = "message on " + topic + " is no command for this edge node: ignored";
        return r;
    }
    const char *kind = sp::msg_type_name(t.type);
    sp::Payload p;
    if (!sp::decode(payload, p)) {
        r.log_line = std::string(kind) + " on " + topic + " is not a Sparkplug payload (" +
                     std::to_string(payload.size()) + " bytes): ignored";
        return r;
    }
    if (t.type == sp::MsgType::DCMD) {
        r.log_line = "DCMD for " + t.device + " (" + joined_names(p.metrics) + ") refused: " +
                     kOnlyReads;
        return r;
    }
    std::vector<sp::Metric> refused;
    for (const sp::Metric &m : p.metrics) {
        if (m.name == kRebirth) {
            const bool *b = std::get_if<bool>(&m.value);
            if (b != nullptr && *b)
                r.rebirth = true;
            // Rebirth = false asks for nothing.
            continue;
        }
        refused.push_back(m);
    }
    if (!refused.empty())
        r.log_line = "NCMD " + joined_names(refused) + " refused: " + kOnlyReads;
    return r;
}

bool EdgeNode::born(const std::string &device, const std::string &metric, uint32_t datatype) const
{
    const auto d = devices_.find(device);
    if (d == devices_.end() || !d->second.alive)
        return false;
    const auto m = d->second.index.find(metric);
    return m != d->second.index.end() && d->second.metrics[m->second].datatype == datatype;
}

std::vector<std::string> EdgeNode::alive_devices() const
{
    std::vector<std::string> out;
    for (const auto &[id, state] : alive_in_order())
        out.push_back(*id);
    return out;
}

std::vector<Message> EdgeNode::set_node_metric(const std::string &name, uint64_t value,
                                               uint64_t now_ms)
{
    const auto it = node_metrics_.find(name);
    if (it != node_metrics_.end() && it->second == value)
        return {};
    const bool is_new = it == node_metrics_.end();
    node_metrics_[name] = value;
    Message m;
    m.type = sp::MsgType::NDATA;
    m.payload.timestamp = now_ms;
    sp::Metric metric;
    metric.name = name;
    // A metric the current NBIRTH lacks comes with its datatype: a host that
    // does not know it asks for a rebirth, and the next NBIRTH has it.
    metric.datatype = is_new ? uint32_t{sp::UInt64} : 0u;
    metric.timestamp = now_ms;
    metric.value = value;
    m.payload.metrics.push_back(std::move(metric));
    return {m};
}

} // namespace bridge
