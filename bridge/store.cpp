#include "store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace bridge {

namespace {

struct DbClose {
    void operator()(sqlite3 *db) const { sqlite3_close_v2(db); }
};
struct StmtFinalize {
    void operator()(sqlite3_stmt *st) const { sqlite3_finalize(st); }
};
struct SqliteFree {
    void operator()(char *p) const { sqlite3_free(p); }
};
using Db = std::unique_ptr<sqlite3, DbClose>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalize>;

// Marks a database as ours ("DSBR"), so that a file of another program is
// never mistaken for a store and emptied.
constexpr int kApplicationId = 0x44534252;
constexpr int kSchemaVersion = 1;
constexpr int kPageSize = 4096;
// Below this a cap leaves no room for the schema, one WAL and a message.
constexpr uint64_t kMinBytes = 256 * 1024;
// What a row costs beyond its topic and body: record header, rowid, the
// three integers, the cell pointer and a share of the interior pages.
constexpr uint64_t kRowOverhead = 40;

// Files SQLite may keep beside the database. All of them go aside with a
// database that is not usable: a WAL or journal left behind would otherwise
// be played into the new, empty store.
constexpr const char *kCompanions[] = {"", "-wal", "-shm", "-journal"};

bool exists(const std::string &path)
{
    struct stat st{};
    return ::stat(path.c_str(), &st) == 0;
}

uint64_t file_size(const std::string &path)
{
    struct stat st{};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

uint64_t row_bytes(size_t topic, size_t body)
{
    return topic + body + kRowOverhead;
}

// "<path>.corrupt-20240131T101500", with a counter when that name is taken.
std::string aside_name(const std::string &path)
{
    char stamp[32];
    const time_t now = time(nullptr);
    struct tm tmv{};
    localtime_r(&now, &tmv);
    strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%S", &tmv);
    std::string base = path + ".corrupt-" + stamp;
    std::string name = base;
    for (int n = 2; exists(name) || exists(name + "-wal"); ++n)
        name = base + "-" + std::to_string(n);
    return name;
}

int wal_hook(void *ctx, sqlite3 *, const char *, int frames)
{
    *static_cast<int *>(ctx) = frames;
    return SQLITE_OK;
}

} // namespace

struct Store::Impl {
    std::string path;
    uint64_t max_bytes = 0;
    Db db;
    // Statements after the connection: they are finalized before it closes.
    Stmt insert, peek, remove, oldest, set_dropped, begin, commit, rollback, pages, unused;
    uint64_t count = 0;
    uint64_t dropped = 0;
    int wal_frames = 0;              // frames in the WAL after the last commit
    int64_t db_pages = 0;            // the database file's cap in pages
    int wal_pages = 0;               // the WAL's share of the cap, in frames
    uint64_t chunk_bytes = 0;        // most row bytes one transaction writes
    std::string error;

    const char *errmsg() const { return sqlite3_errmsg(db.get()); }

    bool exec(const char *sql, std::string *why = nullptr)
    {
        char *raw = nullptr;
        const int rc = sqlite3_exec(db.get(), sql, nullptr, nullptr, &raw);
        std::unique_ptr<char, SqliteFree> msg(raw);
        if (rc != SQLITE_OK && why)
            *why = msg ? msg.get() : sqlite3_errstr(rc);
        return rc == SQLITE_OK;
    }

    // One integer from a query (a pragma or a count); -1 on failure.
    int64_t scalar(const char *sql)
    {
        sqlite3_stmt *raw = nullptr;
        if (sqlite3_prepare_v2(db.get(), sql, -1, &raw, nullptr) != SQLITE_OK)
            return -1;
        Stmt st(raw);
        return sqlite3_step(st.get()) == SQLITE_ROW ? sqlite3_column_int64(st.get(), 0) : -1;
    }

    bool prepare(Stmt &out, const char *sql)
    {
        sqlite3_stmt *raw = nullptr;
        const int rc = sqlite3_prepare_v3(db.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &raw,
                                          nullptr);
        out.reset(raw);
        return rc == SQLITE_OK;
    }

    // Runs a statement that returns no rows and resets it.
    int run(sqlite3_stmt *st)
    {
        const int rc = sqlite3_step(st);
        sqlite3_reset(st);
        sqlite3_clear_bindings(st);
        return rc;
    }

    void fail(const char *what)
    {
        error = std::string(what) + ": " + errmsg();
    }

    void roll_back()
    {
        if (!sqlite3_get_autocommit(db.get()))
            run(rollback.get());
    }

    // Splits the cap between the database file and its WAL. The WAL gets an
    // eighth (at most 4 MiB), the database what is left in whole pages.
    void size_budget()
    {
        const uint64_t frame = kPageSize + 24;
        wal_pages = static_cast<int>(std::clamp<uint64_t>(max_bytes / 8 / frame, 16, 1024));
        const uint64_t wal_bytes = 32 + static_cast<uint64_t>(wal_pages) * frame;
        db_pages = static_cast<int64_t>((max_bytes - wal_bytes) / kPageSize);
        // A transaction writes the pages of its rows and a few more (the
        // interior, the freelist, the meta row): a quarter of the WAL's
        // share in rows leaves room for them and for earlier commits.
        chunk_bytes = static_cast<uint64_t>(wal_pages) * kPageSize / 4;
    }

    // Copies the WAL into the database and cuts it to nothing once it holds
    // more than its share, or would with `coming` more frames. Only this
    // connection ever reads the file, so the checkpoint always completes.
    void checkpoint_if_needed(int coming)
    {
        if (wal_frames + coming <= wal_pages)
            return;
        int log = 0, done = 0;
        if (sqlite3_wal_checkpoint_v2(db.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, &log,
                                      &done) == SQLITE_OK)
            wal_frames = 0;
    }

    // The one integer a prepared query returns; -1 on failure.
    static int64_t value_of(sqlite3_stmt *st)
    {
        const int64_t v = sqlite3_step(st) == SQLITE_ROW ? sqlite3_column_int64(st, 0) : -1;
        sqlite3_reset(st);
        return v;
    }

    // Bytes free for rows without growing the database past its cap.
    int64_t free_bytes()
    {
        // Pages fill to about nine tenths when rows are appended at the end.
        return (db_pages - value_of(pages.get()) + value_of(unused.get())) * kPageSize * 9 / 10;
    }

    struct Evicted {
        uint64_t rows = 0;
        uint64_t values = 0;
    };
    // Deletes the oldest rows until at least `bytes` of them are gone (all
    // of them if the store holds less). Inside the caller's transaction.
    bool evict(int64_t bytes, Evicted &out)
    {
        sqlite3_stmt *st = oldest.get();
        int64_t last = -1;
        int64_t freed = 0;
        int rc;
        while (freed < bytes && (rc = sqlite3_step(st)) == SQLITE_ROW) {
            last = sqlite3_column_int64(st, 0);
            out.values += static_cast<uint64_t>(sqlite3_column_int64(st, 1));
            freed += sqlite3_column_int64(st, 2) + static_cast<int64_t>(kRowOverhead);
            ++out.rows;
        }
        sqlite3_reset(st);
        if (last < 0)
            return true;
        sqlite3_bind_int64(remove.get(), 1, last);
        if (run(remove.get()) != SQLITE_DONE) {
            fail("removing the oldest messages");
            return false;
        }
        return true;
    }

    bool append_chunk(const std::vector<Item> &items, size_t from, size_t to);
    bool open_schema(std::string *why);
    bool prepare_all();
    bool shrink_to_cap(std::string *why);
};

bool Store::Impl::append_chunk(const std::vector<Item> &items, size_t from, size_t to)
{
    int64_t need = 0;
    for (size_t i = from; i < to; ++i)
        need += static_cast<int64_t>(row_bytes(items[i].topic.size(), items[i].body.size()));
    int64_t extra = 0;
    for (int attempt = 0; attempt < 6; ++attempt) {
        checkpoint_if_needed(static_cast<int>(2 * need / kPageSize) + 8);
        if (run(begin.get()) != SQLITE_DONE) {
            fail("starting a transaction");
            return false;
        }
        Evicted gone;
        const int64_t room = free_bytes();
        if (need + extra > room && !evict(need + extra - room, gone)) {
            roll_back();
            return false;
        }
        int rc = SQLITE_DONE;
        for (size_t i = from; i < to && rc == SQLITE_DONE; ++i) {
            const Item &it = items[i];
            sqlite3_stmt *st = insert.get();
            sqlite3_bind_text(st, 1, it.topic.data(), static_cast<int>(it.topic.size()),
                              SQLITE_STATIC);
            sqlite3_bind_int64(st, 2, static_cast<int64_t>(it.timestamp_ms));
            sqlite3_bind_int64(st, 3, it.values);
            sqlite3_bind_blob(st, 4, it.body.data(), static_cast<int>(it.body.size()),
                              SQLITE_STATIC);
            rc = run(st);
        }
        if (rc == SQLITE_FULL) {
            // The estimate of free room was short (pages part-filled by
            // earlier removals): give the oldest more room and try again.
            roll_back();
            extra = std::max<int64_t>(2 * extra, need / 2 + 4 * kPageSize);
            continue;
        }
        if (rc != SQLITE_DONE) {
            fail("storing a message");
            roll_back();
            return false;
        }
        if (gone.values) {
            sqlite3_bind_int64(set_dropped.get(), 1, static_cast<int64_t>(dropped + gone.values));
            if (run(set_dropped.get()) != SQLITE_DONE) {
                fail("counting dropped values");
                roll_back();
                return false;
            }
        }
        if (run(commit.get()) != SQLITE_DONE) {
            fail("committing messages");
            roll_back();
            return false;
        }
        count = count + (to - from) - gone.rows;
        dropped += gone.values;
        checkpoint_if_needed(0);
        return true;
    }
    error = "no room for the messages even after dropping the oldest";
    return false;
}

bool Store::Impl::prepare_all()
{
    return prepare(insert, "INSERT INTO messages(topic, ts, nvalues, body) VALUES(?, ?, ?, ?)") &&
           prepare(peek, "SELECT id, topic, ts, nvalues, body FROM messages WHERE id > ? "
                                 "ORDER BY id LIMIT ?") &&
           prepare(remove, "DELETE FROM messages WHERE id <= ?") &&
           prepare(oldest, "SELECT id, nvalues, length(topic) + length(body) FROM messages "
                           "ORDER BY id") &&
           prepare(set_dropped, "UPDATE meta SET value = ? WHERE key = 'dropped_values'") &&
           prepare(begin, "BEGIN IMMEDIATE") && prepare(commit, "COMMIT") &&
           prepare(rollback, "ROLLBACK") && prepare(pages, "PRAGMA page_count") &&
           prepare(unused, "PRAGMA freelist_count");
}

// Sets the connection up and checks (or creates) the schema. False with
// `why` when the file is not a usable store.
bool Store::Impl::open_schema(std::string *why)
{
    // EXCLUSIVE before WAL: the WAL index then lives in this process's memory
    // (no -shm file), and a second bridge on the same state directory is
    // refused instead of interleaving its messages with ours.
    // synchronous=NORMAL: in WAL mode a commit is a write() of its frames to
    // the WAL, which the kernel keeps even if this process is killed the next
    // instant; only a power cut can lose the last commits (the WAL's
    // checksums make recovery stop at the last whole one, so the order and
    // the rest survive). FULL would add an fsync per cycle, milliseconds on a
    // gateway's flash and wear on it, for nothing a crash of ours could cost.
    if (!exec("PRAGMA locking_mode=EXCLUSIVE", why))
        return false;
    const int64_t app_id = scalar("PRAGMA application_id");
    if (app_id < 0) {
        *why = errmsg();
        return false;
    }
    if (app_id == 0) {
        if (scalar("SELECT count(*) FROM sqlite_master") != 0) {
            *why = "a database of something else";
            return false;
        }
        // AUTOINCREMENT: ids never come back after the store empties, so an
        // id the publisher holds always means the same message.
        const std::string sql = "PRAGMA page_size=" + std::to_string(kPageSize) +
                                ";"
                                "PRAGMA journal_mode=WAL;"
                                "BEGIN;"
                                "CREATE TABLE messages(id INTEGER PRIMARY KEY AUTOINCREMENT,"
                                " topic TEXT NOT NULL, ts INTEGER NOT NULL,"
                                " nvalues INTEGER NOT NULL, body BLOB NOT NULL);"
                                "CREATE TABLE meta(key TEXT PRIMARY KEY NOT NULL,"
                                " value INTEGER NOT NULL);"
                                "INSERT INTO meta VALUES('dropped_values', 0);"
                                "PRAGMA application_id=" +
                                std::to_string(kApplicationId) +
                                ";"
                                "PRAGMA user_version=" +
                                std::to_string(kSchemaVersion) + ";COMMIT;";
        if (!exec(sql.c_str(), why))
            return false;
    } else if (app_id != kApplicationId) {
        *why = "a database of something else";
        return false;
    } else if (scalar("PRAGMA user_version") != kSchemaVersion) {
        *why = "a store of another version";
        return false;
    } else {
        // A truncated or overwritten file may still open; reading every page
        // once is what finds it (it takes about as long as reading the file).
        sqlite3_stmt *raw = nullptr;
        if (sqlite3_prepare_v2(db.get(), "PRAGMA quick_check", -1, &raw, nullptr) != SQLITE_OK) {
            *why = errmsg();
            return false;
        }
        Stmt check(raw);
        if (sqlite3_step(check.get()) != SQLITE_ROW) {
            *why = errmsg();
            return false;
        }
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(check.get(), 0));
        if (!text || std::strcmp(text, "ok") != 0) {
            *why = std::string("damaged: ") + (text ? text : "?");
            return false;
        }
    }
    if (!prepare_all()) {
        *why = std::string("not the store's tables: ") + errmsg();
        return false;
    }
    // Only now that the file is known to be ours is its journal mode set.
    if (!exec("PRAGMA journal_mode=WAL", why) || !exec("PRAGMA synchronous=NORMAL", why))
        return false;
    const int64_t rows = scalar("SELECT count(*) FROM messages");
    const int64_t lost = scalar("SELECT value FROM meta WHERE key = 'dropped_values'");
    if (rows < 0 || lost < 0) {
        *why = std::string("not the store's tables: ") + errmsg();
        return false;
    }
    count = static_cast<uint64_t>(rows);
    dropped = static_cast<uint64_t>(lost);
    return shrink_to_cap(why);
}

// A store made with a larger cap than today's: drop the oldest down to the
// new cap and rewrite the file at its new size, once, at opening.
bool Store::Impl::shrink_to_cap(std::string *why)
{
    const int64_t total = value_of(pages.get());
    if (total > db_pages) {
        if (run(begin.get()) != SQLITE_DONE) {
            *why = errmsg();
            return false;
        }
        const int64_t used = (total - value_of(unused.get())) * kPageSize;
        Evicted gone;
        if (used > db_pages * kPageSize * 8 / 10 &&
            !evict(used - db_pages * kPageSize * 8 / 10, gone)) {
            roll_back();
            *why = error;
            return false;
        }
        sqlite3_bind_int64(set_dropped.get(), 1, static_cast<int64_t>(dropped + gone.values));
        if (run(set_dropped.get()) != SQLITE_DONE || run(commit.get()) != SQLITE_DONE) {
            *why = errmsg();
            roll_back();
            return false;
        }
        count -= gone.rows;
        dropped += gone.values;
        if (!exec("VACUUM", why))
            return false;
        wal_frames = wal_pages + 1; // VACUUM went through the WAL
        checkpoint_if_needed(0);
    }
    // The hard bound under the estimates: SQLite refuses (SQLITE_FULL) to
    // grow the file past it, and append() then makes room and retries.
    const std::string sql = "PRAGMA max_page_count=" + std::to_string(db_pages);
    return exec(sql.c_str(), why);
}

Store::Store(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
// Closing the last connection checkpoints the WAL into the database and
// removes it.
Store::~Store() = default;

std::unique_ptr<Store> Store::open(const std::string &path, uint64_t max_bytes,
                                   std::string *notice)
{
    std::string local;
    if (!notice)
        notice = &local;
    notice->clear();
    auto attempt = [&](std::string *why, bool *busy) -> std::unique_ptr<Impl> {
        auto impl = std::make_unique<Impl>();
        impl->path = path;
        impl->max_bytes = std::max(max_bytes, kMinBytes);
        impl->size_budget();
        sqlite3 *raw = nullptr;
        const int rc = sqlite3_open_v2(path.c_str(), &raw,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                           SQLITE_OPEN_NOMUTEX,
                                       nullptr);
        impl->db.reset(raw);
        if (rc != SQLITE_OK) {
            *why = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
            return nullptr;
        }
        sqlite3_extended_result_codes(raw, 1);
        sqlite3_wal_hook(raw, wal_hook, &impl->wal_frames);
        // Closing would copy the WAL into a file that is about to be set
        // aside, and remove the WAL: it must go aside as it was found.
        sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        if (!impl->open_schema(why)) {
            const int code = sqlite3_errcode(raw) & 0xff;
            *busy = code == SQLITE_BUSY || code == SQLITE_LOCKED;
            return nullptr;
        }
        sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
        return impl;
    };

    std::string why;
    bool busy = false;
    if (auto impl = attempt(&why, &busy))
        return std::unique_ptr<Store>(new Store(std::move(impl)));
    if (busy) {
        *notice = "store " + path + " is in use by another process: " + why;
        return nullptr;
    }
    if (!exists(path)) {
        *notice = "cannot create the store " + path + ": " + why;
        return nullptr;
    }
    const std::string aside = aside_name(path);
    for (const char *suffix : kCompanions) {
        const std::string from = path + suffix;
        if (exists(from) && std::rename(from.c_str(), (aside + suffix).c_str()) != 0) {
            *notice = "store " + path + " is not usable (" + why + ") and cannot be set aside: " +
                      std::strerror(errno);
            return nullptr;
        }
    }
    std::string why_new;
    auto impl = attempt(&why_new, &busy);
    if (!impl) {
        *notice = "store " + path + " is not usable (" + why + "), set aside as " + aside +
                  ", and a new one cannot be made: " + why_new;
        return nullptr;
    }
    *notice = "store " + path + " is not usable (" + why + "): set aside as " + aside +
              ", starting an empty store";
    return std::unique_ptr<Store>(new Store(std::move(impl)));
}

bool Store::append(const std::vector<Item> &items)
{
    Impl &s = *impl_;
    // A large append goes in several transactions of at most a quarter of
    // the WAL's share each, oldest first, so that the WAL never takes more than its
    // share of the cap. A message too big for one transaction cannot be kept
    // within the cap at all: it counts as dropped.
    size_t from = 0;
    uint64_t bytes = 0;
    uint64_t too_big = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        const uint64_t b = row_bytes(items[i].topic.size(), items[i].body.size());
        if (b > s.chunk_bytes) {
            if (from < i && !s.append_chunk(items, from, i))
                return false;
            too_big += items[i].values;
            from = i + 1;
            bytes = 0;
            continue;
        }
        if (bytes + b > s.chunk_bytes) {
            if (!s.append_chunk(items, from, i))
                return false;
            from = i;
            bytes = 0;
        }
        bytes += b;
    }
    if (from < items.size() && !s.append_chunk(items, from, items.size()))
        return false;
    if (too_big) {
        sqlite3_bind_int64(s.set_dropped.get(), 1, static_cast<int64_t>(s.dropped + too_big));
        if (s.run(s.set_dropped.get()) != SQLITE_DONE) {
            s.fail("counting dropped values");
            return false;
        }
        s.dropped += too_big;
    }
    return true;
}

std::vector<StoredMessage> Store::peek(size_t max, int64_t after) const
{
    std::vector<StoredMessage> out;
    sqlite3_stmt *st = impl_->peek.get();
    sqlite3_bind_int64(st, 1, after);
    sqlite3_bind_int64(st, 2, static_cast<int64_t>(std::min<size_t>(max, INT64_MAX)));
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        StoredMessage m;
        m.id = sqlite3_column_int64(st, 0);
        const auto *topic = reinterpret_cast<const char *>(sqlite3_column_text(st, 1));
        m.topic.assign(topic ? topic : "", static_cast<size_t>(sqlite3_column_bytes(st, 1)));
        m.timestamp_ms = static_cast<uint64_t>(sqlite3_column_int64(st, 2));
        m.values = static_cast<uint32_t>(sqlite3_column_int64(st, 3));
        const auto *body = static_cast<const char *>(sqlite3_column_blob(st, 4));
        m.body.assign(body ? body : "", static_cast<size_t>(sqlite3_column_bytes(st, 4)));
        out.push_back(std::move(m));
    }
    if (rc != SQLITE_DONE)
        impl_->fail("reading stored messages");
    sqlite3_reset(st);
    return out;
}

bool Store::remove_through(int64_t id)
{
    Impl &s = *impl_;
    sqlite3_bind_int64(s.remove.get(), 1, id);
    if (s.run(s.remove.get()) != SQLITE_DONE) {
        s.fail("removing sent messages");
        return false;
    }
    s.count -= std::min<uint64_t>(s.count, static_cast<uint64_t>(sqlite3_changes(s.db.get())));
    s.checkpoint_if_needed(0);
    return true;
}

bool Store::empty() const { return impl_->count == 0; }
uint64_t Store::count() const { return impl_->count; }
uint64_t Store::dropped_values() const { return impl_->dropped; }

uint64_t Store::disk_bytes() const
{
    uint64_t total = 0;
    for (const char *suffix : kCompanions)
        total += file_size(impl_->path + suffix);
    return total;
}

const std::string &Store::last_error() const { return impl_->error; }

} // namespace bridge
