#include "publisher.h"

#include <glib.h>
#include <glib/gstdio.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
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

SparkplugSession::SparkplugSession(EdgeNode &node, Transport &transport, std::string state_dir)
    : node_(node), transport_(transport),
      bd_file_(std::move(state_dir), node.config().group, node.config().edge_node)
{
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
    publish_births();
}

void SparkplugSession::publish_births()
{
    seq_ = 0; // NBIRTH always carries 0
    for (Message &m : node_.births(bd_seq_.value_or(0), now_ms()))
        send(m);
}

void SparkplugSession::send(Message &msg)
{
    if (!transport_.connected()) {
        unsendable(msg);
        return;
    }
    msg.payload.seq = seq_;
    seq_ = (seq_ + 1) % 256;
    // Refused while connected (the broker does not keep up): its seq stays
    // spent, so that a host sees the gap and asks for a rebirth.
    if (transport_.publish(topic_of(msg), sp::encode(msg.payload), QOS_DATA, false) < 0)
        unsendable(msg);
}

// A message the broker cannot take now. Every new session starts with
// births carrying current values, so what is lost here is the history of
// the gap; a store that keeps it for later belongs in this place.
void SparkplugSession::unsendable(const Message &)
{
    ++unsent_;
}

void SparkplugSession::cycle(const Cycle &cycle)
{
    // The model follows every cycle, connected or not, so that the next
    // births carry what is current.
    for (Message &m : node_.on_cycle(cycle))
        send(m);
    note_unparsable(node_.unparsable_values());
}

void SparkplugSession::daemon_gone()
{
    for (Message &m : node_.on_daemon_gone(now_ms()))
        send(m);
}

void SparkplugSession::command(const std::string &topic, const std::string &payload)
{
    const CommandResult r = node_.on_command(topic, payload);
    if (!r.log_line.empty())
        g_message("%s", r.log_line.c_str());
    if (r.rebirth) {
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

JsonSession::JsonSession(const EdgeNodeConfig &ids, std::string prefix, Transport &transport)
    : ids_(ids), prefix_(std::move(prefix)), transport_(transport)
{
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
}

void JsonSession::cycle(const Cycle &cycle)
{
    const std::vector<std::string> ids = device_ids(cycle.devices, ids_.device_id);
    for (size_t i = 0; i < cycle.devices.size(); ++i) {
        const std::string topic = prefix_ + "/" + ids[i];
        const std::string body = json_message(cycle.devices[i], cycle.timestamp_ms, &unparsable_);
        if (transport_.publish(topic, body, QOS_DATA, false) < 0)
            unsendable(topic, body);
    }
    note_unparsable(unparsable_);
}

// As in Sparkplug mode: the place where a store would keep the message.
void JsonSession::unsendable(const std::string &, const std::string &)
{
    ++unsent_;
}

int JsonSession::farewell()
{
    return transport_.publish(prefix_ + "/status", "offline", QOS_DEATH, true);
}

} // namespace bridge
