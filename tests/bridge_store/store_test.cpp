// The bridge's on-disk queue: order, the cap, and files that are not a store.
// A bridge killed while it stores or replays is the store-and-forward test's.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store.h"
#include "support/sqlite_rows.h"
#include "support/test_util.h"

using bridge::Store;
using bridge::StoredMessage;
using dstest::read_file;
using dstest::sqlite_exec;
using dstest::TempDir;

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

std::unique_ptr<Store> open_store(const std::string &path, uint64_t cap = 64 * kMiB)
{
    std::string notice;
    auto s = Store::open(path, cap, &notice);
    EXPECT_TRUE(s) << notice;
    EXPECT_EQ(notice, "") << "a sound store opens without a notice";
    return s;
}

// Messages first..last: message n holds n % 7 + 1 values and a body of
// `size` bytes that starts with its number.
bool append_numbers(Store &s, uint64_t first, uint64_t last, size_t size = 16)
{
    std::vector<std::string> bodies;
    for (uint64_t n = first; n <= last; ++n) {
        std::string b = std::to_string(n) + ":";
        while (b.size() < size)
            b.push_back(static_cast<char>('a' + (n + b.size()) % 26));
        bodies.push_back(std::move(b));
    }
    std::vector<Store::Item> items;
    for (uint64_t n = first; n <= last; ++n)
        items.push_back({"dev", 1000 + n, static_cast<uint32_t>(n % 7 + 1), bodies[n - first]});
    return s.append(items);
}

uint64_t number_of(const StoredMessage &m)
{
    return std::stoull(m.body.substr(0, m.body.find(':')));
}

// The numbers stored, oldest first; also checks that ids strictly increase.
std::vector<uint64_t> numbers(const Store &s)
{
    std::vector<uint64_t> out;
    int64_t last_id = 0;
    for (const auto &m : s.peek(SIZE_MAX)) {
        EXPECT_GT(m.id, last_id);
        last_id = m.id;
        out.push_back(number_of(m));
    }
    return out;
}

// The numbers first..last, for comparing with what is stored.
std::vector<uint64_t> range(uint64_t first, uint64_t last)
{
    std::vector<uint64_t> v;
    for (uint64_t n = first; n <= last; ++n)
        v.push_back(n);
    return v;
}

uint64_t size_on_disk(const std::string &path)
{
    uint64_t total = 0;
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
        struct stat st{};
        if (stat((path + suffix).c_str(), &st) == 0)
            total += static_cast<uint64_t>(st.st_size);
    }
    return total;
}

uint64_t values_of(uint64_t first, uint64_t last)
{
    uint64_t v = 0;
    for (uint64_t n = first; n <= last; ++n)
        v += n % 7 + 1;
    return v;
}

} // namespace

TEST(StoreQueue, KeepsMessagesInOrderThroughPeekRemoveAndReopenForOneBridgeAtATime)
{
    TempDir dir;
    const std::string path = dir.file("store.db");
    dstest::write_file(path, ""); // an empty file is a new store
    {
        auto s = open_store(path);
        ASSERT_TRUE(s);
        EXPECT_TRUE(s->empty());
        EXPECT_TRUE(s->peek(10).empty());
        // A second bridge on the same state directory: refused, nothing renamed.
        std::string notice;
        EXPECT_FALSE(Store::open(path, 64 * kMiB, &notice));
        EXPECT_NE(notice.find("in use"), std::string::npos) << notice;

        // Every field comes back as given: bodies are bytes (NULs and all),
        // topics any UTF-8, timestamps the full millisecond range.
        const std::string binary("\x08\x00\xff\x12\x00", 5);
        ASSERT_TRUE(s->append({{"spBv1.0/g/DDATA/e/Pumpe Süd", 1'700'000'000'123, 3, binary},
                               {"dev-2", UINT64_C(1) << 62, 0, ""}}));
        auto got = s->peek(10);
        ASSERT_EQ(got.size(), 2u);
        EXPECT_EQ(got[0].topic, "spBv1.0/g/DDATA/e/Pumpe Süd");
        EXPECT_EQ(got[0].timestamp_ms, 1'700'000'000'123u);
        EXPECT_EQ(got[0].values, 3u);
        EXPECT_EQ(got[0].body, binary);
        EXPECT_EQ(got[1].timestamp_ms, UINT64_C(1) << 62);
        EXPECT_EQ(got[1].body, "");
        EXPECT_LT(got[0].id, got[1].id);
        ASSERT_TRUE(s->remove_through(got[1].id));
        EXPECT_TRUE(s->empty());

        // Ids keep rising after the store empties: an id the publisher
        // still holds can never name a newer message.
        const int64_t before = got[1].id;
        ASSERT_TRUE(append_numbers(*s, 1, 300));
        EXPECT_EQ(s->count(), 300u);
        got = s->peek(100);
        ASSERT_EQ(got.size(), 100u);
        EXPECT_GT(got[0].id, before);
        EXPECT_EQ(number_of(got[0]), 1u);
        EXPECT_EQ(number_of(got[99]), 100u);
        ASSERT_TRUE(s->remove_through(got[49].id));
        EXPECT_EQ(s->count(), 250u);
        EXPECT_EQ(number_of(s->peek(1).at(0)), 51u);
        // Removing through an id already gone changes nothing.
        ASSERT_TRUE(s->remove_through(got[10].id));
        EXPECT_EQ(s->count(), 250u);
        ASSERT_TRUE(append_numbers(*s, 301, 320));
        EXPECT_EQ(s->dropped_values(), 0u);
    }
    auto s = open_store(path);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->count(), 270u);
    EXPECT_EQ(numbers(*s), range(51, 320));
    EXPECT_EQ(s->peek(1).at(0).timestamp_ms, 1051u);

    // No directory to make it in: no store, and a reason.
    std::string notice;
    EXPECT_FALSE(Store::open(dir.file("missing/store.db"), 64 * kMiB, &notice));
    EXPECT_NE(notice.find("cannot create"), std::string::npos) << notice;
}

TEST(StoreCap, DropsOldestFirstCountsThemAndStaysWithinTheCap)
{
    TempDir dir;
    const std::string path = dir.file("store.db");
    const uint64_t cap = 2 * kMiB;
    uint64_t next = 1;
    uint64_t largest = 0;
    uint64_t dropped = 0; // at the close
    uint64_t oldest = 0;  // the oldest message kept at the close
    {
        auto s = open_store(path, cap);
        ASSERT_TRUE(s);
        // Messages of mixed sizes (some with overflow pages), appended in
        // batches, with a replay now and then removing the oldest: freed
        // pages must be reused, never added to the file past the cap.
        for (int round = 0; round < 500; ++round) {
            const size_t size = 40 + static_cast<size_t>(round * 997 % 6000);
            const uint64_t batch = 1 + static_cast<uint64_t>(round % 9);
            ASSERT_TRUE(append_numbers(*s, next, next + batch - 1, size)) << s->last_error();
            next += batch;
            if (round % 50 == 49) {
                auto head = s->peek(5);
                ASSERT_TRUE(s->remove_through(head.back().id));
            }
            largest = std::max(largest, size_on_disk(path));
            ASSERT_LE(size_on_disk(path), cap) << "round " << round;
            ASSERT_EQ(s->disk_bytes(), size_on_disk(path));
        }
        // What is left is the newest, with no gap; everything older either
        // went out through remove_through or counts as dropped.
        const auto kept = numbers(*s);
        ASSERT_FALSE(kept.empty());
        EXPECT_EQ(kept, range(kept.front(), next - 1));
        EXPECT_EQ(s->count(), kept.size());
        const uint64_t removed_values = s->dropped_values();
        EXPECT_GT(removed_values, values_of(1, kept.front() - 1) - 10 * 7 * 5);
        EXPECT_LE(removed_values, values_of(1, kept.front() - 1));
        // A message alone larger than the cap allows cannot be kept: it
        // counts as dropped and the store goes on.
        const std::string huge(cap, 'x');
        ASSERT_TRUE(s->append({{"dev", 1, 1000, huge}}));
        EXPECT_EQ(s->dropped_values(), removed_values + 1000);
        EXPECT_EQ(numbers(*s), kept);
        // Small messages in a batch larger than the WAL's share: the store
        // splits it and still never passes the cap.
        ASSERT_TRUE(append_numbers(*s, next, next + 14999, 30)) << s->last_error();
        next += 15000;
        ASSERT_LE(size_on_disk(path), cap);
        const auto after = numbers(*s);
        EXPECT_EQ(after, range(after.front(), next - 1));
        EXPECT_EQ(s->dropped_values(), removed_values + 1000 + values_of(kept.front(), after.front() - 1));
        dropped = s->dropped_values();
        oldest = after.front();
    }
    // Opened with a smaller cap, the oldest go and the file shrinks to fit;
    // the figure, kept on disk with the messages, counts them too.
    EXPECT_GT(largest, cap * 3 / 4) << "the cap should have been used";
    auto s = open_store(path, cap / 2);
    ASSERT_TRUE(s);
    EXPECT_LE(size_on_disk(path), cap / 2);
    const auto kept = numbers(*s);
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept, range(kept.front(), next - 1));
    EXPECT_EQ(s->dropped_values(), dropped + values_of(oldest, kept.front() - 1));
}

namespace {

// A store of 4,000 messages of 300 bytes, closed.
void make_full_store(const std::string &path)
{
    auto s = open_store(path);
    ASSERT_TRUE(s);
    ASSERT_TRUE(append_numbers(*s, 1, 4000, 300));
}

} // namespace

TEST(StoreRecovery, FileThatIsNoStoreIsSetAsideAndANewStoreStarts)
{
    struct Case {
        const char *name;
        std::function<void(const std::string &)> make;
    };
    const std::vector<Case> cases = {
        {"garbage bytes",
         [](const std::string &p) {
             std::string junk;
             for (int i = 0; i < 20000; ++i)
                 junk.push_back(static_cast<char>(i * 7919 >> 3));
             dstest::write_file(p, junk);
         }},
        {"damaged store with commits in its WAL",
         [](const std::string &p) {
             make_full_store(p);
             std::string wal;
             {
                 auto s = open_store(p);
                 ASSERT_TRUE(s && append_numbers(*s, 4001, 4010, 300));
                 wal = read_file(p + "-wal");
             }
             ASSERT_GT(wal.size(), 4096u);
             // Pages overwritten with a pattern that is no page.
             std::string bytes = read_file(p);
             ASSERT_GT(bytes.size(), 4096u * 21);
             for (size_t i = 0; i < 3000; ++i)
                 bytes[4096 * 20 + 100 + i] = static_cast<char>(0x5a ^ (i * 31));
             dstest::write_file(p, bytes);
             dstest::write_file(p + "-wal", wal);
         }},
        {"truncated store",
         [](const std::string &p) {
             make_full_store(p);
             const std::string bytes = read_file(p);
             dstest::write_file(p, bytes.substr(0, bytes.size() / 2));
         }},
        {"database of another program",
         [](const std::string &p) { ASSERT_TRUE(sqlite_exec(p, "CREATE TABLE readings(t, v);")); }},
        {"store without its tables",
         [](const std::string &p) {
             ASSERT_TRUE(sqlite_exec(p, "PRAGMA application_id=1146307154; PRAGMA user_version=1;"
                            "CREATE TABLE messages(id INTEGER PRIMARY KEY, x);"));
         }},
        {"store of a later version", [](const std::string &p) {
             make_full_store(p);
             ASSERT_TRUE(sqlite_exec(p, "PRAGMA user_version=7;"));
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const std::string path = dir.file("store.db");
        c.make(path);
        const std::string original = read_file(path);
        const std::string original_wal =
            size_on_disk(path + "-wal") ? read_file(path + "-wal") : "";
        std::string notice;
        auto s = Store::open(path, 64 * kMiB, &notice);
        ASSERT_TRUE(s) << notice;
        EXPECT_NE(notice.find("is not usable"), std::string::npos) << notice;
        // The notice names where the old file went, and it went whole.
        const auto at = notice.find("set aside as ");
        ASSERT_NE(at, std::string::npos) << notice;
        const std::string aside = notice.substr(at + 13, notice.find(',', at) - at - 13);
        EXPECT_EQ(aside.rfind(path + ".corrupt-", 0), 0u) << aside;
        EXPECT_TRUE(read_file(aside) == original) << "the file set aside differs";
        // A WAL left behind goes with its database: played into the new
        // store it would bring back the old one's pages.
        if (!original_wal.empty()) {
            EXPECT_TRUE(read_file(aside + "-wal") == original_wal) << "the WAL set aside differs";
        }
        EXPECT_TRUE(s->empty());
        EXPECT_EQ(s->dropped_values(), 0u);
        ASSERT_TRUE(append_numbers(*s, 1, 10));
        s.reset();
        auto again = open_store(path);
        ASSERT_TRUE(again);
        EXPECT_EQ(numbers(*again), range(1, 10));
    }
}
