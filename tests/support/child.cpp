#include "support/child.h"

#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace dstest {

Child::Child(std::vector<std::string> args, const std::string &dir, const std::string &name,
             const ChildOptions &options)
    : out_path_(dir + "/" + name + ".out"), err_path_(dir + "/" + name + ".err")
{
    // Everything the child needs is made before fork: after it, only calls
    // that are safe in a copy of a threaded process.
    gchar **envp = g_get_environ();
    for (const auto &change : options.env) {
        const size_t eq = change.find('=');
        envp = eq == std::string::npos
                   ? g_environ_unsetenv(envp, change.c_str())
                   : g_environ_setenv(envp, change.substr(0, eq).c_str(), change.c_str() + eq + 1, TRUE);
    }
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        close_range(3, ~0U, 0);
        if (options.new_session)
            setsid();
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0)
            _exit(126);
        execve(argv[0], argv.data(), envp);
        _exit(127);
    }
    g_strfreev(envp);
    close(in);
    close(out);
    close(err);
}

Child::~Child()
{
    kill_now();
}

void Child::kill_now()
{
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
        reaped_ = true;
    }
}

void Child::signal(int signo)
{
    if (pid_ > 0 && !reaped_)
        kill(pid_, signo);
}

int Child::wait_exit(std::chrono::milliseconds timeout)
{
    if (!reaped_ && !wait_until([&] { return waitpid(pid_, &status_, WNOHANG) == pid_; }, timeout, 5ms))
        return -1;
    reaped_ = true;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

bool Child::running()
{
    return !reaped_ && wait_exit(0ms) == -1;
}

std::string Child::out() const
{
    return read_file(out_path_);
}

std::string Child::err() const
{
    return read_file(err_path_);
}

bool Child::wait_err(const std::string &needle, std::chrono::milliseconds timeout, size_t occurrences) const
{
    return wait_until([&] { return count_of(err(), needle) >= occurrences; }, timeout);
}

bool Child::wait_out(const std::string &needle, std::chrono::milliseconds timeout, size_t occurrences) const
{
    return wait_until([&] { return count_of(out(), needle) >= occurrences; }, timeout, 20ms);
}

} // namespace dstest
