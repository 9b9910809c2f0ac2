// The Debian package built from this tree: what it holds, what it depends
// on, that the daemon finds its Snap7 inside it, and its user unit.
#include <gtest/gtest.h>

#include <glib.h>
#include <signal.h>
#include <unistd.h>

#include <set>
#include <sstream>

#include "run_program.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

std::string program(const char *name)
{
    gchar *path = g_find_program_in_path(name);
    std::string p = path != nullptr ? path : "";
    g_free(path);
    return p;
}

// The value of `key=` in a unit file (its last setting).
std::string unit_setting(const std::string &unit, const std::string &key)
{
    std::istringstream in(unit);
    std::string line, value;
    while (std::getline(in, line))
        if (line.rfind(key + "=", 0) == 0)
            value = line.substr(key.size() + 1);
    return value;
}

} // namespace

TEST(CtlPackage, DebianPackageHoldsTheServiceAndItsLibrary)
{
    const std::string cpack = DS_CPACK, dpkg_deb = program("dpkg-deb");
    if (dpkg_deb.empty())
        GTEST_SKIP() << "dpkg-deb is not installed (Debian package dpkg)";
    // Installing from a build tree records what it installed in that tree.
    if (access(DS_BINARY_DIR, W_OK) != 0)
        GTEST_SKIP() << "the build tree " DS_BINARY_DIR " is not writable by this user, and cpack "
                        "writes its install manifest there";
    TempDir dir;
    RunResult r = run_program({cpack, "-G", "DEB", "--config", DS_BINARY_DIR "/CPackConfig.cmake",
                               "-B", dir.path()},
                              std::chrono::seconds(300));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::vector<std::string> found;
    GDir *d = g_dir_open(dir.path().c_str(), 0, nullptr);
    ASSERT_NE(d, nullptr);
    while (const gchar *n = g_dir_read_name(d))
        if (g_str_has_suffix(n, ".deb"))
            found.push_back(dir.file(n));
    g_dir_close(d);
    {
        ASSERT_EQ(found.size(), 1u);
        r = run_program({dpkg_deb, "-c", found[0]});
        ASSERT_EQ(r.status, 0) << r.err;
        std::set<std::string> files;
        std::istringstream in(r.out);
        std::string line;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] != '-')
                continue; // directories and links
            files.insert(line.substr(line.rfind(' ') + 1));
        }
        const std::set<std::string> expected = {
            "./usr/bin/device-service",
            "./usr/bin/device-service-ctl",
            "./usr/bin/device-service-bridge",
            "./usr/lib/systemd/user/device-service-bridge.service",
            "./usr/share/device-service/bridge.conf",
            "./usr/lib/device-service/libsnap7.so",
            "./usr/lib/systemd/user/device-service.service",
            "./usr/share/dbus-1/interfaces/com.fernwick.DeviceService.xml",
            "./usr/share/dbus-1/interfaces/com.fernwick.SystemService.xml",
            "./usr/share/dbus-1/interfaces/com.fernwick.ZorvService.xml",
            "./usr/share/dbus-1/interfaces/com.fernwick.VelmoriaService.xml",
            "./usr/share/doc/device-service/README.md",
            "./usr/share/doc/device-service/plant.json",
            "./usr/share/doc/device-service/snap7-LICENSE.txt",
        };
        EXPECT_EQ(files, expected) << "a file added to or dropped from the package on purpose "
                                      "belongs in this list";

        r = run_program({dpkg_deb, "-f", found[0], "Package", "Depends"});
        EXPECT_EQ(r.out, "Package: device-service\nDepends: libglib2.0-0, libsqlite3-0, "
                         "libprotobuf-c1, libmodbus5, libjson-glib-1.0-0, libmosquitto1, libstdc++6, "
                         "libgcc-s1, "
                         "libc6\n");

        // Unpacked anywhere, the daemon finds the package's own Snap7.
        const std::string root = dir.file("root");
        ASSERT_EQ(run_program({dpkg_deb, "-x", found[0], root}).status, 0);
        r = run_program({program("ldd"), root + "/usr/bin/device-service"});
        EXPECT_NE(r.out.find("libsnap7.so => " + root + "/usr/bin/../lib/device-service/libsnap7.so"),
                  std::string::npos)
            << r.out;
        EXPECT_EQ(r.out.find("not found"), std::string::npos) << r.out;
    }
}

TEST(CtlPackage, UserUnitsVerify)
{
    const std::string analyze = program("systemd-analyze");
    if (analyze.empty())
        GTEST_SKIP() << "systemd-analyze is not installed (Debian package systemd)";
    TempDir runtime;
    g_setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), TRUE);
    g_setenv("SYSTEMD_LOG_LEVEL", "notice", TRUE);
    for (const std::string name : {"device-service", "device-service-bridge"}) {
        const std::string unit = DS_SOURCE_DIR "/packaging/" + name + ".service";
        RunResult r = run_program({analyze, "--user", "verify", unit});
        // The one complaint allowed: the program is not installed on this machine.
        std::string complaints = r.out + r.err;
        const std::string not_installed = name + ".service: Command " + name +
                                          " is not executable: No such file or directory\n";
        const bool installed =
            g_file_test(("/usr/bin/" + name).c_str(), G_FILE_TEST_IS_EXECUTABLE) ||
            g_file_test(("/usr/local/bin/" + name).c_str(), G_FILE_TEST_IS_EXECUTABLE);
        if (!installed && complaints.find(not_installed) != std::string::npos)
            complaints.erase(complaints.find(not_installed), not_installed.size());
        EXPECT_EQ(complaints, "") << "systemd-analyze verify " << unit;
        EXPECT_TRUE(r.status == 0 || !installed) << complaints;
    }
}

class CtlUnitStop : public DaemonTest {};

// The unit stops the daemon with its KillSignal; SIGTERM must not be it.
TEST_F(CtlUnitStop, KillSignalEndsTheDaemon)
{
    const std::string unit = read_file(DS_SOURCE_DIR "/packaging/device-service.service");
    const std::string name = unit_setting(unit, "KillSignal");
    const std::map<std::string, int> signals = {{"SIGINT", SIGINT}, {"SIGKILL", SIGKILL},
                                                {"SIGQUIT", SIGQUIT}, {"SIGTERM", SIGTERM}};
    ASSERT_EQ(signals.count(name), 1u) << "KillSignal=" << name;
    EXPECT_NE(name, "SIGTERM");
    EXPECT_EQ(unit_setting(unit, "BusName"), "com.fernwick.DeviceService");

    DaemonProcess &d = start_daemon();
    d.send_signal(SIGTERM);
    ASSERT_TRUE(d.wait_output("receive SIGTERM signal"));
    EXPECT_TRUE(d.running()) << "SIGTERM only logs";
    d.send_signal(signals.at(name));
    EXPECT_NE(d.wait_exit(), -1000) << name << " ends it";
}
