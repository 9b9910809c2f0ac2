// Wiping the whole device configuration, in the database and in memory.
#pragma once

#include "idl/common/device_idl.h"

// Run when the system service announces the gateway is destroyed; 0 when the
// database step succeeded, -1 otherwise.
int on_handle_gateway_destroy();
// Written for systemCfgReset, which is deliberately not served.
gboolean on_handle_system_cfg_reset(GatewayDeviceService *sk, GDBusMethodInvocation *invocation);
