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

    // At least two cycles, and the counter of the Q CPU moved between them.
    std::vector<std::string> counters;
    for (size_t pos = out.find("Q-series boiler          counter"); pos != std::string::npos;
         pos = out.find("Q-series boiler          counter", pos + 1))
        counters.push_back(out.substr(pos, out.find('\n', pos) - pos));
    ASSERT_GE(counters.size(), 2u) << out;
    EXPECT_NE(counters.front(), counters.back());
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
