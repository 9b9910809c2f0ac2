#include "traffic.h"

#include <gtest/gtest.h>
#include <mosquitto.h>

#include "values.h"

namespace bridgetest {

using dstest::wait_until;

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
