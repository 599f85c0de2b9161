// Programs that end-to-end tests run as processes of their own: standard output and error captured,
// every run bounded in time, and a run that overstays killed by its own pid (and failing the test).
#ifndef SIPC_TESTS_CHILD_PROCESS_H
#define SIPC_TESTS_CHILD_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

extern char** environ;

namespace sipc_test {

struct ChildRun {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
    bool timedOut = false;
};

struct ChildOptions {
    std::chrono::milliseconds limit{std::chrono::seconds(60)};
    std::optional<std::chrono::milliseconds> interruptAfter = {};  // send SIGINT then
    std::string stdoutFile = {};                                   // instead of a pipe
    // "NAME=value" replaces the inherited NAME; a bare "NAME" removes it.
    std::vector<std::string> env = {};
};

// The environment of a child: the inherited one with the overrides applied.
inline std::vector<std::string> childEnvironment(const std::vector<std::string>& overrides) {
    auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    std::vector<std::string> out;
    for (const auto& entry : overrides) {
        if (entry.find('=') != std::string::npos) out.push_back(entry);
    }
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        bool replaced = false;
        for (const auto& o : overrides) replaced = replaced || nameOf(o) == nameOf(entry);
        if (!replaced) out.push_back(entry);
    }
    return out;
}

// NUL-terminated pointer arrays over a child's arguments and environment, as posix_spawn takes them.
struct SpawnArgs {
    std::vector<std::string> args;
    std::vector<std::string> env;
    std::vector<char*> argp;
    std::vector<char*> envp;
    SpawnArgs(std::vector<std::string> argv, const std::vector<std::string>& overrides)
        : args(std::move(argv)), env(childEnvironment(overrides)) {
        for (auto& a : args) argp.push_back(a.data());
        for (auto& e : env) envp.push_back(e.data());
        argp.push_back(nullptr);
        envp.push_back(nullptr);
    }
};

// Starts argv (argv[0] an absolute path) in the background, its standard output and error written to
// the files `out` and `err`: a service or a consumer that the test ends by its own pid. -1 on failure.
inline pid_t startChild(std::vector<std::string> argv, const std::vector<std::string>& env,
                        const std::string& out, const std::string& err) {
    SpawnArgs spawn(std::move(argv), env);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, spawn.argp[0], &actions, nullptr, spawn.argp.data(), spawn.envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        ADD_FAILURE() << "posix_spawn " << spawn.args[0] << ": " << std::strerror(spawned);
        return -1;
    }
    return pid;
}

// Ends a child of startChild: `signal`, then SIGKILL when it has not exited within `limit`. Its exit
// status, or 128 + the signal that ended it.
inline int endChild(pid_t pid, int signal, std::chrono::milliseconds limit) {
    if (pid <= 0) return -1;
    kill(pid, signal);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int wstatus = 0;
    while (waitpid(pid, &wstatus, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ADD_FAILURE() << "child " << pid << " outlived " << limit.count() << " ms after signal "
                          << signal;
            kill(pid, SIGKILL);
            waitpid(pid, &wstatus, 0);
            break;
        }
        usleep(10000);
    }
    return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
}

// Runs argv (argv[0] an absolute path) until it ends or overstays options.limit.
inline ChildRun runChild(std::vector<std::string> argv, const ChildOptions& options = {}) {
    using Clock = std::chrono::steady_clock;
    ChildRun run;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        return run;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    if (!options.stdoutFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, options.stdoutFile.c_str(), O_WRONLY, 0);
    }
    SpawnArgs spawn(argv, options.env);
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, spawn.argp[0], &actions, nullptr, spawn.argp.data(), spawn.envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    if (spawned != 0) {
        ADD_FAILURE() << "posix_spawn " << argv[0] << ": " << std::strerror(spawned);
        close(outPipe[0]);
        close(errPipe[0]);
        return run;
    }
    const auto start = Clock::now();
    const auto deadline = start + options.limit;
    bool interruptSent = false;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&run.out, &run.err};
    int open = 2;
    while (open > 0) {
        const auto now = Clock::now();
        if (now >= deadline) {
            run.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        if (options.interruptAfter && !interruptSent && now - start >= *options.interruptAfter) {
            kill(pid, SIGINT);
            interruptSent = true;
        }
        if (poll(fds, 2, 50) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
            char buf[65536];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& f : fds) {
        if (f.fd >= 0) close(f.fd);
    }
    int wstatus = 0;
    while (waitpid(pid, &wstatus, WNOHANG) == 0) {
        if (Clock::now() >= deadline && !run.timedOut) {
            run.timedOut = true;
            kill(pid, SIGKILL);
        }
        usleep(10000);
    }
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    EXPECT_FALSE(run.timedOut) << argv[0] << " overstayed "
                               << std::chrono::duration_cast<std::chrono::seconds>(options.limit).count()
                               << " s; stderr:\n"
                               << run.err;
    return run;
}

}  // namespace sipc_test

#endif  // SIPC_TESTS_CHILD_PROCESS_H
