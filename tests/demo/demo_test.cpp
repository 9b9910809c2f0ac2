// The README's demo command, bounded: it brings the plant up, values change
// from cycle to cycle, and when it stops nothing of it is left behind.
#include <gtest/gtest.h>

#include <dirent.h>
#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/test_util.h"

using namespace dstest;

namespace {

// Processes still in the given session.
std::vector<int> session_members(pid_t sid)
{
    std::vector<int> pids;
    DIR *d = opendir("/proc");
    while (struct dirent *e = d != nullptr ? readdir(d) : nullptr) {
        const int pid = atoi(e->d_name);
        if (pid > 0 && getsid(pid) == sid)
            pids.push_back(pid);
    }
    if (d != nullptr)
        closedir(d);
    return pids;
}

} // namespace

TEST(Demo, RunsTheSimulatedPlantAndLeavesNothingBehind)
{
    TempDir dir;
    const std::string out_path = dir.file("demo.out");
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        FILE *out = freopen(out_path.c_str(), "w", stdout);
        dup2(fileno(out), 2);
        setenv("DS_DEMO_BUILD", DS_BINARY_DIR, 1);
        setenv("DS_DEMO_NO_BUILD", "1", 1);
        setenv("TMPDIR", dir.path().c_str(), 1);
        execlp("bash", "bash", DS_SOURCE_DIR "/scripts/demo.sh", "--seconds", "8",
               static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_TRUE(wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 90s));
    const std::string out = read_file(out_path);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;

    // Every model's counter shows and moves between cycles; the S7 family
    // needs port 102, so only as root.
    std::vector<std::string> devices = {"FX-3U mixer",  "FX-1N filler",  "Q-series boiler",
                                        "S7-200 conveyor", "DVP-32EC pump", "FX-5U press",
                                        "Q CPU oven"};
    if (geteuid() == 0)
        for (const char *d : {"S7-200 SMART dryer", "S7-1200 line", "S7-1500 cell", "S7-300 kiln",
                              "S7-400 turbine"})
            devices.push_back(d);
    for (const auto &d : devices) {
        std::string key = d;
        key.resize(25, ' ');
        key += "counter";
        std::vector<std::string> counters;
        for (size_t pos = out.find(key); pos != std::string::npos; pos = out.find(key, pos + 1))
            counters.push_back(out.substr(pos, out.find('\n', pos) - pos));
        ASSERT_GE(counters.size(), 2u) << d << "\n" << out;
        EXPECT_NE(counters.front(), counters.back()) << d;
    }
    EXPECT_NE(out.find("demo stopped; nothing left running"), std::string::npos);

    EXPECT_TRUE(wait_until([&] { return session_members(pid).empty(); }, 10s))
        << "processes left: " << session_members(pid).size();
    // Its scratch directory and serial links are gone.
    DIR *d = opendir(dir.path().c_str());
    int entries = 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.' && std::string(e->d_name) != "demo.out")
            ++entries;
    closedir(d);
    EXPECT_EQ(entries, 0);
    if (geteuid() == 0) {
        EXPECT_FALSE(g_file_test("/dev/ttymxc1", G_FILE_TEST_IS_SYMLINK));
        EXPECT_FALSE(g_file_test("/dev/ttymxc2", G_FILE_TEST_IS_SYMLINK));
    }
}
