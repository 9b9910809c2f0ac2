// An FX-5U (Modbus TCP) and a Q CPU (MC protocol 3E) read by the running
// daemon: configured over the bus, simulated on loopback; PLCs that go away
// or stop answering cost their own nodes, and their values come back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/mc_3e_sim.h"
#include "sim/modbus_tcp_sim.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

constexpr uint32_t FX5U = 11;
constexpr uint32_t Q3E = 12;

class EthMitsubishiE2E : public DaemonTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fx5u_.start());
        ASSERT_TRUE(q_.start());
        fx5u_.set_register(100, 42);        // D100
        fx5u_.set_register(10, 0x0002);     // D10, low word
        fx5u_.set_register(11, 0x0001);     // D11, high word
        fx5u_.set_coil(8192 + 8, true);     // M8
        fx5u_.set_input(1, true);           // X1
        fx5u_.set_register(30, 0x0000);     // D30/D31: 1.5f
        fx5u_.set_register(31, 0x3FC0);
        q_.set(0xA8, 100, static_cast<uint16_t>(-3)); // D100
        q_.set(0x90, 20, 1);                          // M20

        start_system_service(1);
        start_daemon();
        add_device(ethernet_args(FX5U, 1, 103, "press", "127.0.0.1", fx5u_.port()),
                   {{FX5U, 1101, "D100", 4, "strokes"},
                    {FX5U, 1102, "D10", 6, "count"},
                    {FX5U, 1103, "M8", 1, "running"},
                    {FX5U, 1104, "x1", 1, "guard"},
                    {FX5U, 1105, "D30", 10, "speed"},
                    {FX5U, 1106, "D10", 1, "wrong"}});
        add_device(ethernet_args(Q3E, 1, 104, "oven", "127.0.0.1", q_.port()),
                   {{Q3E, 1201, "D100", 5, "trays"},
                    {Q3E, 1202, "M20", 1, "heating"},
                    {Q3E, 1203, "D100", 4, "u16"}});
    }

    std::vector<std::string> fx5u_values(const std::string &strokes) const
    {
        return {"11/strokes=" + strokes, "11/count=65538", "11/running=1", "11/guard=1",
                "11/speed=1.500000"};
    }

    sim::ModbusTcpSim fx5u_;
    sim::Mc3eSim q_;
    NodesRecorder rec_{conn()};
};

} // namespace

TEST_F(EthMitsubishiE2E, PlcsThatStopAnsweringOrGoAwayCostOnlyTheirOwnNodes)
{
    std::vector<std::string> all = fx5u_values("42");
    all.insert(all.end(), {"12/trays=-3", "12/heating=1"});
    // A node of a type its area does not offer is left out of every cycle.
    ASSERT_TRUE(rec_.wait_for_values(all)) << daemon_->out();
    EXPECT_TRUE(daemon_->wait_output("D10 = NULL\n"));
    EXPECT_TRUE(daemon_->wait_output(" dt err = 4\n"));

    q_.faults.silent = true;
    EXPECT_TRUE(daemon_->wait_output("select = 0\n", 15s));
    EXPECT_TRUE(rec_.wait_for_values(fx5u_values("42"))) << "the FX-5U goes on";
    q_.faults.silent = false;
    fx5u_.faults.close_conn = true;
    EXPECT_TRUE(rec_.wait_for_values({"12/trays=-3", "12/heating=1"})) << "the Q CPU goes on";
    fx5u_.faults.close_conn = false;

    const uint16_t fx_port = fx5u_.port();
    const uint16_t q_port = q_.port();
    fx5u_.stop();
    q_.stop();
    EXPECT_TRUE(daemon_->wait_output("connection fail\n", 15s));
    EXPECT_TRUE(daemon_->wait_output(" connect:Connection refused\n", 15s)) << daemon_->out();
    ASSERT_TRUE(rec_.wait_for_values({})) << "both devices are published without nodes";

    fx5u_.set_register(100, 43);
    q_.set(0xA8, 100, 7);
    ASSERT_TRUE(fx5u_.start(fx_port));
    ASSERT_TRUE(q_.start(q_port));
    all = fx5u_values("43");
    all.insert(all.end(), {"12/trays=7", "12/heating=1"});
    EXPECT_TRUE(rec_.wait_for_values(all)) << daemon_->out();
}
