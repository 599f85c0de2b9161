// Tests of sensor-simd with real consumer processes (service_probe) on the small rig: shared frames,
// exclusive channels, a killed consumer's frames, a hoarder's pool drops, the service's stop. Every
// process is ended by its pid and the socket lives in a temporary directory removed afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "sensor_sim/internal/wire.h"
#include "sensor_sim/service.h"
#include "sim_test.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
constexpr const char* kAppA = "0";  // APP_CAMERA_DEMO
constexpr const char* kAppB = "2";  // APP_PEX_ENC
constexpr const char* kAppC = "4";  // APP_PEX_LTR
using sipc_test::waitFor;

struct Frame {
    uint64_t counter;
    uint64_t checksum;
    bool paired;
};

class ServiceTest : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/sensor-simd-test-XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        m_dir = dir;
        m_socket = m_dir + "/service.sock";
        m_service = spawn({SIPC_SERVICE_BIN, "--rig",
                           std::string(SIPC_SOURCE_DIR) + "/examples/rigs/small.toml", "--socket", m_socket},
                          "service");
        ASSERT_TRUE(waitFor([&] { return state().has_value(); }, 10s)) << "sensor-simd did not answer";
    }
    void TearDown() override {
        for (pid_t pid : m_pids) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        // A failed test shows the last words of every process it ran.
        if (HasFailure()) {
            for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
                const std::string ext = entry.path().extension().string();
                if (ext != ".out" && ext != ".err") continue;
                std::ifstream in(entry.path());
                std::deque<std::string> last;
                for (std::string line; std::getline(in, line);) {
                    last.push_back(line);
                    if (last.size() > 8) last.pop_front();
                }
                std::string text;
                for (const auto& line : last) text += "  " + line + "\n";
                std::printf("%s:\n%s", entry.path().filename().c_str(), text.c_str());
            }
        }
        std::filesystem::remove_all(m_dir);
    }

    pid_t spawn(std::vector<std::string> args, const std::string& name) {
        const pid_t pid = sipc_test::startChild(std::move(args), {"SENSOR_SIM_SERVICE=" + m_socket},
                                                m_dir + "/" + name + ".out", m_dir + "/" + name + ".err");
        if (pid > 0) m_pids.push_back(pid);
        return pid;
    }
    pid_t probe(const std::string& name, std::vector<std::string> args) {
        args.insert(args.begin(), SIPC_PROBE_BIN);
        return spawn(args, name);
    }
    // The exit status, or nullopt when the process is still running after `limit`.
    std::optional<int> exitOf(pid_t pid, std::chrono::milliseconds limit) {
        int status = 0;
        if (!waitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, limit)) return std::nullopt;
        m_pids.erase(std::remove(m_pids.begin(), m_pids.end(), pid), m_pids.end());
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::vector<std::string> lines(const std::string& name) {
        std::ifstream in(m_dir + "/" + name + ".out");
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    bool printed(const std::string& name, const std::string& line) {
        const auto all = lines(name);
        return std::find(all.begin(), all.end(), line) != all.end();
    }
    std::vector<Frame> frames(const std::string& name, size_t from = 0) {
        std::vector<Frame> out;
        const auto all = lines(name);
        for (size_t i = from; i < all.size(); ++i) {
            std::istringstream in(all[i]);
            std::string tag;
            Frame f{};
            if (in >> tag >> f.counter >> f.checksum >> f.paired && tag == "F") out.push_back(f);
        }
        return out;
    }
    std::optional<sensor_sim::service::State> state() {
        sensor_sim::service::State st;
        if (!sensor_sim::service::queryState(m_socket, &st).empty()) return std::nullopt;
        return st;
    }
    std::optional<sensor_sim::service::ConsumerState> consumerOf(pid_t pid) {
        if (auto st = state()) {
            for (const auto& c : st->consumers) {
                if (c.pid == static_cast<uint64_t>(pid)) return c;
            }
        }
        return std::nullopt;
    }
    // Replaces the fixture's service by one started with `argv` (a wrapper may come first).
    void restartService(std::vector<std::string> argv) {
        ::kill(m_service, SIGTERM);
        ASSERT_EQ(exitOf(m_service, 5s), 0);
        m_service = spawn(std::move(argv), "service");
        ASSERT_TRUE(waitFor([&] { return state().has_value(); }, 10s)) << "sensor-simd did not answer";
    }
    std::string smallRig() const { return std::string(SIPC_SOURCE_DIR) + "/examples/rigs/small.toml"; }
    uint64_t poolDrops() {
        if (auto st = state()) {
            for (const auto& o : st->outputs) {
                if (o.streamId == 2 && o.output == 1) return o.poolDrops;
            }
        }
        return 0;
    }

    std::string m_dir, m_socket;
    pid_t m_service = -1;
    std::vector<pid_t> m_pids;
};

double pairedShare(const std::vector<Frame>& fs) {
    size_t paired = 0;
    for (const auto& f : fs) paired += f.paired ? 1 : 0;
    return fs.empty() ? 0 : double(paired) / double(fs.size());
}

size_t gaps(const std::vector<Frame>& fs) {
    size_t count = 0;
    for (size_t i = 1; i < fs.size(); ++i) count += fs[i].counter != fs[i - 1].counter + 1 ? 1 : 0;
    return count;
}

// Catches consumers that get private vehicles (unrelated counters, different bytes), a late joiner that
// starts counting anew, lost raw pairing over shared buffers, and a malformed client that harms others.
TEST_F(ServiceTest, ApplicationsShareOneVehicle) {
    const pid_t first = probe("first", {"cameras", kAppA, "4000"});
    std::this_thread::sleep_for(2s);
    const pid_t late = probe("late", {"cameras", kAppB, "1500"});
    // Garbage on another connection ends that connection only.
    std::string error;
    const int raw = sensor_sim::wire::connectTo(m_socket, &error);
    ASSERT_GE(raw, 0) << error;
    ::fcntl(raw, F_SETFL, 0);  // blocking, so that the receive below waits for the service's verdict
    const char garbage[] = "\xff\xff\xff\x7f\x01\x00\x00\x00not a message";
    ASSERT_GT(::send(raw, garbage, sizeof garbage, MSG_NOSIGNAL), 0);
    char byte;
    timeval bound{2, 0};
    ::setsockopt(raw, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    EXPECT_EQ(::recv(raw, &byte, 1, 0), 0) << "the service keeps a client that sent garbage";
    ::close(raw);

    ASSERT_EQ(exitOf(late, 10s), 0);
    ASSERT_EQ(exitOf(first, 10s), 0);
    const auto a = frames("first"), b = frames("late");
    ASSERT_GT(a.size(), 60u);
    ASSERT_GT(b.size(), 20u);
    EXPECT_GT(b.front().counter, a.front().counter + 30) << "the late consumer's counters start anew";
    std::map<uint64_t, uint64_t> sums;
    for (const auto& f : a) sums[f.counter] = f.checksum;
    size_t common = 0;
    for (const auto& f : b) {
        auto it = sums.find(f.counter);
        if (it == sums.end() || f.checksum == 0 || it->second == 0) continue;
        ++common;
        EXPECT_EQ(it->second, f.checksum) << "frame " << f.counter;
    }
    EXPECT_GT(common, b.size() * 8 / 10);
    EXPECT_GE(pairedShare(a), 0.95);
    EXPECT_GE(pairedShare(b), 0.95);
}

// Catches a second process that shares a connected application's channel, and a channel not freed
// when its process leaves.
TEST_F(ServiceTest, ChannelIsExclusiveWhileItsProcessLives) {
    const pid_t first = probe("first", {"cameras", kAppA, "1500"});
    ASSERT_TRUE(waitFor([&] { return printed("first", "start 0"); }, 10s));
    const pid_t refused = probe("refused", {"init", kAppA});
    ASSERT_EQ(exitOf(refused, 10s), 0);
    EXPECT_TRUE(printed("refused", "init -2"));
    ASSERT_EQ(exitOf(first, 10s), 0);
    const pid_t after = probe("after", {"init", kAppA});
    ASSERT_EQ(exitOf(after, 10s), 0);
    EXPECT_TRUE(printed("after", "init 0"));
}

// Catches frames of a killed consumer that stay held (the pool shrinks for good) and a survivor that
// keeps losing frames after the kill.
TEST_F(ServiceTest, KilledConsumerLosesItsFramesWithinASecond) {
    const pid_t survivor = probe("survivor", {"cameras", kAppA, "4000"});
    const pid_t holder = probe("holder", {"hold", kAppC, "5", "60000"});
    ASSERT_TRUE(waitFor([&] { return printed("holder", "held"); }, 10s));
    ASSERT_TRUE(waitFor([&] { return printed("survivor", "start 0"); }, 10s));
    auto held = consumerOf(holder);
    ASSERT_TRUE(held.has_value());
    EXPECT_EQ(held->held, 5u);
    ::kill(holder, SIGKILL);
    const auto killed = Clock::now();
    EXPECT_TRUE(waitFor([&] { return !consumerOf(holder).has_value(); }, 1s));
    EXPECT_LT(Clock::now() - killed, 1s);
    const size_t linesAtRelease = lines("survivor").size();
    ASSERT_EQ(exitOf(holder, 5s), 128 + SIGKILL);
    ASSERT_EQ(exitOf(survivor, 10s), 0);
    // A frame or two may have been under way when the frames came back; from then on the stream is whole.
    const auto after = frames("survivor", linesAtRelease + 2);
    ASSERT_GT(after.size(), 30u);
    EXPECT_EQ(gaps(after), 0u);
}

// Catches a pool that grows for a hoarder instead of dropping, drops that go unreported, drops that
// go on after the frames came back, and a second release of a frame that is not refused or not counted.
TEST_F(ServiceTest, HoarderStarvesThePoolUntilItReleases) {
    const pid_t other = probe("other", {"cameras", kAppA, "5000"});
    const pid_t hoarder = probe("hoarder", {"hold", kAppC, "5", "1500"});
    ASSERT_TRUE(waitFor([&] { return printed("hoarder", "held"); }, 10s));
    const uint64_t before = poolDrops();
    std::this_thread::sleep_for(700ms);
    EXPECT_GT(poolDrops(), before + 5) << "a starved pool reports no drops";
    ASSERT_TRUE(waitFor([&] { return printed("hoarder", "released"); }, 10s));
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(printed("hoarder", "again 0")) << "a frame released twice was not refused";
    EXPECT_EQ(consumerOf(hoarder).value_or(sensor_sim::service::ConsumerState{}).refused, 1u);
    const uint64_t settled = poolDrops();
    std::this_thread::sleep_for(700ms);
    EXPECT_LE(poolDrops(), settled + 1) << "drops go on after the release";
    ASSERT_EQ(exitOf(hoarder, 10s), 0);
    ASSERT_EQ(exitOf(other, 10s), 0);
    EXPECT_GT(gaps(frames("other")), 0u) << "the other consumer saw no gap while the pool was starved";
}

// Catches a consumer that waits on its control page and errs, hangs or stays silent when its sensor
// vanishes for a second: its gets must time out and its frames come back with the sensor.
TEST_F(ServiceTest, VanishedSensorTimesOutThenStreamsAgain) {
    std::ofstream(m_dir + "/lost.toml") << "[scenario]\nclock = \"stream\"\n[[event]]\nat_s = 1.0\n"
                                           "kind = \"sensor_lost\"\nsensor = 2\nfor_s = 1.0\n";
    restartService({SIPC_SERVICE_BIN, "--rig", smallRig(), "--scenario", m_dir + "/lost.toml", "--socket", m_socket});
    const pid_t consumer = probe("consumer", {"cameras", kAppA, "3500"});
    ASSERT_EQ(exitOf(consumer, 10s), 0) << "a get failed instead of timing out";
    auto fs = frames("consumer");
    fs.erase(std::remove_if(fs.begin(), fs.end(), [](const Frame& f) { return f.checksum == 0; }), fs.end());
    size_t longest = 0, at = 0;
    for (size_t i = 1; i < fs.size(); ++i) {
        if (fs[i].counter - fs[i - 1].counter > longest) {
            longest = fs[i].counter - fs[i - 1].counter;
            at = i;
        }
    }
    EXPECT_GE(longest, 20u) << "no second without frames";
    EXPECT_GT(fs.size() - at, 20u) << "frames did not come back with the sensor";
}

// Catches consumers that hang on a stopped service and a service that leaves its socket behind.
TEST_F(ServiceTest, StoppedServiceMakesCallsFail) {
    const pid_t consumer = probe("consumer", {"cameras", kAppA, "20000"});
    ASSERT_TRUE(waitFor([&] { return frames("consumer").size() > 5; }, 10s));
    ::kill(m_service, SIGTERM);
    EXPECT_EQ(exitOf(m_service, 5s), 0);
    EXPECT_FALSE(std::filesystem::exists(m_socket));
    EXPECT_EQ(exitOf(consumer, 3s), 4) << "a consumer's get did not fail within 3 s of the stop";
}

size_t entries(const std::string& dir) {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir)) ++n;
    return n;
}

// The service's descriptors but its pool buffers: those are made on first use, and a consumer slowed by a
// flood holds frames longer, so that the service makes more of them (at most a pool's size).
size_t descriptorsButBuffers(const std::string& proc) {
    size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator(proc + "/fd")) {
        std::error_code ec;
        n += std::filesystem::read_symlink(e.path(), ec).string().rfind("/memfd:sensor-sim-buffer", 0) != 0;
    }
    return n;
}

// Catches a service that a careless or hostile local client brings down or wears out: aborts under fast
// connect/close cycles, descriptors kept from incomplete messages, a thread per connection, a spin or an
// end when its descriptor table is full, and a consumer starved meanwhile.
TEST_F(ServiceTest, FloodOfHostileClientsLeavesTheServiceWhole) {
    // A table of 1024 and a cap above it, so that the flood really fills the table.
    restartService({"/bin/sh", "-c", "ulimit -n 1024 && exec \"$0\" \"$@\"", SIPC_SERVICE_BIN, "--rig", smallRig(),
                    "--socket", m_socket, "--max-clients", "5000", "--handshake-timeout", "1"});
    const int durationMs = 12000;
    const pid_t consumer = probe("consumer", {"cameras", kAppA, std::to_string(durationMs)});
    ASSERT_TRUE(waitFor([&] { return frames("consumer").size() > 10; }, 10s));
    const std::string proc = "/proc/" + std::to_string(m_service);
    const size_t fdsBefore = descriptorsButBuffers(proc), threadsBefore = entries(proc + "/task");

    // A full listening queue refuses at once (EAGAIN): such a connection tries again shortly.
    auto connect = [&] {
        for (int attempt = 0; attempt < 200; ++attempt) {
            std::string error;
            const int fd = sensor_sim::wire::connectTo(m_socket, &error);
            if (fd >= 0) return fd;
            std::this_thread::sleep_for(1ms);
        }
        return -1;
    };
    std::vector<int> open;
    for (int i = 0; i < 5000; ++i) {
        const int fd = connect();
        if (fd >= 0) ::close(fd);
    }
    const char garbage[] = "\xff\xff\xff\x7f\x01\x00\x00\x00not a message";
    for (int i = 0; i < 200; ++i) {
        const int fd = connect();
        if (fd < 0) continue;
        ::send(fd, garbage, sizeof garbage, MSG_NOSIGNAL | MSG_DONTWAIT);
        open.push_back(fd);
    }
    const int passed = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < 300; ++i) {
        const int fd = connect();
        if (fd < 0) continue;
        const uint8_t half[4] = {1, 0, 0, 0};  // a header cut short, with a descriptor beside it
        sensor_sim::wire::sendWithFd(fd, half, sizeof half, passed);
        open.push_back(fd);
    }
    ::close(passed);
    // Silent connections, more than the service's table holds: it fills, and newcomers are refused.
    for (int i = 0; i < 1100; ++i) {
        const int fd = connect();
        if (fd >= 0) open.push_back(fd);
    }
    std::this_thread::sleep_for(1500ms);  // the handshake time-out ends the silent ones
    for (int fd : open) ::close(fd);
    EXPECT_TRUE(waitFor([&] { return descriptorsButBuffers(proc) <= fdsBefore + 4; }, 5s))
        << descriptorsButBuffers(proc) << " descriptors, " << fdsBefore << " before the flood";
    EXPECT_LE(entries(proc + "/task"), threadsBefore);
    const auto st = state();
    ASSERT_TRUE(st.has_value()) << "the service no longer answers";
    EXPECT_GT(st->refusals.protocolErrors, 400u) << "garbage and passed descriptors were not refused";
    EXPECT_GT(st->refusals.timeouts + st->refusals.connections, 100u);

    ASSERT_EQ(exitOf(consumer, 20s), 0);
    const auto fs = frames("consumer");
    // 30 frames a second on camera 2 of the small rig, for the probe's whole run.
    EXPECT_GE(static_cast<double>(fs.size()), 0.8 * 30 * durationMs / 1000.0) << "the consumer starved";
    const pid_t after = probe("after", {"cameras", kAppB, "1000"});
    ASSERT_EQ(exitOf(after, 10s), 0);
    EXPECT_GT(frames("after").size(), 10u) << "a new consumer does not stream after the flood";
}

// Catches exclusivity keyed by application name: the two default applications of one process (both
// "SDEMO", on their own channels) must stream through the service as they do in-process.
TEST_F(ServiceTest, BothApisDefaultApplicationsShareOneProcess) {
    const pid_t stream = spawn({SIPC_SENSORCTL_BIN, "stream", "--duration", "2", "--json"}, "stream");
    ASSERT_EQ(exitOf(stream, 20s), 0);
    std::ifstream in(m_dir + "/stream.out");
    const std::string json((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const char* sensor : {"\"wide\"", "\"frontslave\"", "\"midlidar\""})
        EXPECT_NE(json.find(sensor), std::string::npos) << sensor << " missing from " << json;
    EXPECT_EQ(json.find("\"frames\": 0"), std::string::npos) << json;
}

// Catches a service that accepts a rig no consumer can map, and fails far from the cause later.
TEST_F(ServiceTest, UnservableRigIsRefusedAtStart) {
    std::ofstream(m_dir + "/huge.toml") << "[[stream]]\nid = 2\n[stream.capture]\nformat = \"bayer16\"\n"
                                           "width = 8192\nheight = 8192\n";
    const pid_t refused = spawn({SIPC_SERVICE_BIN, "--rig", m_dir + "/huge.toml", "--socket", m_dir + "/other.sock"},
                                "huge");
    EXPECT_EQ(exitOf(refused, 10s), 2);
    std::ifstream in(m_dir + "/huge.err");
    const std::string err((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(err.find("stream 2"), std::string::npos) << err;
    EXPECT_NE(err.find("MiB"), std::string::npos) << err;
}

}  // namespace
