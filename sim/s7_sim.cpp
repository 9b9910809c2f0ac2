#include "sim/s7_sim.h"

#include <snap7.h>
#include <unistd.h>

#include <cstdio>

namespace sim {

S7Sim::S7Sim() : inputs_(64, 0), outputs_(64, 0)
{
    for (auto &b : dbs_)
        b.assign(1024, 0);
    server_ = Srv_Create();
    Srv_RegisterArea(server_, srvAreaMK, 0, dbs_[0].data(), static_cast<int>(dbs_[0].size()));
    for (int db = 1; db <= 4; ++db)
        Srv_RegisterArea(server_, srvAreaDB, db, dbs_[db].data(), static_cast<int>(dbs_[db].size()));
    Srv_RegisterArea(server_, srvAreaPE, 0, inputs_.data(), static_cast<int>(inputs_.size()));
    Srv_RegisterArea(server_, srvAreaPA, 0, outputs_.data(), static_cast<int>(outputs_.size()));
}

S7Sim::~S7Sim()
{
    stop();
    Srv_Destroy(&server_);
}

bool S7Sim::start(const char *address)
{
    // Right after a stop the server may still be winding its workers down.
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int rc = Srv_StartTo(server_, address);
        if (rc == 0)
            return true;
        char text[128];
        Srv_ErrorText(rc, text, sizeof text);
        fprintf(stderr, "S7 simulator: %s\n", text);
        usleep(100 * 1000);
    }
    return false;
}

void S7Sim::stop()
{
    Srv_Stop(server_);
}

void S7Sim::set_word(int db, size_t offset, uint16_t value)
{
    set_byte(db, offset, static_cast<uint8_t>(value >> 8));
    set_byte(db, offset + 1, static_cast<uint8_t>(value));
}

void S7Sim::set_byte(int db, size_t offset, uint8_t value)
{
    if (db < 0 || db > 4 || offset >= dbs_[db].size())
        return;
    // The server thread copies out of these blocks under its own lock.
    Srv_LockArea(server_, db == 0 ? srvAreaMK : srvAreaDB, db);
    dbs_[db][offset] = value;
    Srv_UnlockArea(server_, db == 0 ? srvAreaMK : srvAreaDB, db);
}

} // namespace sim
