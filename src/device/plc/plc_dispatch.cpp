#include "device/plc/plc_dispatch.h"

void connect_device_service_handlers(GatewayDeviceService * /*sk*/)
{
}
