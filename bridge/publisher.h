// The bridge's MQTT session: what goes out, in which order, with which
// QoS, retain flag and sequence number, over a Transport.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "cycle.h"
#include "edge_node.h"
#include "forwarder.h"
#include "host_state.h"
#include "mqtt.h"
#include "store.h"

namespace bridge {

// The birth/death counter of the edge node, 0..255, kept in a file of the
// state directory so that a restarted bridge goes on counting: a host that
// saw the NDEATH of one session must not mistake it for the next one's.
class BdSeqFile {
public:
    BdSeqFile(std::string state_dir, const std::string &group, const std::string &edge_node);
    // The value for the next CONNECT (0 the first time, then +1, 255 -> 0),
    // written before it is used. False with `error` when it cannot be kept.
    bool next(uint64_t &out, std::string &error);
    const std::string &path() const { return path_; }

private:
    std::string dir_;
    std::string path_;
};

// What the program drives, whatever the mode.
class Session {
public:
    virtual ~Session() = default;
    // Before each CONNECT: sets the Will. False with `error` stops the bridge.
    virtual bool before_connect(std::string &error) = 0;
    virtual void connected() = 0;
    virtual void disconnected() {}
    virtual void cycle(const Cycle &cycle) = 0;
    virtual void daemon_gone() {}
    virtual void command(const std::string &topic, const std::string &payload) = 0;
    // libmosquitto wrote (QoS 0) or the broker acknowledged message `mid`.
    virtual void delivered(int mid) = 0;
    // Planned stop: publishes the goodbye (QoS 1). The message id to wait
    // for before disconnecting, or -1 when there is nothing to wait for.
    virtual int farewell() = 0;
    // Messages that could not go out (no broker) and were not stored.
    uint64_t unsent() const { return unsent_; }

protected:
    // Logs the store's dropped count when it first moves and each time it
    // has doubled; true when it moved.
    bool note_dropped(uint64_t total);
    // At the start of a session: how much the gap cost, once.
    void report_unsent();
    // Values whose text did not read for their type, in all.
    void note_unparsable(uint64_t total);
    uint64_t unsent_ = 0;

private:
    uint64_t next_unparsable_report_ = 1;
    uint64_t dropped_seen_ = 0;
    uint64_t next_dropped_report_ = 1;
};

// A Sparkplug B edge node session. With a store, DDATA that cannot go out
// now are kept with is_historical set and replayed after the births; with a
// primary host, births wait for its online STATE and its going offline ends
// the session.
class SparkplugSession final : public Session {
public:
    // The edge-node metric counting values the store's cap dropped.
    static constexpr const char *DROPPED_METRIC = "Store/Dropped Values";

    SparkplugSession(EdgeNode &node, Transport &transport, std::string state_dir,
                     Store *store = nullptr, const std::string &primary_host = {});

    bool before_connect(std::string &error) override;
    void connected() override;
    void cycle(const Cycle &cycle) override;
    void daemon_gone() override;
    void disconnected() override;
    void command(const std::string &topic, const std::string &payload) override;
    void delivered(int mid) override;
    int farewell() override;

    std::optional<uint64_t> bd_seq() const { return bd_seq_; }

private:
    bool live() const { return transport_.connected() && born_out_; }
    void go_live();
    void publish_births();
    void send(std::vector<Message> &msgs);
    void send(Message &msg);
    void keep(std::span<Message *const> msgs);
    uint32_t born_datatype(const std::string &device, const sp::Metric &m) const;
    int replay(const StoredMessage &stored);
    void host_state(const std::string &payload);
    void count_dropped();
    std::string topic_of(const Message &msg) const;

    EdgeNode &node_;
    Transport &transport_;
    BdSeqFile bd_file_;
    std::optional<PrimaryHost> host_;
    Forwarder forwarder_;
    std::optional<uint64_t> bd_seq_; // the Will's, and so the session's
    uint64_t seq_ = 0;               // the next message's
    bool born_out_ = false;          // NBIRTH sent in this session
    int death_mid_ = -1;             // our NDEATH before leaving for an offline host
    bool cycles_seen_ = false;       // a cycle has come since the program started
};

// JSON mode: a message per device per cycle, and a retained status.
class JsonSession final : public Session {
public:
    JsonSession(const EdgeNodeConfig &ids, std::string prefix, Transport &transport,
                Store *store = nullptr);

    bool before_connect(std::string &error) override;
    void connected() override;
    void cycle(const Cycle &cycle) override;
    void disconnected() override { forwarder_.stop(); }
    void command(const std::string &, const std::string &) override {}
    void delivered(int mid) override { forwarder_.delivered(mid); }
    int farewell() override;

    uint64_t unparsable() const { return unparsable_; }

private:
    EdgeNodeConfig ids_;
    std::string prefix_;
    Transport &transport_;
    Forwarder forwarder_;
    uint64_t unparsable_ = 0;
};

} // namespace bridge
