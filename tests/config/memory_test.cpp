// A bulk call's message is parsed into hundreds of thousands of small
// temporaries; once the call is over the daemon's resident memory must come
// back to what the records themselves take, not stay at the call's peak.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/config_calls.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

long rss_kib(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

std::vector<NodeSpec> nodes(uint32_t first_id, uint32_t count)
{
    std::vector<NodeSpec> v;
    for (uint32_t i = 0; i < count; ++i)
        v.push_back({1, first_id + i, "D" + std::to_string(i), 4, "node-name-" + std::to_string(first_id + i)});
    return v;
}

} // namespace

class Memory : public DaemonTest {};

TEST_F(Memory, SettlesAfterBulkCalls)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator keeps freed memory on purpose";
#endif
    if (getenv("DS_TEST_DAEMON_BINARY") != nullptr)
        GTEST_SKIP() << "the daemon under test is another build, perhaps a sanitizer's";
    constexpr uint32_t COUNT = 10000;
    // 1 KiB per node: the records take about a third of it; the parsed
    // message alone was over 3 KiB per node while it stayed resident.
    constexpr long BOUND_KIB = COUNT;
    start_daemon();
    ASSERT_EQ(call("EthernetDeviceAdd", ethernet_args(1, 1, 103, "fx5u")).response, 0);
    const pid_t pid = daemon_->pid();
    const long base = rss_kib(pid);
    ASSERT_GT(base, 0);

    auto settled = [&] { return wait_until([&] { return rss_kib(pid) <= base + BOUND_KIB; }, 10s); };
    ASSERT_EQ(call_device(conn(), "nodeTableAddMulti", node_array(nodes(1, COUNT)), 120000).response, 0);
    EXPECT_TRUE(settled()) << "after nodeTableAddMulti: " << rss_kib(pid) << " KiB, from " << base;
    ASSERT_EQ(call_device(conn(), "nodeTableSyncMulti", node_array(nodes(COUNT + 1, COUNT)), 120000).response, 0);
    EXPECT_TRUE(settled()) << "after nodeTableSyncMulti: " << rss_kib(pid) << " KiB, from " << base;
}
