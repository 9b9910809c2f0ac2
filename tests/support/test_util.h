// Small helpers shared by the tests: scratch directories, files, waiting.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace dstest {

using namespace std::chrono_literals;

// A fresh directory under $TMPDIR (or /tmp), removed with its content.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

// Polls `pred` until it holds or the time is up; true when it held.
bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout,
                std::chrono::milliseconds step = 10ms);

// Number of non-overlapping occurrences of `needle` in `text`.
size_t count_of(const std::string &text, const std::string &needle);

struct Captured {
    std::string out;
    std::string err;
};

// Runs `fn` with standard output and standard error sent to files, and
// returns what it wrote to each.
Captured capture_output(const std::function<void()> &fn);

} // namespace dstest
