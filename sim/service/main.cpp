// sensor-simd: the simulated camera-access service as a process of its own. One rig, many consumer
// processes attached through a private Unix socket, frames in shared memory.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>

#include "sensor_sim/internal/messages.h"
#include "sensor_sim/internal/rig_internal.h"
#include "sensor_sim/rig.h"
#include "sensor_sim/service.h"
#include "server.h"

namespace {

// The exit statuses, with the numbers of sensorctl's table (docs/sensorctl.md) for the same causes.
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kFooter =
    "sensor-simd prints one line when it starts, one per consumer that connects or leaves, and stops on\n"
    "SIGINT or SIGTERM (it removes its socket). Clients find it at the default socket, or through\n"
    "SENSOR_SIM_SERVICE=PATH (sensorctl --service PATH).\n"
    "\n"
    "Exit status:\n"
    "  0    stopped by SIGINT or SIGTERM\n"
    "  1    failed: the socket cannot be made (another sensor-simd listens there, the directory is not\n"
    "       private)\n"
    "  2    usage: unknown option, or a rig, scenario or replay file that cannot be used, or a rig whose\n"
    "       frames cannot be shared\n";

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"sensor-simd: one simulated vehicle served to several application processes", "sensor-simd"};
    std::string rigFile, scenarioFile, socketPath = sensor_sim::service::defaultSocketPath();
    app.add_option("--rig", rigFile, "Rig file (default: the built-in rig)")->type_name("FILE");
    app.add_option("--scenario", scenarioFile, "Scenario file (default: none)")->type_name("FILE");
    app.add_option("--socket", socketPath, "Socket to listen at")->capture_default_str()->type_name("PATH");
    std::string replayFile, replayMissing = "pattern";
    double replayRate = 1.0;
    bool replayLoop = false;
    app.add_option("--replay", replayFile,
                   "MCAP recording of sensorctl record to play into the streams of the sensors it holds")
        ->type_name("FILE.mcap");
    app.add_option("--rate", replayRate, "With --replay: play at this multiple of the recorded speed")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 100.0));
    app.add_flag("--loop", replayLoop, "With --replay: start again after the last frame");
    app.add_option("--missing", replayMissing,
                   "With --replay: sensors the recording lacks keep the rig's patterns (pattern) or are absent")
        ->capture_default_str()
        ->check(CLI::IsMember({"pattern", "absent"}));
    sensor_simd::Limits limits;
    app.add_option("--max-clients", limits.maxClients, "Connections served at once; more are refused")
        ->capture_default_str()
        ->check(CLI::Range(1u, 100000u));
    double handshakeS = std::chrono::duration<double>(limits.handshake).count();
    app.add_option("--handshake-timeout", handshakeS, "Seconds a new connection has to say hello")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
    app.set_version_flag("--version",
                         std::string("sensor-simd ") + SENSOR_SIMD_VERSION + "\nsensor-simd protocol " +
                             std::to_string(sensor_sim::service::protocolVersion()),
                         "Project and protocol versions");
    app.footer(kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int status = app.exit(e);
        return status == 0 ? 0 : kExitUsage;
    }
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
            return kExitUsage;
        }
    }
    if (!replayFile.empty()) {
        if (const std::string error = sensor_sim::rig::internal::playRecording(replayFile, replayRate, replayLoop,
                                                                             replayMissing == "absent");
            !error.empty()) {
            std::fprintf(stderr, "sensor-simd: %s\n", error.c_str());
            return kExitUsage;
        }
    } else if (replayRate != 1.0 || replayLoop || replayMissing != "pattern") {
        std::fprintf(stderr, "sensor-simd: --rate, --loop and --missing go with --replay\n");
        return kExitUsage;
    }
    if (!scenarioFile.empty()) {
        if (const std::string error = sensor_sim::rig::loadScenarioFile(scenarioFile); !error.empty()) {
            std::fprintf(stderr, "sensor-simd: %s\n", error.c_str());
            return kExitUsage;
        }
    }
    // A rig whose frames no consumer could map is refused now, not by every consumer later.
    if (const std::string why = sensor_sim::rig::internal::unservable(sensor_sim::msg::kMaxBufferBytes,
                                                                      sensor_simd::kMaxSharedBuffers);
        !why.empty()) {
        std::fprintf(stderr, "sensor-simd: %s: %s\n", rigFile.empty() ? "built-in rig" : rigFile.c_str(),
                     why.c_str());
        return kExitUsage;
    }
    sensor_simd::Server server(limits);
    if (const std::string error = server.listen(socketPath); !error.empty()) {
        std::fprintf(stderr, "sensor-simd: %s\n", error.c_str());
        return kExitFailed;
    }
    sensor_sim::rig::start();
    std::fprintf(stderr, "sensor-simd: serving %s at %s\n",
                 replayFile.empty() ? (rigFile.empty() ? "the built-in rig" : rigFile.c_str())
                                    : (std::string("recording ") + replayFile).c_str(),
                 socketPath.c_str());
    server.run();
    sensor_sim::rig::stop();
    std::fprintf(stderr, "sensor-simd: stopped\n");
    return 0;
}
