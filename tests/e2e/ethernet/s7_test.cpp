// An S7-1200 read by the running daemon from Snap7's server on port 102
// (root only): its nodes go away with the server and come back with it.
#include <gtest/gtest.h>

#include <unistd.h>

#include "sim/s7_sim.h"
#include "support/daemon_fixture.h"

using namespace dstest;

class S7E2E : public DaemonTest {};

TEST_F(S7E2E, S7_1200NodesArePublishedAndComeBackAfterTheServerStops)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "Snap7's server needs port 102, which needs root";
    sim::S7Sim plc;
    plc.set_word(1, 0, 1234);
    plc.set_word(0, 4, 0xFFFE);
    ASSERT_TRUE(plc.start());
    start_daemon();
    NodesRecorder rec(conn());
    add_device(ethernet_args(7, 2, 3, "line", "127.0.0.1", 102),
               {{7, 1, "DB1_0", 4, "speed"}, {7, 2, "MW4", 5, "delta"}, {7, 3, "C1", 4, "count"}});
    start_system_service(1);
    // The counter node reads nothing and keeps its (empty) text.
    ASSERT_TRUE(rec.wait_for_values({"7/speed=1234", "7/delta=-2", "7/count="})) << daemon_->out();
    plc.stop();
    ASSERT_TRUE(daemon_->wait_output("open error\n", 15s));
    ASSERT_TRUE(rec.wait_for_values({})) << "the device is published with no nodes";
    plc.set_word(1, 0, 4321);
    ASSERT_TRUE(plc.start());
    EXPECT_TRUE(rec.wait_for_values({"7/speed=4321", "7/delta=-2", "7/count="}));
}
