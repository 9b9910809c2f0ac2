// The edge node's model, free of I/O: which devices are born with which
// metrics, their last values, and the Sparkplug messages a cycle, a command
// or a new session calls for. seq and bdSeq are the session's (publisher)
// business: messages come out without seq, in the order they must be sent.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "cycle.h"
#include "device_ids.h"
#include "sparkplug.h"

namespace bridge {

struct EdgeNodeConfig {
    std::string group = "device-service";
    std::string edge_node;            // the host name by default (set by the program)
    DeviceIdMode device_id = DeviceIdMode::Name;
};

struct Message {
    sp::MsgType type = sp::MsgType::NDATA;
    std::string device;               // Sparkplug device_id; empty for node messages
    sp::Payload payload;              // seq left empty
};

struct CommandResult {
    bool rebirth = false;             // NCMD Node Control/Rebirth = true
    std::string log_line;             // what to log (refused writes, unknown commands); may be empty
};

class EdgeNode {
public:
    explicit EdgeNode(EdgeNodeConfig config);

    const EdgeNodeConfig &config() const { return config_; }

    // NDEATH with this bdSeq: the Will, and what a planned disconnect sends.
    Message death(uint64_t bd_seq) const;
    // NBIRTH (bdSeq, Node Control/Rebirth = false, the edge node's own
    // metrics) then a DBIRTH for every device alive now, with current values.
    std::vector<Message> births(uint64_t bd_seq, uint64_t now_ms) const;

    // Takes a cycle into the model. Returns, in order: DDEATH for devices
    // gone from the signal or published with no node; DBIRTH for devices
    // new, back, or whose metric set changed (name, datatype, address);
    // DDATA with the metrics that changed (a node missing from a device
    // that was read: null once).
    std::vector<Message> on_cycle(const Cycle &cycle);
    // The daemon left the bus: DDEATH for every alive device.
    std::vector<Message> on_daemon_gone(uint64_t now_ms);
    // An NCMD/DCMD arrived on `topic`.
    CommandResult on_command(const std::string &topic, const std::string &payload) const;

    // Is this metric, with this datatype, in the current birth of `device`?
    // (Stored values of metrics that are not are left out of a replay.)
    bool born(const std::string &device, const std::string &metric, uint32_t datatype) const;
    std::vector<std::string> alive_devices() const;

    // Values whose text did not parse for their type (published as null).
    uint64_t unparsable_values() const { return unparsable_; }
    // Edge-node metrics set by the program (e.g. "Store/Dropped"): carried in
    // NBIRTH and, when they change, in NDATA (returned).
    std::vector<Message> set_node_metric(const std::string &name, uint64_t value, uint64_t now_ms);

private:
    struct MetricState {
        std::string name;             // the metric's name in the birth
        std::string address;          // the node's address: a property in births
        sp::Value value;              // the last one published
        uint64_t timestamp = 0;       // ... and when it was read
        uint32_t datatype = 0;
        bool node_named = false;      // name is the node's own (no suffix added)
    };
    struct DeviceState {
        uint32_t dev_id = 0;
        std::string dev_name;
        bool alive = false;
        size_t position = 0;                         // place in the latest cycle
        std::vector<MetricState> metrics;            // in node order: the birth's set
        // metric name -> metrics[]; the keys are the metrics' own names.
        std::unordered_map<std::string_view, size_t> index;

        DeviceState() = default;
        DeviceState(DeviceState &&) = default;
        DeviceState &operator=(DeviceState &&) = default;
        // A copy would keep keys into the other state's metrics.
        DeviceState(const DeviceState &) = delete;
        DeviceState &operator=(const DeviceState &) = delete;
    };
    struct Reading {
        std::string metric;       // the node's name, made distinct within its device
        const NodeReading *node = nullptr;
        uint32_t datatype = 0;
        sp::Value value;
    };
    std::vector<Reading> readings(const DeviceReading &device);
    static bool same_set(const DeviceState &state, const std::vector<Reading> &now);
    static bool same_nodes(const DeviceState &state, const DeviceReading &device);
    static void born_with(DeviceState &state, std::vector<Reading> &now, uint64_t ts);
    // The DDATA of a device whose set is unchanged: `next(k)` is metric k's
    // value in this cycle (null when it was not read).
    template <typename Next>
    static Message changes(const std::string &id, DeviceState &state, uint64_t ts, Next next);
    static Message device_birth(const std::string &id, const DeviceState &state, uint64_t ts);
    static Message device_death(const std::string &id, uint64_t ts);
    std::vector<std::pair<const std::string *, const DeviceState *>> alive_in_order() const;

    EdgeNodeConfig config_;
    std::map<std::string, DeviceState> devices_;     // by Sparkplug device_id
    std::map<std::string, uint64_t> node_metrics_;
    uint64_t unparsable_ = 0;
};

} // namespace bridge
