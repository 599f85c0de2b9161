// A sensor-simd started by a benchmark program: a temporary socket, ended by its pid, its directory
// removed. Shared by the benchmarks that measure consumers of the service.
#ifndef SIPC_BENCH_SIM_SERVICE_H
#define SIPC_BENCH_SIM_SERVICE_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace sipc_bench {

// CPU time of every living thread of a process ("self" or a pid) in nanoseconds, as the scheduler
// counts it: getrusage counts in ticks, too coarse for the few milliseconds a consumer spends.
inline uint64_t threadsCpuNs(const std::string& process) {
    uint64_t total = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
        std::ifstream in(entry.path() / "schedstat");
        uint64_t ns = 0;
        if (in >> ns) total += ns;
    }
    return total;
}

// Without a rig text it runs the default rig.
struct Service {
    std::string dir;
    std::string socket;
    pid_t pid = -1;

    explicit Service(const char* rig) {
        char tmpl[] = "/tmp/sensor-simd-bench-XXXXXX";
        if (::mkdtemp(tmpl) == nullptr) return;
        dir = tmpl;
        socket = dir + "/service.sock";
        std::vector<std::string> args = {SIPC_SERVICE_BIN, "--socket", socket};
        if (rig != nullptr) {
            std::ofstream(dir + "/rig.toml") << rig;
            args.push_back("--rig");
            args.push_back(dir + "/rig.toml");
        }
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~Service() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
        if (!dir.empty()) std::filesystem::remove_all(dir);
    }
    // CPU time of every thread of the service, in nanoseconds.
    uint64_t cpuNs() const;
};

inline uint64_t Service::cpuNs() const {
    return threadsCpuNs(std::to_string(pid));
}

// Starts `args` with SENSOR_SIM_SERVICE naming `socket` and standard output into `out`; -1 on failure.
inline pid_t spawnWith(std::vector<std::string> args, const std::string& out, const std::string& socket) {
    std::vector<std::string> env = {"SENSOR_SIM_SERVICE=" + socket};
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::string(*e).rfind("SENSOR_SIM_SERVICE=", 0) != 0) env.push_back(*e);
    }
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// CPU seconds of a child that has ended (its exit is waited for here).
inline double reap(pid_t pid) {
    if (pid <= 0) return -1;
    int status = 0;
    rusage usage{};
    if (::wait4(pid, &status, 0, &usage) != pid) return -1;
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace sipc_bench

#endif  // SIPC_BENCH_SIM_SERVICE_H
