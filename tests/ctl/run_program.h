// Runs a program to its end with a deadline, collecting what it prints.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace dstest {

struct RunResult {
    int status = -1; // exit status; -1 when it did not exit by itself in time
    std::string out;
    std::string err;
};

// argv[0] is the program's path. A program still running at the deadline
// is killed, so a hang fails a test instead of stalling it.
RunResult run_program(const std::vector<std::string> &argv,
                      std::chrono::seconds deadline = std::chrono::seconds(60));

} // namespace dstest
