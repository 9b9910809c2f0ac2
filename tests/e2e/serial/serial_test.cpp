// Serial PLCs read by the running daemon: configured over the bus,
// simulated on pseudo-terminals at the daemon's serial port paths.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/dvp_sim.h"
#include "sim/fx_sim.h"
#include "sim/serial_line.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

class SerialE2E : public DaemonTest {
protected:
    void SetUp() override
    {
        start_system_service(1);
        start_daemon();
    }

    // Links a line answering through `plcs` at port 1 or 2.
    void line(int port, std::vector<sim::SerialProtocolSim *> plcs)
    {
        auto &l = lines_.emplace_back(std::make_unique<sim::SerialLine>(port == 1 ? options_.tty1 : options_.tty2));
        for (auto *p : plcs)
            l->add_protocol(p);
        l->start();
    }

    // The PLC stops answering: the driver's time-out line, the reading
    // loop's line for the node, and cycles without the device's nodes.
    void silence(sim::SerialProtocolSim &plc, const std::string &timeout_line, const std::string &node_addr,
                 const std::vector<std::string> &others)
    {
        plc.faults.silent = true;
        EXPECT_TRUE(daemon_->wait_output(timeout_line, 20s)) << daemon_->out();
        EXPECT_TRUE(daemon_->wait_output("read_PLC_nodes_3:665 " + node_addr + " = NULL\n", 20s));
        EXPECT_TRUE(rec_.wait_for_values(others)) << daemon_->out();
        plc.faults.silent = false;
    }

    NodesRecorder rec_{conn()};
    std::vector<std::unique_ptr<sim::SerialLine>> lines_;
};

} // namespace

TEST_F(SerialE2E, FxAndDvpLinesPublishAndRecoverAfterSilence)
{
    sim::FxSim fx;
    fx.set_register(100, 321);
    fx.set_register(20, 0x0000); // 1.5f
    fx.set_register(21, 0x3FC0);
    fx.set_bit("M8", true);
    line(1, {&fx});
    sim::DvpSim dvp(10);
    dvp.set_device("D200", 77);
    dvp.set_device("X17", 1);
    dvp.set_device("C5", 50000);
    line(2, {&dvp});
    add_device(serial_args(1, 1, 102, "fx1n", 0, 1, 9600, 7, 1, 1),
               {{1, 11, "D100", 4, "d"}, {1, 12, "M8", 1, "m"}, {1, 13, "D20", 10, "f"}});
    add_device(serial_args(2, 1, 101, "fx3u", 0, 1, 9600, 7, 1, 1),
               {{2, 21, "D100", 11, "h"}, {2, 22, "D20", 10, "f"}, {2, 23, "X18", 1, "bad"}});
    add_device(serial_args(5, 3, 201, "dvp", 10, 2, 9600, 7, 1, 1),
               {{5, 51, "d200", 4, "level"}, {5, 52, "X17", 1, "door"}, {5, 53, "C5", 6, "count"},
                {5, 54, "D101", 5, "s16"}});

    // The FX-1N has no Float ("unkown type" is still a value); X18 is no
    // FX input and S16 no DVP type: those nodes never appear.
    auto fx_values = [](const std::string &d, const std::string &h) {
        return std::vector<std::string>{"1/d=" + d, "1/m=1", "1/f=unkown type", "2/h=" + h, "2/f=1.500000"};
    };
    auto dvp_values = [](const std::string &level) {
        return std::vector<std::string>{"5/level=" + level, "5/door=1", "5/count=50000"};
    };
    auto both = [](std::vector<std::string> a, const std::vector<std::string> &b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    ASSERT_TRUE(rec_.wait_for_values(both(fx_values("321", "0x141"), dvp_values("77")))) << daemon_->out();
    gchar *cycle = g_variant_print(rec_.last(), FALSE);
    EXPECT_NE(std::string(cycle).find("('level', 'D200', "), std::string::npos)
        << "the node configured as d200 goes out as read, D200: " << cycle;
    g_free(cycle);

    silence(fx, "timeout1\n", "D100", dvp_values("77"));
    fx.set_register(100, 123);
    silence(dvp, "select timeout\n", "D200", fx_values("123", "0x7b"));
    dvp.set_device("D200", 78);
    EXPECT_TRUE(rec_.wait_for_values(both(fx_values("123", "0x7b"), dvp_values("78")))) << daemon_->out();
}
