// Example application over the sensor IPC client: consumes radar, lidar and camera frames until a
// signal (SIGINT, SIGTERM) or the optional duration in seconds ends it, then prints what it saw.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "consumer.h"

using namespace vexa::cameraipcclient;
namespace vexalog = vexa::vexalog;

int main(int argc, char** argv) {
    const long seconds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;  // 0: until a signal

    // The stop signals are blocked in every thread (threads inherit the mask) and taken by this one
    // with sigtimedwait, so no work happens in a signal handler. SIGUSR1 reports the worker's end.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // snippet: logger
    // The application's own logger, handed to the current init. Set up the logging back end first:
    // the process's first initLogging decides where records go (here: standard error).
    vexalog::initLogging("EXAPP", "con.EXAPP", vexalog::LogMode::kConsole, vexalog::LogLevel::kWarn, "/tmp",
                         vexalog::AppFileInfo{10, 5, 0});
    auto logger = vexalog::createLogger("EXAPP", "con.EXAPP", vexalog::LogLevel::kWarn,
                                        vexalog::CtxFileInfo{0, "%d{%H:%M:%S.} %l %c %F [%m]%n"});
    // end snippet

    const uint32_t sensors = 1u << SENSOR_FRONTSLAVE | 1u << SENSOR_MIDLIDAR;  // a radar and a lidar
    const uint16_t cameras = 1u << CAMERA_REAR | 1u << CAMERA_WIDE;            // wide comes with raw frames
    example::Consumer consumer(sensors, cameras, logger);
    const int32_t rc = consumer.init();
    if (rc != RESULT_OK) {
        std::fprintf(stderr, "init failed: %s (%d)\n", resultCodeName(rc), rc);
        return 1;
    }

    // start() blocks until connected, so it runs in the worker; a signal meanwhile ends it through
    // deInit (requestStop). Once connected, each client object is polled by a thread of its own.
    bool connected = false;
    std::thread worker([&] {
        connected = consumer.start();
        if (connected) {
            std::thread cameraThread([&] { while (consumer.pollCameras()) {} });
            while (consumer.pollSensors()) {}
            cameraThread.join();
        }
        consumer.shutdown();
        kill(getpid(), SIGUSR1);
    });

    if (seconds > 0) {
        const timespec limit{seconds, 0};
        sigtimedwait(&stopSignals, nullptr, &limit);
    } else {
        sigwaitinfo(&stopSignals, nullptr);
    }
    consumer.requestStop();
    worker.join();

    uint64_t total = 0;
    for (const auto& [id, c] : consumer.counters()) {
        std::printf("sensor %2u: %6llu frames, %5llu paired, %4llu time-outs, %3llu errors, %3llu lost frames, "
                    "%3llu leaked%s\n",
                    id, (unsigned long long)c.frames, (unsigned long long)c.paired, (unsigned long long)c.timeouts,
                    (unsigned long long)c.errors, (unsigned long long)c.lostFrames, (unsigned long long)c.leaked,
                    c.lost ? ", sensor lost" : "");
        total += c.frames;
    }
    if (!connected) {
        std::fprintf(stderr, "no connection to the stream service\n");
        return 1;
    }
    return total > 0 ? 0 : 3;
}
