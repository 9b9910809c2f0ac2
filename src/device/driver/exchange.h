// Bounded waits on a descriptor and the reading of one answer, for every
// driver that talks to its PLC through a file descriptor (serial port or
// TCP socket).
#pragma once

#include <cstddef>
#include <cstdint>

// Milliseconds on a clock that never jumps.
int64_t now_ms();

// Waits until `fd` is readable or `deadline_ms` (now_ms time) has passed.
// 1 readable, 0 time-out, -1 error with errno set. Works for any descriptor
// number, unlike select with an fd_set.
int wait_readable(int fd, int64_t deadline_ms);

// Sleeps until the deadline.
void sleep_until(int64_t deadline_ms);

// How reading an answer ended.
enum class answer_end {
    complete,    // the protocol's test said the frame is whole
    time_out,    // a wait ran out (also when the buffer filled before the frame did)
    wait_failed, // errno set
    read_failed, // errno set
    closed,      // the peer closed: a read gave nothing
};

// When a wait for more of the answer gives up: at `deadline_ms`, or, with
// `renew_ms` set, that long after the last bytes came.
struct answer_wait {
    int64_t deadline_ms;
    int64_t renew_ms = 0;
};

// The protocol's test: are buf[0..len) a whole frame?
using frame_complete = bool (*)(const uint8_t *buf, size_t len, const void *ctx);

// Reads from `fd` into buf[len..size), waiting before each read, until
// `complete` holds for what was gathered. `len` counts the bytes held,
// whatever the end. A buffer that fills before the frame completes waits
// out its deadline: the rest of such an answer is not this one's.
answer_end read_until_complete(int fd, uint8_t *buf, size_t size, size_t &len, answer_wait wait,
                               frame_complete complete, const void *ctx = nullptr);

// The same with any callable `complete(buf, len)` as the test.
template <typename Test>
answer_end read_until_complete(int fd, uint8_t *buf, size_t size, size_t &len, answer_wait wait,
                               const Test &complete)
{
    return read_until_complete(
        fd, buf, size, len, wait,
        [](const uint8_t *b, size_t n, const void *ctx) { return (*static_cast<const Test *>(ctx))(b, n); },
        &complete);
}
