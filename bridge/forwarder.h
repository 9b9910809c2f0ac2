// Store-and-forward for a session: while the session cannot publish (no
// broker, the primary host offline), or while older messages still wait,
// new data messages go to the on-disk store behind them; once the session
// is live again they are replayed oldest first, a bounded window at a time
// from the main loop, and each leaves the store only after libmosquitto has
// written it. A crash thus sends at most the window's messages twice, and
// never one before an older one.
#pragma once

#include <glib.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "store.h"

namespace bridge {

class Forwarder {
public:
    // What `send` returns for a stored message that has nothing left worth
    // publishing: it leaves the store without going out.
    static constexpr int SKIPPED = -2;
    // Publishes a stored message: its message id, SKIPPED, or -1 when the
    // transport does not take it now (tried again later).
    using Send = std::function<int(const StoredMessage &)>;

    // `store` may be null: nothing is kept, and `holding` is always false.
    Forwarder(Store *store, Send send);
    ~Forwarder();
    Forwarder(const Forwarder &) = delete;
    Forwarder &operator=(const Forwarder &) = delete;

    bool enabled() const { return store_ != nullptr; }
    // Must a new data message go to the store rather than out?
    bool holding() const { return store_ != nullptr && (!live_ || replaying_); }
    bool replaying() const { return replaying_; }

    // Keeps messages, in order. While live, this starts a replay, so that
    // what comes after them waits too. False when the disk refused them.
    bool keep(const std::vector<Store::Item> &items);
    // Values dropped by the cap since the store was made.
    uint64_t dropped() const { return store_ != nullptr ? store_->dropped_values() : 0; }

    // The session can publish now: replay whatever waits.
    void start();
    // The session ended: messages in flight stay stored and go again in the
    // next one.
    void stop();
    // libmosquitto wrote (QoS 0) or the broker acknowledged this message.
    void delivered(int mid);

private:
    struct InFlight {
        int64_t id;
        int mid;
        size_t bytes;
        bool done;
    };
    static gboolean on_step(gpointer self);
    void schedule();
    void step();
    void settle();
    void forget_done();

    Store *store_;
    Send send_;
    bool live_ = false;
    bool replaying_ = false;
    bool stalled_ = false;          // the transport refused: wait for any delivery
    guint step_id_ = 0;
    int64_t cursor_ = 0;            // the last stored id handed to send_
    int64_t removable_ = 0;         // every id up to this one has been written
    std::deque<InFlight> inflight_;
    size_t inflight_bytes_ = 0;
    bool sending_ = false;
    std::unordered_set<int> early_; // written within the publish call itself
    bool failed_logged_ = false;
};

} // namespace bridge
