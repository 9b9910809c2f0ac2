// Collects the GLib log records written while it lives, so that tests can
// look for the protocol's diagnostic lines.
#pragma once

#include <glib.h>

#include <mutex>
#include <string>
#include <vector>

namespace dstest {

class LogRecords {
public:
    LogRecords() { previous_ = g_log_set_default_handler(&LogRecords::handler, this); }
    ~LogRecords() { g_log_set_default_handler(previous_, nullptr); }
    LogRecords(const LogRecords &) = delete;
    LogRecords &operator=(const LogRecords &) = delete;

    // Every record at or above `level` (critical is 8) joined into one text.
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string all;
        for (const auto &r : records_)
            all += r;
        return all;
    }
    bool contains(const std::string &needle) const { return text().find(needle) != std::string::npos; }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

private:
    static void handler(const gchar *, GLogLevelFlags, const gchar *message, gpointer self)
    {
        auto *me = static_cast<LogRecords *>(self);
        std::lock_guard<std::mutex> lock(me->mutex_);
        me->records_.emplace_back(message != nullptr ? message : "");
    }

    mutable std::mutex mutex_;
    std::vector<std::string> records_;
    GLogFunc previous_ = nullptr;
};

} // namespace dstest
