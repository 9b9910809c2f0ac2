// The reading thread: cycles over devices and nodes and emits `nodes`.
#pragma once

void *thread_start(void *arg);
