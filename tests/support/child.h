// A program run by a test as a child process, its output kept in files.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace dstest {

struct ChildOptions {
    std::string cwd;              // the test's own when empty
    std::vector<std::string> env; // "NAME=value" sets, a bare "NAME" removes
    bool new_session = false;     // the leader of a session of its own
};

// Runs `args` (args[0] is the program's path) with stdin from /dev/null and
// stdout and stderr in `dir`/`name`.out and .err; nothing else of the test's
// descriptors goes along (a simulated PLC's socket would outlive it).
// Killed (SIGKILL) and reaped on destruction.
class Child {
public:
    Child(std::vector<std::string> args, const std::string &dir, const std::string &name,
          const ChildOptions &options = {});
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int signo);
    void kill_now();
    // Exit status, 128 + signal when killed, -1 when it did not end in time.
    int wait_exit(std::chrono::milliseconds timeout = 10s);
    bool running();
    std::string out() const;
    std::string err() const;
    bool wait_err(const std::string &needle, std::chrono::milliseconds timeout = 10s,
                  size_t occurrences = 1) const;
    bool wait_out(const std::string &needle, std::chrono::milliseconds timeout = 10s,
                  size_t occurrences = 1) const;

private:
    pid_t pid_ = -1;
    int status_ = 0;
    bool reaped_ = false;
    std::string out_path_, err_path_;
};

} // namespace dstest
