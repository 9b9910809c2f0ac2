#include "publisher.h"

#include <glib.h>
#include <glib/gstdio.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <fstream>

#include "device_ids.h"
#include "json_message.h"

namespace bridge {

namespace {

constexpr int QOS_DEATH = 1;   // the Will and a planned NDEATH
constexpr int QOS_COMMAND = 1; // our NCMD/DCMD subscriptions
constexpr int QOS_DATA = 0;    // births, data and device deaths

uint64_t now_ms()
{
    return static_cast<uint64_t>(g_get_real_time() / 1000);
}

} // namespace

void Session::note_unparsable(uint64_t total)
{
    // A node whose text never reads would say so every cycle: the count is
    // logged when it first moves and then each time it has doubled.
    if (total < next_unparsable_report_)
        return;
    g_message("values that did not read for their type so far: %llu (published as null)",
              static_cast<unsigned long long>(total));
    next_unparsable_report_ = total * 2;
}

bool Session::note_dropped(uint64_t total)
{
    if (total == dropped_seen_)
        return false;
    dropped_seen_ = total;
    if (total >= next_dropped_report_) {
        g_message("the store was full: %llu values dropped so far, the oldest first",
                  static_cast<unsigned long long>(total));
        next_dropped_report_ = total * 2;
    }
    return true;
}

void Session::report_unsent()
{
    if (unsent_ != 0)
        g_message("%llu message%s could not be published while the broker was away",
                  static_cast<unsigned long long>(unsent_), unsent_ == 1 ? "" : "s");
    unsent_ = 0;
}

BdSeqFile::BdSeqFile(std::string state_dir, const std::string &group, const std::string &edge_node)
    : dir_(std::move(state_dir)), path_(dir_ + "/bdseq-" + group + "-" + edge_node)
{
}

bool BdSeqFile::next(uint64_t &out, std::string &error)
{
    if (g_mkdir_with_parents(dir_.c_str(), 0700) != 0) {
        error = "cannot make the state directory " + dir_ + ": " + g_strerror(errno);
        return false;
    }
    uint64_t value = 0;
    std::ifstream in(path_);
    std::string text;
    if (in && std::getline(in, text)) {
        guint64 last = 0;
        if (g_ascii_string_to_unsigned(text.c_str(), 10, 0, 255, &last, nullptr))
            value = (last + 1) % 256;
        else
            g_warning("%s holds no session number (0-255); starting again from 0", path_.c_str());
    }
    in.close();
    // Written and synced in full before it is renamed over the old one: a
    // crash or a power cut leaves either value, never half of one.
    const std::string tmp = path_ + ".new";
    const std::string text_out = std::to_string(value) + "\n";
    const int fd = g_open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot write " + tmp + ": " + g_strerror(errno);
        return false;
    }
    const bool written = write(fd, text_out.data(), text_out.size()) == static_cast<ssize_t>(text_out.size()) &&
                         fsync(fd) == 0;
    const int saved = errno;
    close(fd);
    if (!written) {
        error = "cannot write " + tmp + ": " + g_strerror(saved);
        g_unlink(tmp.c_str());
        return false;
    }
    if (g_rename(tmp.c_str(), path_.c_str()) != 0) {
        error = "cannot replace " + path_ + ": " + g_strerror(errno);
        g_unlink(tmp.c_str());
        return false;
    }
    out = value;
    return true;
}

SparkplugSession::SparkplugSession(EdgeNode &node, Transport &transport, std::string state_dir,
                                   Store *store, const std::string &primary_host)
    : node_(node), transport_(transport),
      bd_file_(std::move(state_dir), node.config().group, node.config().edge_node),
      forwarder_(store, [this](const StoredMessage &m) { return replay(m); })
{
    if (!primary_host.empty())
        host_.emplace(primary_host);
    if (store != nullptr) {
        // In every NBIRTH from the first on, with what earlier runs dropped.
        note_dropped(store->dropped_values());
        node_.set_node_metric(DROPPED_METRIC, store->dropped_values(), now_ms());
    }
}

std::string SparkplugSession::topic_of(const Message &msg) const
{
    return sp::topic(node_.config().group, msg.type, node_.config().edge_node, msg.device);
}

bool SparkplugSession::before_connect(std::string &error)
{
    uint64_t bd = 0;
    if (!bd_file_.next(bd, error))
        return false;
    bd_seq_ = bd;
    const Message death = node_.death(bd);
    if (!transport_.set_will(topic_of(death), sp::encode(death.payload), QOS_DEATH, false)) {
        error = "cannot set the Will";
        return false;
    }
    return true;
}

void SparkplugSession::connected()
{
    const auto &c = node_.config();
    // Commands first, so that a host answering our births with a rebirth
    // request is heard.
    transport_.subscribe(sp::topic(c.group, sp::MsgType::NCMD, c.edge_node), QOS_COMMAND);
    transport_.subscribe(sp::topic(c.group, sp::MsgType::DCMD, c.edge_node, "+"), QOS_COMMAND);
    report_unsent();
    if (host_) {
        // Births wait for the host's STATE, which the broker sends (retained)
        // right after this subscription.
        host_->on_new_session();
        transport_.subscribe(host_->topic(), QOS_COMMAND);
        return;
    }
    go_live();
}

void SparkplugSession::delivered(int mid)
{
    if (mid == death_mid_) {
        death_mid_ = -1;
        transport_.restart();
        return;
    }
    forwarder_.delivered(mid);
}

void SparkplugSession::disconnected()
{
    death_mid_ = -1;
    born_out_ = false;
    forwarder_.stop();
}

// Births with current values, then what was stored, oldest first. A bridge
// that has not yet had a cycle since it started knows no device: its
// stored data wait for the first cycle's births rather than be left out.
void SparkplugSession::go_live()
{
    publish_births();
    if (cycles_seen_)
        forwarder_.start();
}

void SparkplugSession::publish_births()
{
    seq_ = 0; // NBIRTH always carries 0
    born_out_ = true;
    for (Message &m : node_.births(bd_seq_.value_or(0), now_ms()))
        send(m);
}

void SparkplugSession::send(Message &msg)
{
    if (!live()) {
        ++unsent_; // births and deaths: the next births say what is current
        return;
    }
    msg.payload.seq = seq_;
    seq_ = (seq_ + 1) % 256;
    // Refused while connected (the broker does not keep up): its seq stays
    // spent, so that a host sees the gap and asks for a rebirth.
    if (transport_.publish(topic_of(msg), sp::encode(msg.payload), QOS_DATA, false) >= 0)
        return;
    if (msg.type == sp::MsgType::DDATA && forwarder_.enabled()) {
        msg.payload.seq.reset();
        Message *const one = &msg;
        keep({&one, 1}); // what follows now waits behind it
        return;
    }
    ++unsent_;
}

void SparkplugSession::keep(std::span<Message *const> msgs)
{
    std::vector<Store::Item> items;
    std::vector<std::string> bodies;
    bodies.reserve(msgs.size()); // the items point into them
    for (Message *msg : msgs) {
        // Stored with its datatype, which data messages otherwise leave out:
        // a replay sends only metrics born now with the same type.
        for (sp::Metric &m : msg->payload.metrics) {
            m.historical = true;
            if (m.datatype == 0)
                m.datatype = born_datatype(msg->device, m);
        }
        bodies.push_back(sp::encode(msg->payload));
        items.push_back({msg->device, msg->payload.timestamp,
                         static_cast<uint32_t>(msg->payload.metrics.size()), bodies.back()});
    }
    if (!forwarder_.keep(items))
        unsent_ += items.size();
    count_dropped();
}

// Data while the session cannot publish, or behind stored data, go to the
// store: the rest goes out (or is counted) as before.
void SparkplugSession::send(std::vector<Message> &msgs)
{
    std::vector<Message *> held;
    std::vector<Message> values_of_births;
    values_of_births.reserve(msgs.size()); // `held` points into it
    for (Message &m : msgs) {
        if (m.type == sp::MsgType::DDATA && forwarder_.holding()) {
            held.push_back(&m);
        } else if (m.type == sp::MsgType::DBIRTH && !live() && forwarder_.enabled()) {
            // The birth itself waits for the next session, which sends births
            // anyway; the values read in this cycle are kept like any change.
            Message &data = values_of_births.emplace_back();
            data.type = sp::MsgType::DDATA;
            data.device = m.device;
            data.payload.timestamp = m.payload.timestamp;
            for (const sp::Metric &b : m.payload.metrics) {
                sp::Metric &v = data.payload.metrics.emplace_back();
                v.name = b.name;
                v.datatype = b.datatype;
                v.timestamp = b.timestamp;
                v.value = b.value;
            }
            held.push_back(&data);
        } else {
            send(m);
        }
    }
    if (!held.empty())
        keep(held);
}

// The datatype `m` was born with: data messages come from the model, so
// their metrics are born, and the value's kind narrows the candidates.
uint32_t SparkplugSession::born_datatype(const std::string &device, const sp::Metric &m) const
{
    static constexpr uint32_t narrow[] = {sp::UInt32, sp::Int32, sp::UInt16, sp::Int16, sp::UInt8, sp::Int8};
    static constexpr uint32_t wide[] = {sp::UInt64, sp::Int64};
    static constexpr uint32_t any[] = {sp::UInt32, sp::Int32, sp::UInt16, sp::Int16, sp::UInt8, sp::Int8,
                                       sp::UInt64, sp::Int64, sp::Float, sp::Double, sp::Boolean, sp::String};
    auto first_born = [&](const auto &candidates) -> uint32_t {
        for (uint32_t t : candidates)
            if (node_.born(device, m.name, t))
                return t;
        return 0;
    };
    if (std::holds_alternative<uint32_t>(m.value))
        return first_born(narrow);
    if (std::holds_alternative<uint64_t>(m.value))
        return first_born(wide);
    if (std::holds_alternative<float>(m.value))
        return first_born(std::initializer_list<uint32_t>{sp::Float});
    if (std::holds_alternative<double>(m.value))
        return first_born(std::initializer_list<uint32_t>{sp::Double});
    if (std::holds_alternative<bool>(m.value))
        return first_born(std::initializer_list<uint32_t>{sp::Boolean});
    if (std::holds_alternative<std::string>(m.value))
        return first_born(std::initializer_list<uint32_t>{sp::String});
    return first_born(any);
}

// A stored DDATA going out now: only the metrics born in this session, with
// the type they were stored with, and the session's next seq.
int SparkplugSession::replay(const StoredMessage &stored)
{
    sp::Payload p;
    if (!sp::decode(stored.body, p)) {
        g_warning("a stored message for %s does not decode: left out", stored.topic.c_str());
        return Forwarder::SKIPPED;
    }
    const size_t all = p.metrics.size();
    std::erase_if(p.metrics, [&](const sp::Metric &m) { return !node_.born(stored.topic, m.name, m.datatype); });
    if (p.metrics.empty())
        return Forwarder::SKIPPED; // its device or metrics have gone since
    std::string body;
    if (p.metrics.size() == all) {
        body = sp::with_seq(stored.body, seq_);
    } else {
        p.seq = seq_;
        body = sp::encode(p);
    }
    const auto &c = node_.config();
    const int mid = transport_.publish(sp::topic(c.group, sp::MsgType::DDATA, c.edge_node, stored.topic),
                                       body, QOS_DATA, false);
    if (mid >= 0)
        seq_ = (seq_ + 1) % 256;
    return mid;
}

void SparkplugSession::count_dropped()
{
    const uint64_t dropped = forwarder_.dropped();
    if (!note_dropped(dropped))
        return;
    std::vector<Message> msgs = node_.set_node_metric(DROPPED_METRIC, dropped, now_ms());
    for (Message &m : msgs)
        if (live())
            send(m);
}

void SparkplugSession::cycle(const Cycle &cycle)
{
    // The model follows every cycle, connected or not, so that the next
    // births carry what is current.
    std::vector<Message> msgs = node_.on_cycle(cycle);
    send(msgs);
    note_unparsable(node_.unparsable_values());
    if (!cycles_seen_) {
        cycles_seen_ = true;
        if (live())
            forwarder_.start();
    }
}

void SparkplugSession::daemon_gone()
{
    std::vector<Message> msgs = node_.on_daemon_gone(now_ms());
    send(msgs);
}

void SparkplugSession::host_state(const std::string &payload)
{
    const PrimaryHost::Outcome o = host_->on_message(host_->topic(), payload);
    const char *host = host_->host_id().c_str();
    switch (o.verdict) {
    case PrimaryHost::Verdict::Online:
    case PrimaryHost::Verdict::Offline:
        g_message("primary host %s is %s", host, verdict_name(o.verdict));
        break;
    case PrimaryHost::Verdict::Stale:
    case PrimaryHost::Verdict::Ignored:
        g_message("primary host %s: STATE %s (%s)", host, verdict_name(o.verdict), o.reason.c_str());
        break;
    }
    if (o.action == PrimaryHost::Action::PublishBirths && transport_.connected() && !born_out_) {
        go_live();
    } else if (o.action == PrimaryHost::Action::EndSession && born_out_) {
        // The host cannot follow us now: our death tells it so, and the
        // session starts over (a new bdSeq) to wait for it, storing meanwhile.
        // The disconnect waits for the broker's acknowledgement: libmosquitto
        // would send an unacknowledged death again in the next session.
        const Message death = node_.death(bd_seq_.value_or(0));
        death_mid_ = transport_.publish(topic_of(death), sp::encode(death.payload), QOS_DEATH, false);
        born_out_ = false;
        forwarder_.stop();
        if (death_mid_ < 0)
            transport_.restart();
    }
}

void SparkplugSession::command(const std::string &topic, const std::string &payload)
{
    if (host_ && topic == host_->topic()) {
        host_state(payload);
        return;
    }
    const CommandResult r = node_.on_command(topic, payload);
    if (!r.log_line.empty())
        g_message("%s", r.log_line.c_str());
    if (r.rebirth && born_out_) {
        g_message("rebirth requested: NBIRTH and every DBIRTH again");
        publish_births();
    }
}

int SparkplugSession::farewell()
{
    if (!transport_.connected() || !bd_seq_)
        return -1;
    const Message death = node_.death(*bd_seq_);
    return transport_.publish(topic_of(death), sp::encode(death.payload), QOS_DEATH, false);
}

JsonSession::JsonSession(const EdgeNodeConfig &ids, std::string prefix, Transport &transport,
                         Store *store)
    : ids_(ids), prefix_(std::move(prefix)), transport_(transport),
      forwarder_(store, [this](const StoredMessage &m) {
          // The body already holds the cycle's own timestamp.
          return transport_.publish(m.topic, m.body, QOS_DATA, false);
      })
{
    if (store != nullptr)
        note_dropped(store->dropped_values());
}

bool JsonSession::before_connect(std::string &error)
{
    if (!transport_.set_will(prefix_ + "/status", "offline", QOS_DEATH, true)) {
        error = "cannot set the Will";
        return false;
    }
    return true;
}

void JsonSession::connected()
{
    report_unsent();
    transport_.publish(prefix_ + "/status", "online", QOS_DEATH, true);
    forwarder_.start();
}

void JsonSession::cycle(const Cycle &cycle)
{
    const std::vector<std::string> ids = device_ids(cycle.devices, ids_.device_id);
    std::vector<std::string> topics, bodies;
    topics.reserve(cycle.devices.size()); // the items point into them
    bodies.reserve(cycle.devices.size());
    std::vector<Store::Item> items;
    for (size_t i = 0; i < cycle.devices.size(); ++i) {
        const DeviceReading &dev = cycle.devices[i];
        std::string topic = prefix_ + "/" + ids[i];
        std::string body = json_message(dev, cycle.timestamp_ms, &unparsable_);
        if (!forwarder_.holding() && transport_.publish(topic, body, QOS_DATA, false) >= 0)
            continue;
        if (!forwarder_.enabled()) {
            ++unsent_;
            continue;
        }
        topics.push_back(std::move(topic));
        bodies.push_back(std::move(body));
        items.push_back({topics.back(), cycle.timestamp_ms, static_cast<uint32_t>(dev.nodes.size()),
                         bodies.back()});
        if (!forwarder_.holding()) { // refused while live: what follows waits behind it
            if (!forwarder_.keep(items))
                ++unsent_;
            items.clear();
        }
    }
    if (!items.empty() && !forwarder_.keep(items))
        unsent_ += items.size();
    note_dropped(forwarder_.dropped());
    note_unparsable(unparsable_);
}

int JsonSession::farewell()
{
    return transport_.publish(prefix_ + "/status", "offline", QOS_DEATH, true);
}

} // namespace bridge
