// The owners of base/handles.h for the PLC libraries the drivers link.
#include <modbus.h>
#include <snap7.h>

#include "base/handles.h"

void modbus_deleter::operator()(_modbus *ctx) const noexcept
{
    if (ctx == nullptr)
        return;
    modbus_close(ctx);
    modbus_free(ctx);
}

void s7_client_owner::reset(uintptr_t client)
{
    if (client_ != 0) {
        S7Object held = client_;
        Cli_Destroy(&held); // also disconnects
    }
    client_ = client;
}
