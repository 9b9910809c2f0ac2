// Bounded waits on a serial descriptor for the serial PLC drivers.
#pragma once

#include <cstdint>

// Milliseconds on a clock that never jumps.
int64_t serial_now_ms();

// Waits until `fd` is readable or `deadline_ms` (serial_now_ms time) has
// passed. 1 readable, 0 time-out, -1 error with errno set. Works for any
// descriptor number, unlike select with an fd_set.
int serial_wait_readable(int fd, int64_t deadline_ms);

// Sleeps until the deadline: used when input is pending that the caller
// cannot take, so that the wait still ends in a time-out instead of a spin.
void serial_sleep_until(int64_t deadline_ms);
