// sensor-simd: the simulated camera-access service as a process of its own. One rig, many consumer
// processes attached through a private Unix socket, frames in shared memory.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>

#include "sensor_sim/internal/messages.h"
#include "sensor_sim/internal/rig_internal.h"
#include "sensor_sim/service.h"
#include "sensor_sim/rig.h"
#include "server.h"

int main(int argc, char** argv) {
    CLI::App app{"sensor-simd: one simulated vehicle served to several application processes"};
    std::string rigFile, scenarioFile, socketPath = sensor_sim::service::defaultSocketPath();
    app.add_option("--rig", rigFile, "Rig file (default: the built-in rig)");
    app.add_option("--scenario", scenarioFile, "Scenario file (default: none)");
    app.add_option("--socket", socketPath, "Socket to listen at")->capture_default_str();
    sensor_simd::Limits limits;
    app.add_option("--max-clients", limits.maxClients, "Connections served at once; more are refused")
        ->capture_default_str()
        ->check(CLI::Range(1u, 100000u));
    double handshakeS = std::chrono::duration<double>(limits.handshake).count();
    app.add_option("--handshake-timeout", handshakeS, "Seconds a new connection has to say hello")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
    CLI11_PARSE(app, argc, argv);
    limits.handshake = std::chrono::milliseconds(static_cast<int64_t>(handshakeS * 1000));

    // The stop signals are read from a descriptor by the server; no thread may take them otherwise.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    sensor_sim::rig::internal::setSharedMemoryPools(true);
    if (!rigFile.empty()) {
        if (const std::string error = sensor_sim::rig::loadFile(rigFile); !error.empty()) {
            std::fprintf(stderr, "sensor-simd: %s\n", error.c_str());
            return 2;
        }
    }
    if (!scenarioFile.empty()) {
        if (const std::string error = sensor_sim::rig::loadScenarioFile(scenarioFile); !error.empty()) {
            std::fprintf(stderr, "sensor-simd: %s\n", error.c_str());
            return 2;
        }
    }
    // A rig whose frames no consumer could map is refused now, not by every consumer later.
    if (const std::string why = sensor_sim::rig::internal::unservable(sensor_sim::msg::kMaxBufferBytes,
                                                                      sensor_simd::kMaxSharedBuffers);
        !why.empty()) {
        std::fprintf(stderr, "sensor-simd: %s: %s\n", rigFile.empty() ? "built-in rig" : rigFile.c_str(),
                     why.c_str());
        return 2;
    }
    sensor_simd::Server server(limits);
    if (const std::string error = server.listen(socketPath); !error.empty()) {
        std::fprintf(stderr, "sensor-simd: %s\n", error.c_str());
        return 1;
    }
    sensor_sim::rig::start();
    std::fprintf(stderr, "sensor-simd: serving %s at %s\n",
                 rigFile.empty() ? "the built-in rig" : rigFile.c_str(), socketPath.c_str());
    server.run();
    sensor_sim::rig::stop();
    std::fprintf(stderr, "sensor-simd: stopped\n");
    return 0;
}
