// A consumer process for the service tests: an application on the public API whose frames, results
// and held frames are printed one per line, so that a test can compare several processes.
//   service_probe cameras APP MS   camera 2 with raw pairing for MS ms: "F counter checksum paired"
//   service_probe hold APP N MS    takes N frames of camera 2 ("H counter"), prints "held", keeps them
//                                  MS ms, releases them, prints "released", releases the first again
//                                  ("again RESULT") and goes on as a consumer that keeps up for MS ms more
//   service_probe init APP         prints "init RESULT"
// A get refused other than for lack of a frame prints "E result" and ends the process with status 4.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "sensor_sim/buffers.h"

using namespace vexa::cameraipcclient;
using Clock = std::chrono::steady_clock;

namespace {

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

uint64_t checksum(NvSciBufObj obj) {
    const sensor_sim::Buffer* buffer = sensor_sim::findBuffer(obj);
    if (buffer == nullptr) return 0;
    uint64_t h = 1469598103934665603ull;  // FNV-1a
    for (size_t i = 0; i < buffer->size(); ++i) h = (h ^ buffer->data()[i]) * 1099511628211ull;
    return h;
}

int start(CCameraIpcClient& client, bool raw) {
    unsigned short id = 1u << CAMERA_WIDE;
    const int32_t init = client.Init(id, raw);
    say("init " + std::to_string(init));
    if (init != RESULT_OK) return 3;
    const int32_t started = client.Start();
    say("start " + std::to_string(started));
    return started == RESULT_OK ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string mode = argv[1];
    CCameraIpcClient client(static_cast<AppType>(std::atoi(argv[2])));
    if (mode == "init") {
        unsigned short id = 1u << CAMERA_WIDE;
        say("init " + std::to_string(client.Init(id, false)));
        return 0;
    }
    if (mode == "cameras" && argc == 4) {
        if (int status = start(client, true); status != 0) return status;
        const auto end = Clock::now() + std::chrono::milliseconds(std::atoi(argv[3]));
        while (Clock::now() < end) {
            BufFrameObj frame{};
            const int32_t r = client.GetFrame(CAMERA_WIDE, &frame);
            if (r == RESULT_STREAM_CODE_9) continue;
            if (r == RESULT_FAILED) {
                say("F " + std::to_string(frame.frameCnt) + " 0 0");
                continue;
            }
            if (r != RESULT_OK) {
                say("E " + std::to_string(r));
                return 4;
            }
            say("F " + std::to_string(frame.frameCnt) + ' ' + std::to_string(checksum(frame.bufObj)) + ' ' +
                (frame.rawBufObj != nullptr ? "1" : "0"));
            client.ReleaseFrame(&frame);
        }
        return 0;
    }
    if (mode == "hold" && argc == 5) {
        if (int status = start(client, false); status != 0) return status;
        std::vector<BufFrameObj> held;
        const auto giveUp = Clock::now() + std::chrono::seconds(10);
        while (held.size() < static_cast<size_t>(std::atoi(argv[3])) && Clock::now() < giveUp) {
            BufFrameObj frame{};
            if (client.GetFrame(CAMERA_WIDE, &frame) != RESULT_OK) continue;
            say("H " + std::to_string(frame.frameCnt));
            held.push_back(frame);
        }
        say("held");
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[4])));
        for (const auto& frame : held) client.ReleaseFrame(&frame);
        say("released");
        if (!held.empty()) say("again " + std::to_string(client.ReleaseFrame(&held.front())));
        const auto end = Clock::now() + std::chrono::milliseconds(std::atoi(argv[4]));
        while (Clock::now() < end) {
            BufFrameObj frame{};
            if (client.GetFrame(CAMERA_WIDE, &frame) == RESULT_OK) client.ReleaseFrame(&frame);
        }
        return 0;
    }
    return 2;
}
