// gst-launch-1.0 pipelines over sensoripcsrc, each a process of its own: against the in-process vehicle,
// the pictures they write match sensorctl's conversion of the simulator's frames of the same counters;
// against a sensor-simd, a slow pipeline neither starves the service's pool nor leaves a frame held.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "png_picture.h"
#include "sensor_sim/buffers.h"
#include "sensor_sim/internal/pattern.h"
#include "sensor_sim/service.h"
#include "sim_test.h"

namespace {

namespace fs = std::filesystem;
namespace pattern = sensor_sim::pattern;
using sipc_test::ChildRun;
using sipc_test::Picture;

// A scratch directory per test, removed at its end.
class E2eTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/sensoripc-e2e-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
    }
    void TearDown() override { fs::remove_all(m_dir); }

    // Runs a program, ended by its own pid when it overruns the time limit.
    ChildRun run(const std::vector<std::string>& args, const std::string& service = "off") {
        sipc_test::ChildOptions options;
        // GStreamer finds the plugin in the build tree and keeps its registry in the scratch directory.
        options.env = {"GST_PLUGIN_PATH=" SENSORIPC_PLUGIN_DIR, "SENSOR_SIM_SERVICE=" + service,
                       "GST_REGISTRY=" + (m_dir / "registry.bin").string(),
#ifdef SENSORIPC_CHILD_PRELOAD
                       // An uninstrumented gst-launch-1.0 loads the instrumented plugin only with the
                       // sanitizer first.
                       "LD_PRELOAD=" SENSORIPC_CHILD_PRELOAD};
#else
                       "LD_PRELOAD"};
#endif
        return sipc_test::runChild(args, options);
    }

    // gst-launch-1.0 -v: the counters of the buffers that identity passed, in order.
    std::vector<uint64_t> launch(const std::string& pipeline) {
        std::vector<std::string> args = {GST_LAUNCH_PATH, "-v"};
        std::istringstream words(pipeline);
        for (std::string w; words >> w;) args.push_back(w);
        const ChildRun r = run(args);
        EXPECT_EQ(r.status, 0) << r.out << r.err;
        std::vector<uint64_t> counters;
        static const std::regex offset(R"(chain   \*+ \(counted:sink\).* offset: (\d+),)");
        std::istringstream lines(r.out);
        for (std::string line; std::getline(lines, line);) {
            std::smatch m;
            if (std::regex_search(line, m, offset)) counters.push_back(std::stoull(m[1]));
        }
        return counters;
    }

    // sensorctl's picture of the simulator's frame `counter`: the visible bytes as a dump holds them.
    fs::path reference(pattern::Format format, uint32_t sensor, uint64_t counter, uint32_t width,
                       uint32_t height, const char* name) {
        sensor_sim::Buffer buffer(pattern::bufferSpec(format, width, height, 64));
        pattern::render(*pattern::strip(format, width, height), buffer, sensor, counter);
        const fs::path dump = m_dir / ("ref_" + std::to_string(counter) + ".bin");
        std::ofstream out(dump, std::ios::binary);
        for (size_t p = 0; p < buffer.spec().planes.size(); ++p) {
            for (uint32_t y = 0; y < buffer.spec().planes[p].height; ++y)
                out.write(reinterpret_cast<const char*>(buffer.line(p, y)), buffer.lineBytes(p));
        }
        out.close();
        return convert(dump, name, width, height);
    }

    fs::path convert(const fs::path& file, const char* name, uint32_t width, uint32_t height) {
        const fs::path png = file.string() + ".png";
        const ChildRun r =
            run({SENSORCTL_PATH, "convert", file.string(), "--format", name, "--width", std::to_string(width),
                 "--height", std::to_string(height), "-o", png.string()});
        EXPECT_EQ(r.status, 0) << r.err;
        return png;
    }

    fs::path m_dir;
};

Picture readPng(const fs::path& path) {
    return sipc_test::readPng(path).value_or(Picture{});
}

// Mean absolute difference per sample; infinite for pictures of different sizes.
double difference(const Picture& a, const Picture& b) {
    if (a.width != b.width || a.height != b.height || a.rgb.empty()) return INFINITY;
    double sum = 0;
    for (size_t i = 0; i < a.rgb.size(); ++i) sum += std::abs(int(a.rgb[i]) - int(b.rgb[i]));
    return sum / double(a.rgb.size());
}

struct PipelineCase {
    const char* name;
    const char* element;  // sensoripcsrc and its properties
    const char* encode;   // what turns a buffer into a file
    const char* extension;
    pattern::Format format;
    uint32_t sensor;
    uint32_t width;
    uint32_t height;
    const char* sensorctlFormat;
    int frames;
    double tolerance;  // mean difference allowed: another YUV converter rounds and samples chroma otherwise
};

void PrintTo(const PipelineCase& c, std::ostream* os) {
    *os << c.name;
}

class PipelineTest : public E2eTest, public ::testing::WithParamInterface<PipelineCase> {};

// Would catch pixels from the wrong frame or the wrong plane layout (padding, chroma offset, strides),
// a Bayer mosaic handed on with its padding, a wrong counter in OFFSET, and missing or extra buffers.
TEST_P(PipelineTest, PicturesMatchSensorctlOfTheSameCounters) {
    const PipelineCase& c = GetParam();
    const fs::path pattern = m_dir / (std::string("out_%05d.") + c.extension);
    const std::vector<uint64_t> counters =
        launch(std::string(c.element) + " num-buffers=" + std::to_string(c.frames) +
               " ! identity name=counted silent=false ! " + c.encode +
               " ! multifilesink location=" + pattern.string());
    ASSERT_EQ(counters.size(), size_t(c.frames));
    for (int i = 0; i < c.frames; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "out_%05d.%s", i, c.extension);
        fs::path picture = m_dir / name;
        ASSERT_TRUE(fs::exists(picture)) << picture;
        // Raw mosaics are files of frames: sensorctl converts them like a dump.
        if (std::string(c.extension) == "raw")
            picture = convert(picture, c.sensorctlFormat, c.width, c.height);
        const Picture got = readPng(picture);
        const Picture want =
            readPng(reference(c.format, c.sensor, counters[i], c.width, c.height, c.sensorctlFormat));
        EXPECT_LE(difference(got, want), c.tolerance) << "frame " << i << ", counter " << counters[i];
        if (i == 0) {
            // The comparison tells neighbouring frames apart (the pattern moves 4 pixels a frame).
            const Picture next =
                readPng(reference(c.format, c.sensor, counters[i] + 1, c.width, c.height, c.sensorctlFormat));
            EXPECT_GT(difference(got, next), 2 * c.tolerance + 1);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, PipelineTest,
    ::testing::Values(PipelineCase{"wide_nv12", "sensoripcsrc sensor=wide", "videoconvert ! pngenc", "png",
                                   pattern::Format::Yuv420, 2, 1920, 1080, "nv12", 30, 4.0},
                      PipelineCase{"narrow_raw_bayer", "sensoripcsrc sensor=narrow output=raw", "queue",
                                   "raw", pattern::Format::Bayer16, 3, 1920, 1080, "rggb16", 4, 0.0},
                      PipelineCase{"radar_gray8", "sensoripcsrc sensor=frontslave", "videoconvert ! pngenc",
                                   "png", pattern::Format::Grey8, 12, 1024, 64, "gray8", 5, 0.0},
                      PipelineCase{"lidar_gray16", "sensoripcsrc sensor=midlidar",
                                   "videoconvert ! video/x-raw,format=GRAY16_BE ! pngenc", "png",
                                   pattern::Format::Grey16, 14, 1800, 32, "gray16", 5, 0.0}),
    [](const auto& info) { return std::string(info.param.name); });

// Would catch an element that does not attach to a running sensor-simd, a slow sink behind a queue that
// exhausts the service's pool (frames wrapped beyond max-held), and frames a pipeline still held when it
// ended, which the service counts as returned for it when its process leaves.
TEST_F(E2eTest, SlowSinkOnTheServiceNeitherStarvesThePoolNorLeavesAFrameHeld) {
    const std::string socket = (m_dir / "service.sock").string(), log = (m_dir / "service.err").string();
    // Ended by its pid on every path: the last line checks that SIGTERM stops it cleanly.
    struct Service {
        pid_t pid;
        ~Service() { sipc_test::endChild(pid, SIGKILL, std::chrono::seconds(5)); }
    } service{sipc_test::startChild({SENSOR_SIMD_PATH, "--socket", socket}, {}, "/dev/null", log)};
    ASSERT_GT(service.pid, 0);
    sensor_sim::service::State state;
    auto answers = [&] { return sensor_sim::service::queryState(socket, &state).empty(); };
    auto logged = [&](const std::string& text) {
        std::ifstream in(log);
        return std::string(std::istreambuf_iterator<char>(in), {}).find(text) != std::string::npos;
    };
    ASSERT_TRUE(sipc_test::waitFor(answers, std::chrono::seconds(5))) << "sensor-simd did not answer";
    const ChildRun r = run({GST_LAUNCH_PATH, "sensoripcsrc", "sensor=rear", "max-held=2", "num-buffers=20",
                            "!", "queue", "!", "identity", "sleep-time=60000", "!", "fakesink"},
                           socket);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(sipc_test::waitFor([&] { return logged("consumer left"); }, std::chrono::seconds(5)))
        << "the pipeline never attached";
    EXPECT_TRUE(logged("(0 frames returned)")) << "the pipeline left frames held";
    ASSERT_TRUE(answers());
    bool found = false;
    for (const auto& o : state.outputs) {
        if (o.streamId != 1 || o.output != 1) continue;
        found = true;
        EXPECT_EQ(o.poolDrops, 0u);
        EXPECT_GE(o.delivered, 20u);
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(sipc_test::endChild(std::exchange(service.pid, -1), SIGTERM, std::chrono::seconds(5)), 0);
}

}  // namespace
