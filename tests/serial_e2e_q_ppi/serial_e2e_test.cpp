// Q-series and S7-200 PLCs read by the running daemon: configured over the
// bus, simulated on pseudo-terminals at the daemon's serial port paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sim/ppi_sim.h"
#include "sim/qna_4c_sim.h"
#include "sim/serial_line.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

class SerialE2E : public DaemonTest {
protected:
    // Starts the system service and the daemon, and configures one serial
    // device with its nodes.
    void configure(GVariant *device_args, const std::vector<NodeSpec> &nodes)
    {
        start_system_service(1);
        start_daemon();
        const CallResult dev = call("SerialDeviceAdd", device_args);
        ASSERT_TRUE(dev.ok) << dev.error << ": " << dev.message;
        ASSERT_EQ(dev.response, 0);
        const CallResult added = call("nodeTableAddMulti", node_array(nodes));
        ASSERT_TRUE(added.ok) << added.error << ": " << added.message;
        ASSERT_EQ(added.response, 0);
    }

    // The PLC stops answering: the driver's time-out line, and cycles that
    // leave every node of the device out; then it answers again.
    void silence(sim::SerialProtocolSim &plc, NodesRecorder &rec, const std::string &timeout_line)
    {
        plc.faults.silent = true;
        EXPECT_TRUE(daemon_->wait_output(timeout_line, 20s)) << daemon_->out();
        EXPECT_TRUE(wait_for_values(rec, {})) << daemon_->out();
        plc.faults.silent = false;
    }

    // Waits for a cycle, emitted from now on, whose values are exactly
    // `expected` (in order); the first ones may still predate a change.
    bool wait_for_values(NodesRecorder &rec, const std::vector<std::string> &expected,
                         std::chrono::milliseconds timeout = 20s)
    {
        size_t seen = rec.count();
        return wait_until(
            [&] {
                pump_main_context(50ms);
                for (; seen < rec.count(); ++seen) {
                    if (cycle_values(rec.cycle(seen)) == expected)
                        return true;
                }
                return false;
            },
            timeout, 1ms);
    }
};

} // namespace

TEST_F(SerialE2E, QSeriesNodesArePublishedAndRecoverAfterSilence)
{
    sim::QnA4CSim plc;
    plc.set_word("D100", 1234);
    plc.set_bit("M20", true);
    sim::SerialLine line(options_.tty1);
    line.add_protocol(&plc);
    line.start();
    NodesRecorder rec(conn());
    configure(serial_args(21, 1, 105, "q", 0, 1, 9600, 8, 1, 1),
              {{21, 2101, "D100", 5, "level"}, {21, 2102, "M20", 1, "pump"}, {21, 2103, "D101", 4, "u16"}});

    // U16 is not a Q serial type: that node never appears.
    ASSERT_TRUE(wait_for_values(rec, {"21/level=1234", "21/pump=1"})) << daemon_->out();

    silence(plc, rec, " respond timeout \n");
    EXPECT_TRUE(daemon_->wait_output("read_PLC_nodes_3:665 D100 = NULL\n"));
    plc.set_word("D100", 4321);
    EXPECT_TRUE(wait_for_values(rec, {"21/level=4321", "21/pump=1"})) << daemon_->out();
}

TEST_F(SerialE2E, S7200NodesArePublishedAndRecoverAfterSilence)
{
    sim::PpiSim plc(2);
    plc.set_bytes(sim::PpiSim::AREA_V, 100, {0x01, 0x02});
    plc.set_bytes(sim::PpiSim::AREA_I, 0, {0x05});
    sim::SerialLine line(options_.tty2);
    line.add_protocol(&plc);
    line.start();
    NodesRecorder rec(conn());
    configure(serial_args(31, 2, 1, "s7", 2, 2, 9600, 8, 1, 0),
              {{31, 3101, "VW100", 4, "flow"}, {31, 3102, "I0.0", 1, "door"}, {31, 3103, "VW100", 8, "bcd"}});

    // BCD16 is no V access: the node is left out with "read error".
    ASSERT_TRUE(wait_for_values(rec, {"31/flow=258", "31/door=1"})) << daemon_->out();

    silence(plc, rec, "timeout1\n");
    plc.set_bytes(sim::PpiSim::AREA_V, 100, {0x00, 0x07});
    EXPECT_TRUE(wait_for_values(rec, {"31/flow=7", "31/door=1"})) << daemon_->out();
}

TEST_F(SerialE2E, BothProtocolsShareOneLine)
{
    // The PPI simulator goes first: it takes a 0x10 only while it holds an
    // answer for the master to fetch; every other 0x10 is a QnA request.
    sim::PpiSim s7(2);
    sim::QnA4CSim q;
    s7.set_bytes(sim::PpiSim::AREA_M, 0, {0x00, 0x2A});
    q.set_word("D0", 99);
    sim::SerialLine line(options_.tty1);
    line.add_protocol(&s7);
    line.add_protocol(&q);
    line.start();
    NodesRecorder rec(conn());
    configure(serial_args(41, 2, 1, "s7", 2, 1, 9600, 8, 1, 0), {{41, 4101, "MW0", 5, "m"}});
    const CallResult dev = call("SerialDeviceAdd", serial_args(42, 1, 105, "q", 0, 1, 9600, 8, 1, 1));
    ASSERT_TRUE(dev.ok);
    ASSERT_EQ(dev.response, 0);
    const CallResult node = call("nodeTableAddMulti", node_array({{42, 4201, "D0", 5, "d"}}));
    ASSERT_TRUE(node.ok);
    ASSERT_EQ(node.response, 0);
    EXPECT_TRUE(wait_for_values(rec, {"41/m=42", "42/d=99"})) << daemon_->out();
}
