// sensor-simd's connection handling, driven in-process: each input is a script played on one new
// connection of a live server (the small rig): raw bytes, well-formed requests picked from a table,
// bytes with descriptors passed beside them, turns of the server's loop, and a disconnect at any point.
// Whatever the script, the server must answer or drop that connection, never crash or hang, and once the
// client is gone it must hold neither the connection nor any descriptor the client passed.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "sensor_sim/internal/vehicle.h"
#include "sensor_sim/internal/wire.h"
#include "sensor_sim/internal/rig_internal.h"
#include "sensor_sim/rig.h"
#include "server.h"

namespace msg = sensor_sim::msg;

namespace {

constexpr const char* kRig = R"(
[rig]
pool_size = 4
[[stream]]
id = 2
rate_hz = 200.0
[stream.processed]
format = "yuv420"
width = 64
height = 32
[stream.capture]
format = "bayer16"
width = 64
height = 32
)";

sensor_simd::Server& server() {
    static sensor_simd::Server* s = [] {
        sensor_sim::rig::internal::setSharedMemoryPools(true);
        if (!sensor_sim::rig::load(kRig).empty()) std::abort();
        sensor_sim::rig::start();
        // A consumer of the stream for the whole run keeps its producer alive: the scripts' consumers come
        // and go without starting and joining a producer thread each time.
        static sensor_sim::vehicle::LocalConsumer keeper;
        keeper.initConsumer("FUZZKEEP", "nvipc-fuzz-keeper", 4);
        keeper.regConsumerStream(2, {{"ipc-camera-wide-isp0", 0, 2, 16, 20, 0}}, false, std::nullopt);
        keeper.initConsumerDone();
        sensor_simd::Limits limits;
        limits.handshake = std::chrono::milliseconds(50);
        return new sensor_simd::Server(limits);
    }();
    return *s;
}

// Requests an honest client sends, so that the fuzzer reaches past the handshake.
std::vector<uint8_t> canned(uint32_t which) {
    const std::vector<sensor_sim::streams::Config> configs = {{"ipc-camera-wide-isp0", 0, 2, 16, 20, 0},
                                                             {"ipc-camera-wide", 0, 2, 16, 20, 0}};
    switch (which % 14) {
        case 0: return msg::Requests::encode(msg::Hello{msg::kVersion, 1});
        case 1: return msg::Requests::encode(msg::InitConsumer{4, "SDEMO", "nvipc-demo-camera"});
        case 2: return msg::Requests::encode(msg::InitConsumer{4, "SDEMO", "nvipc-demo-sensor"});
        case 3: return msg::Requests::encode(msg::RegStream{2, false, configs});
        case 4: return msg::Requests::encode(msg::InitDone{});
        case 5: return msg::Requests::encode(msg::GetState{});
        case 6: return msg::Requests::encode(msg::GetFrame{2, 1, which % 3 == 0});
        case 7: return msg::Requests::encode(msg::Release{2, 1, static_cast<uint16_t>(which % 4), which});
        case 8: return msg::Requests::encode(msg::OpenPage{});
        case 9: return msg::Requests::encode(msg::MapBuffer{which});
        case 10: return msg::Requests::encode(msg::Deinit{});
        case 11: return msg::Requests::encode(msg::GetServiceState{});
        case 12: return msg::Requests::encode(msg::GetStats{2, which});
        default: return msg::Requests::encode(msg::Attach{which});
    }
}

void drainAnswers(int fd) {
    uint8_t buffer[64 * 1024];
    for (;;) {
        std::vector<int> fds;
        bool truncated = false;
        const ssize_t n = sensor_sim::wire::receiveWithFds(fd, buffer, sizeof buffer, &fds, &truncated);
        for (int passed : fds) ::close(passed);
        if (n <= 0) return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sensor_simd::Server& s = server();
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0) return 0;
    s.adopt(pair[0], static_cast<uint64_t>(::getpid()));
    sipc_fuzz::Bytes in(data, size);
    bool open = true;
    for (size_t op = 0; op < 64 && open && in.more(); ++op) {
        const uint32_t code = in.u8();
        switch (code % 5) {
            case 0: {
                const std::string raw = in.take(in.u8());
                ::send(pair[1], raw.data(), raw.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
                break;
            }
            case 1: {
                const std::vector<uint8_t> bytes = canned(in.u8());
                ::send(pair[1], bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
                break;
            }
            case 2: {
                const std::vector<uint8_t> bytes = canned(in.u8());
                const size_t cut = in.u8() % (bytes.size() + 1);
                const int passed = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
                sensor_sim::wire::sendWithFd(pair[1], bytes.data(), cut, passed);
                ::close(passed);
                break;
            }
            case 3:
                s.step(0);
                drainAnswers(pair[1]);
                break;
            default:
                open = false;
                break;
        }
    }
    s.step(0);
    ::close(pair[1]);
    for (int turn = 0; turn < 1000 && s.connections() != 0; ++turn) s.step(1);
    sipc_fuzz::check(s.connections() == 0);
    // Every descriptor the script made or passed is closed again: a leak of one per run would soon push
    // new descriptors past the few hundred the vehicle's pools and pages need.
    const int probe = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    sipc_fuzz::check(probe < 256);
    ::close(probe);
    return 0;
}
