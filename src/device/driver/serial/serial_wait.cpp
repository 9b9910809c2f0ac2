#include "device/driver/serial/serial_wait.h"

#include <poll.h>

#include <cerrno>
#include <ctime>

int64_t serial_now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const int64_t sec = ts.tv_sec;
    return sec * 1000 + ts.tv_nsec / 1000000;
}

int serial_wait_readable(int fd, int64_t deadline_ms)
{
    for (;;) {
        const int64_t left = deadline_ms - serial_now_ms();
        if (left <= 0)
            return 0;
        struct pollfd pfd {fd, POLLIN, 0};
        const int r = poll(&pfd, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return -1;
        if (r == 0)
            return 0;
        if ((pfd.revents & POLLNVAL) != 0) {
            errno = EBADF;
            return -1;
        }
        // A hang-up or error is reported readable: the read that follows
        // returns the error.
        return 1;
    }
}

void serial_sleep_until(int64_t deadline_ms)
{
    for (;;) {
        const int64_t left = deadline_ms - serial_now_ms();
        if (left <= 0)
            return;
        poll(nullptr, 0, static_cast<int>(left));
    }
}
