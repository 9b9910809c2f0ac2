// Connects the served methods of the device service to their handlers.
#pragma once

#include "idl/common/device_idl.h"

void connect_device_service_handlers(GatewayDeviceService *sk);
