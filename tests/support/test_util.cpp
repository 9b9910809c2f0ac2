#include "support/test_util.h"

#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace dstest {

TempDir::TempDir()
{
    GError *error = nullptr;
    gchar *dir = g_dir_make_tmp("ds-test-XXXXXX", &error);
    if (dir == nullptr) {
        std::string msg = error != nullptr ? error->message : "unknown";
        g_clear_error(&error);
        throw std::runtime_error("cannot make a temporary directory: " + msg);
    }
    path_ = dir;
    g_free(dir);
}

// Symbolic links (a serial port's, say) are removed, never followed.
TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout,
                std::chrono::milliseconds step)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (pred())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(step);
    }
}

size_t count_of(const std::string &text, const std::string &needle)
{
    if (needle.empty())
        return 0;
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

Captured capture_output(const std::function<void()> &fn)
{
    TempDir dir;
    const std::string out_path = dir.file("out");
    const std::string err_path = dir.file("err");
    fflush(stdout);
    fflush(stderr);
    const int saved_out = dup(1);
    const int saved_err = dup(2);
    FILE *out = fopen(out_path.c_str(), "w");
    FILE *err = fopen(err_path.c_str(), "w");
    dup2(fileno(out), 1);
    dup2(fileno(err), 2);
    fn();
    fflush(stdout);
    fflush(stderr);
    dup2(saved_out, 1);
    dup2(saved_err, 2);
    close(saved_out);
    close(saved_err);
    fclose(out);
    fclose(err);
    return Captured{read_file(out_path), read_file(err_path)};
}

} // namespace dstest
