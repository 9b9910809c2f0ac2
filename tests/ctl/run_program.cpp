#include "run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace dstest {

RunResult run_program(const std::vector<std::string> &args, std::chrono::seconds deadline)
{
    std::vector<std::string> all = args;
    std::vector<char *> argv;
    for (auto &a : all)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return {};
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return {};
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    RunResult r;
    const auto end = std::chrono::steady_clock::now() + deadline;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *sinks[2] = {&r.out, &r.err};
    int open_fds = 2;
    bool killed = false;
    while (open_fds > 0 && pid > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kill(pid, SIGKILL);
            killed = true;
            break;
        }
        if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buf[4096];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
    }
    for (auto &f : fds)
        if (f.fd >= 0)
            close(f.fd);
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && !killed && WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    return r;
}

} // namespace dstest
