// The reading thread: cycles device by device over the configuration,
// reads each node through the device's driver, and emits one `nodes`
// signal per complete cycle.
#pragma once

void *thread_start(void *arg);
[[noreturn]] void read_PLC_nodes_3();
