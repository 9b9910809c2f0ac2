#include "forwarder.h"

#include <algorithm>

namespace bridge {

namespace {

// What may be handed to libmosquitto and not yet written: small enough to
// stay well inside the client's own bound on waiting bytes, so that live
// messages still find room, and large enough to keep the socket busy.
constexpr size_t WINDOW_MESSAGES = 256;
constexpr size_t WINDOW_BYTES = 1u << 20;
// Messages read from the store per turn of the main loop.
constexpr size_t BATCH = 64;

} // namespace

Forwarder::Forwarder(Store *store, Send send) : store_(store), send_(std::move(send))
{
}

Forwarder::~Forwarder()
{
    if (step_id_ != 0)
        g_source_remove(step_id_);
}

bool Forwarder::keep(const std::vector<Store::Item> &items)
{
    if (store_ == nullptr || items.empty())
        return store_ != nullptr;
    const bool first = store_->empty();
    if (!store_->append(items)) {
        if (!failed_logged_)
            g_warning("cannot store messages (%s): they are lost", store_->last_error().c_str());
        failed_logged_ = true;
        return false;
    }
    failed_logged_ = false;
    if (first)
        g_message("storing data until they can be published");
    if (live_ && !replaying_) {
        replaying_ = true;
        schedule();
    }
    return true;
}

void Forwarder::start()
{
    if (store_ == nullptr || live_)
        return;
    live_ = true;
    stalled_ = false;
    cursor_ = 0;
    replaying_ = !store_->empty();
    if (replaying_) {
        g_message("sending %llu stored message%s, oldest first",
                  static_cast<unsigned long long>(store_->count()), store_->count() == 1 ? "" : "s");
        schedule();
    }
}

void Forwarder::stop()
{
    live_ = false;
    if (step_id_ != 0) {
        g_source_remove(step_id_);
        step_id_ = 0;
    }
    forget_done();
    // Not known to be written: they stay stored and go again, first.
    inflight_.clear();
    inflight_bytes_ = 0;
    cursor_ = 0;
    stalled_ = false;
}

void Forwarder::delivered(int mid)
{
    const auto it = std::find_if(inflight_.begin(), inflight_.end(),
                                 [mid](const InFlight &f) { return f.mid == mid && !f.done; });
    // libmosquitto writes what waited before the message being published,
    // and may write that one too before its id is known to us.
    if (sending_ && it == inflight_.end()) {
        early_.insert(mid);
        return;
    }
    const bool ours = it != inflight_.end();
    if (ours) {
        it->done = true;
        settle();
    }
    // Room again in the window, or (stalled) another message went out.
    if (live_ && replaying_ && (stalled_ || (ours && inflight_.size() <= WINDOW_MESSAGES / 2)))
        schedule();
}

void Forwarder::settle()
{
    while (!inflight_.empty() && inflight_.front().done) {
        removable_ = inflight_.front().id;
        inflight_bytes_ -= inflight_.front().bytes;
        inflight_.pop_front();
    }
}

void Forwarder::forget_done()
{
    if (store_ == nullptr || removable_ == 0)
        return;
    if (!store_->remove_through(removable_))
        g_warning("cannot remove sent messages from the store (%s): they may go again",
                  store_->last_error().c_str());
    removable_ = 0;
}

void Forwarder::schedule()
{
    if (step_id_ == 0)
        step_id_ = g_idle_add_full(G_PRIORITY_DEFAULT, &Forwarder::on_step, this, nullptr);
}

gboolean Forwarder::on_step(gpointer self)
{
    auto *f = static_cast<Forwarder *>(self);
    f->step_id_ = 0;
    f->step();
    return G_SOURCE_REMOVE;
}

void Forwarder::step()
{
    if (!live_ || !replaying_)
        return;
    // What has been written leaves the store once per turn, not once per
    // message: a commit per message would cost more than the sending.
    forget_done();
    stalled_ = false;
    if (inflight_.size() >= WINDOW_MESSAGES || inflight_bytes_ >= WINDOW_BYTES)
        return; // deliveries call us back
    const size_t want = std::min(BATCH, WINDOW_MESSAGES - inflight_.size());
    const std::vector<StoredMessage> batch = store_->peek(want, cursor_);
    size_t taken = 0;
    for (const StoredMessage &m : batch) {
        if (inflight_bytes_ >= WINDOW_BYTES)
            break;
        sending_ = true;
        const int mid = send_(m);
        sending_ = false;
        if (mid == -1) {
            early_.clear();
            stalled_ = true;
            break;
        }
        const bool done = mid == SKIPPED || early_.count(mid) != 0;
        early_.clear();
        cursor_ = m.id;
        inflight_.push_back({m.id, mid, m.body.size(), done});
        inflight_bytes_ += m.body.size();
        ++taken;
    }
    settle();
    if (stalled_)
        return;
    if (batch.empty() && inflight_.empty()) {
        forget_done();
        // Not empty here only when removing failed (logged): those rows
        // have been sent and go again in the next session at worst.
        replaying_ = false;
        if (store_->empty())
            g_message("every stored message has been sent");
        return;
    }
    // More may wait; with nothing in flight, no delivery will call us back.
    if (taken == want || inflight_.empty())
        schedule();
}

} // namespace bridge
