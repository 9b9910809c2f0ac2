// Replay from the store against a transport that writes when the test says.
#include <gtest/gtest.h>

#include "forwarder.h"
#include "support/test_util.h"

using namespace bridge;

// A stored message leaves the store only once written; those in flight at
// the end of a session stay stored and go again, first, in the next.
TEST(BridgeForwarder, MessagesLeaveTheStoreOnlyOnceWritten)
{
    dstest::TempDir dir;
    auto store = Store::open(dir.file("store.db"), 64u << 20, nullptr);
    ASSERT_TRUE(store);
    std::vector<std::string> sent;
    Forwarder f(store.get(), [&](const StoredMessage &m) {
        sent.push_back(m.topic);
        return static_cast<int>(sent.size());
    });
    auto settle = [] {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    };
    const std::vector<std::string> topics = {"m0", "m1", "m2", "m3", "m4", "m5", "m6", "m7", "m8", "m9"};
    std::vector<Store::Item> items; // views into `topics`
    for (const auto &t : topics)
        items.push_back({t, 1, 1, "x"});
    ASSERT_TRUE(f.keep(items));
    f.start();
    settle();
    ASSERT_EQ(sent.size(), 10u);
    EXPECT_EQ(store->count(), 10u) << "handed over is not written";
    for (int mid = 1; mid <= 4; ++mid)
        f.delivered(mid);
    settle();
    EXPECT_EQ(store->count(), 6u);
    f.stop();
    EXPECT_EQ(store->count(), 6u);

    f.start();
    settle();
    ASSERT_EQ(sent.size(), 16u);
    EXPECT_EQ(sent[10], "m4");
    for (int mid = 11; mid <= 16; ++mid)
        f.delivered(mid);
    settle();
    EXPECT_TRUE(store->empty());
    EXPECT_FALSE(f.replaying());
}
