// The README's demo command, bounded: it brings the plant up, values change
// from cycle to cycle, the bridge's Sparkplug messages show decoded, and when
// it stops nothing of it is left behind.
#include <gtest/gtest.h>

#include <glib.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "support/child.h"

using namespace dstest;

namespace {

// Processes still in the given session.
std::vector<int> session_members(pid_t sid)
{
    std::vector<int> pids;
    for (const auto &e : std::filesystem::directory_iterator("/proc")) {
        const int pid = atoi(e.path().filename().c_str());
        if (pid > 0 && getsid(pid) == sid)
            pids.push_back(pid);
    }
    return pids;
}

} // namespace

TEST(Demo, RunsTheSimulatedPlantAndLeavesNothingBehind)
{
    TempDir dir;
    Child demo({"/bin/bash", DS_SOURCE_DIR "/scripts/demo.sh", "--seconds", "8"}, dir.path(), "demo",
               {"", {"DS_DEMO_BUILD=" DS_BINARY_DIR, "DS_DEMO_NO_BUILD=1", "TMPDIR=" + dir.path()}, true});
    const pid_t pid = demo.pid();
    EXPECT_EQ(demo.wait_exit(90s), 0) << demo.out() << demo.err();
    const std::string out = demo.out() + demo.err();

    // Every model's first node counts up with the plant: it shows and moves
    // between cycles. The S7 family needs port 102, so only as root.
    std::vector<std::pair<std::string, std::string>> counters = {
        {"FX-3U mixer", "batches"},   {"FX-1N filler", "bottles"}, {"Q-series boiler", "cycles"},
        {"S7-200 conveyor", "parcels"}, {"DVP-32EC pump", "strokes"}, {"FX-5U press", "strokes"},
        {"Q CPU oven", "trays"}};
    if (geteuid() == 0)
        counters.insert(counters.end(), {{"S7-200 SMART dryer", "loads"}, {"S7-1200 line", "pieces"},
                                         {"S7-1500 cell", "welds"}, {"S7-300 kiln", "firings"},
                                         {"S7-400 turbine", "revolutions"}});
    for (const auto &[device, node] : counters) {
        std::vector<std::string> seen;
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);)
            if (line.find(device + " ") != std::string::npos && line.find(" " + node + " ") != std::string::npos)
                seen.push_back(line);
        ASSERT_GE(seen.size(), 2u) << device << "\n" << out;
        EXPECT_NE(seen.front(), seen.back()) << device;
    }
    // What the bridge published reaches the broker and shows decoded: the
    // edge node's birth, a device's birth with its metrics, and data.
    EXPECT_NE(out.find("NBIRTH device-service/demo-gateway seq=0: bdSeq=0 (Int64)"), std::string::npos)
        << out;
    EXPECT_NE(out.find("DBIRTH device-service/demo-gateway/FX-5U press seq="), std::string::npos);
    EXPECT_NE(out.find("DDATA device-service/demo-gateway/FX-5U press seq="), std::string::npos);
    EXPECT_NE(out.find("demo stopped; nothing left running"), std::string::npos);

    EXPECT_TRUE(wait_until([&] { return session_members(pid).empty(); }, 10s))
        << "processes left: " << session_members(pid).size();
    // Its scratch directory and serial links are gone.
    int entries = 0;
    for (const auto &e : std::filesystem::directory_iterator(dir.path()))
        entries += e.path().filename().string().rfind("demo.", 0) != 0;
    EXPECT_EQ(entries, 0);
    if (geteuid() == 0) {
        EXPECT_FALSE(g_file_test("/dev/ttymxc1", G_FILE_TEST_IS_SYMLINK));
        EXPECT_FALSE(g_file_test("/dev/ttymxc2", G_FILE_TEST_IS_SYMLINK));
    }
}
