// The bridge's store-and-forward queue: messages that could not be
// published (broker away, primary host offline, or older messages still
// waiting), kept on disk in order until they are sent. SQLite in WAL mode
// in the state directory; bounded in size, oldest dropped first.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace bridge {

struct StoredMessage {
    int64_t id = 0;           // increasing: the order of append
    std::string topic;        // where it goes (JSON mode), or the device id (Sparkplug)
    uint64_t timestamp_ms = 0;
    uint32_t values = 0;      // how many values it carries (for counts and the cap's report)
    std::string body;         // the payload as it will be published (without seq)
};

class Store {
public:
    // Opens or creates the store at `path` with a cap of `max_bytes` on disk.
    // A file that is not a usable store is renamed aside (path + ".corrupt-<time>")
    // and a new one started; `notice` then holds the line to log.
    // nullptr when not even a new store can be made, or when another process
    // has it open (`notice` says why). A cap below 256 KiB is taken as 256 KiB.
    // One thread uses a Store.
    static std::unique_ptr<Store> open(const std::string &path, uint64_t max_bytes,
                                       std::string *notice);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Appends messages in one transaction, in order (a batch of more than
    // 1 MiB, or a thirty-second of a smaller cap, goes in several, in order).
    // When the store would pass its cap, the oldest go first; their values
    // are added to dropped_values(), as are those of a message larger than
    // one such transaction (it cannot be kept within the cap).
    // False when the disk refused (the caller logs once and goes on).
    struct Item {
        std::string_view topic;
        uint64_t timestamp_ms;
        uint32_t values;
        std::string_view body;
    };
    bool append(const std::vector<Item> &items);

    // Up to `max` of the oldest messages with an id above `after`, oldest
    // first; they stay stored. Ids are never reused, so a reader that has
    // messages in flight goes on after the last one it took.
    std::vector<StoredMessage> peek(size_t max, int64_t after = 0) const;
    // Removes every message with id <= `id` (they have been sent).
    bool remove_through(int64_t id);

    bool empty() const;
    uint64_t count() const;
    // Values dropped by the cap since the store was created (kept on disk).
    uint64_t dropped_values() const;
    // Bytes the store takes on disk now (database, WAL).
    uint64_t disk_bytes() const;
    // Why the last append, peek or remove failed (for the caller's log line).
    const std::string &last_error() const;

private:
    struct Impl;
    explicit Store(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace bridge
