#include "device/driver/exchange.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

int64_t now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const int64_t sec = ts.tv_sec;
    return sec * 1000 + ts.tv_nsec / 1000000;
}

int wait_readable(int fd, int64_t deadline_ms)
{
    for (;;) {
        const int64_t left = deadline_ms - now_ms();
        struct pollfd pfd {fd, POLLIN, 0};
        // A deadline already passed still looks once: what is there is taken.
        const int r = poll(&pfd, 1, left > 0 ? static_cast<int>(left) : 0);
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

void sleep_until(int64_t deadline_ms)
{
    for (int64_t left; (left = deadline_ms - now_ms()) > 0;)
        poll(nullptr, 0, static_cast<int>(left));
}

answer_end read_until_complete(int fd, uint8_t *buf, size_t size, size_t &len, answer_wait wait,
                               frame_complete complete, const void *ctx)
{
    int64_t deadline = wait.deadline_ms;
    for (;;) {
        if (len >= size) {
            sleep_until(deadline);
            return answer_end::time_out;
        }
        const int ready = wait_readable(fd, deadline);
        if (ready < 0)
            return answer_end::wait_failed;
        if (ready == 0)
            return answer_end::time_out;
        const ssize_t n = read(fd, buf + len, size - len);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n < 0)
            return answer_end::read_failed;
        if (n == 0)
            return answer_end::closed;
        len += static_cast<size_t>(n);
        if (wait.renew_ms > 0)
            deadline = now_ms() + wait.renew_ms;
        if (complete(buf, len, ctx))
            return answer_end::complete;
    }
}
