// A simulated plant for trying device-service without hardware: on each of
// the gateway's two serial ports a pseudo-terminal answering every serial
// protocol the daemon speaks, and on loopback the Ethernet PLCs. Values
// move (a counter, a ramp, a toggling bit) so that each cycle shows change.
//   device-service-plant [--tty1 PATH] [--tty2 PATH]
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "sim/dvp_sim.h"
#include "sim/fx_sim.h"
#include "sim/mc_3e_sim.h"
#include "sim/modbus_tcp_sim.h"
#include "sim/ppi_sim.h"
#include "sim/qna_4c_sim.h"
#include "sim/s7_sim.h"
#include "sim/serial_line.h"

namespace {

volatile sig_atomic_t stop_requested = 0;

void on_stop(int)
{
    stop_requested = 1;
}

// Every serial PLC of the plant, answering on one line.
struct SerialPlcs {
    sim::PpiSim s7_200{2};
    sim::QnA4CSim q_cpu;
    sim::FxSim fx;
    sim::DvpSim dvp;

    void attach(sim::SerialLine &line)
    {
        // PPI first: it claims a 0x10 frame only while it has an answer to fetch.
        line.add_protocol(&s7_200);
        line.add_protocol(&q_cpu);
        line.add_protocol(&fx);  // STX
        line.add_protocol(&dvp); // ':'

    }

    void update(unsigned tick)
    {
        const uint16_t counter = static_cast<uint16_t>(tick);
        const uint16_t ramp = static_cast<uint16_t>((tick * 7) % 1000);
        const bool toggle = ((tick / 2) % 2) != 0; // flips once per reading cycle
        s7_200.set_bytes(sim::PpiSim::AREA_V, 100,
                         {static_cast<uint8_t>(counter >> 8), static_cast<uint8_t>(counter)});
        s7_200.set_bytes(sim::PpiSim::AREA_V, 102,
                         {static_cast<uint8_t>(ramp >> 8), static_cast<uint8_t>(ramp)});
        s7_200.set_bytes(sim::PpiSim::AREA_I, 0, {static_cast<uint8_t>(toggle ? 1 : 0)});
        q_cpu.set_word("D100", counter);
        q_cpu.set_word("D101", ramp);
        q_cpu.set_bit("M20", toggle);
        fx.set_register(100, counter);
        fx.set_bit("M8", toggle);
        dvp.set(0x1064, counter); // D100
    }
};

} // namespace

int main(int argc, char **argv)
{
    std::string tty[2] = {"/dev/ttymxc1", "/dev/ttymxc2"};
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "--tty1") == 0)
            tty[0] = argv[++i];
        else if (strcmp(argv[i], "--tty2") == 0)
            tty[1] = argv[++i];
    }
    signal(SIGINT, on_stop);
    signal(SIGTERM, on_stop);

    std::vector<std::unique_ptr<sim::SerialLine>> lines;
    std::vector<std::unique_ptr<SerialPlcs>> plcs;
    try {
        for (const auto &path : tty) {
            lines.push_back(std::make_unique<sim::SerialLine>(path));
            plcs.push_back(std::make_unique<SerialPlcs>());
            plcs.back()->attach(*lines.back());
            lines.back()->start();
            printf("serial line %s -> %s: FX programming port, DVP Modbus ASCII, "
                   "S7-200 PPI (station 2), Q series QnA 4C format 5\n",
                   path.c_str(), lines.back()->slave_path().c_str());
        }
    } catch (const std::exception &e) {
        fprintf(stderr, "device-service-plant: %s\n", e.what());
        return 1;
    }
    sim::ModbusTcpSim fx5u;
    sim::Mc3eSim q_3e;
    if (fx5u.start(5020))
        printf("FX-5U (Modbus TCP) on 127.0.0.1:5020\n");
    else
        printf("FX-5U not started: 127.0.0.1:5020 is taken\n");
    if (q_3e.start(5007))
        printf("Q CPU (MC protocol 3E) on 127.0.0.1:5007\n");
    else
        printf("Q CPU (3E) not started: 127.0.0.1:5007 is taken\n");

    // The S7 family listens on ISO-on-TCP port 102: only root can offer it.
    sim::S7Sim s7;
    const bool s7_up = geteuid() == 0 && s7.start("127.0.0.1");
    if (s7_up)
        printf("S7 PLC (Snap7 server) on 127.0.0.1:102: DB1, merkers, inputs, outputs\n");
    else
        printf("S7 PLC not started (port 102 needs root)\n");
    printf("plant running; Ctrl-C stops it\n");
    fflush(stdout);

    for (unsigned tick = 0; stop_requested == 0; ++tick) {
        for (auto &p : plcs)
            p->update(tick);
        fx5u.set_register(100, static_cast<uint16_t>(tick));       // D100
        q_3e.set(0xA8, 100, static_cast<uint16_t>(tick * 2));      // D100
        if (s7_up) {
            s7.set_word(1, 0, static_cast<uint16_t>(tick));           // S7-1200 family: DB1_DBW0
            s7.set_word(1, 100, static_cast<uint16_t>(tick * 3));     // 200 SMART: VW100
        }
        usleep(500 * 1000);
    }
    for (auto &l : lines)
        l->stop();
    if (s7_up)
        s7.stop();
    return 0;
}
