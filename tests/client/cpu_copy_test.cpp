// The CPU copy: sizes and pitches per layout, the copied bytes, buffers that only grow, the cache
// flush, each failure path, the facade's release after a failed copy and the slow-copy record.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "frame_test.h"
#include "sensor_ipcclient_impl.h"

namespace {

using namespace vexa::cameraipcclient;
using sensor_sim::BufferSpec;
using sipc_test::HeldFrame;
using sipc_test::heldFrames;
using testing::ElementsAre;
using testing::IsEmpty;
using vexa::sensor_access::SensorIpcClient;
using vexa::sensor_access::SensorIpcClientImpl;

class CpuCopy : public sipc_test::FrameTest {
protected:
    // Copies a buffer built from spec as frame (sensor, objIndex) of a fresh client object.
    int32_t copy(const BufferSpec& spec, uint32_t sensor = 12, uint32_t objIndex = 3) {
        buffer = sipc_test::patterned(spec);
        frame.sensorId = sensor;
        frame.objIndex = objIndex;
        frame.frameCnt = 5;
        frame.bufObj = sipc_test::handle(buffer);
        return client->nvBufObjToCpuBuffer(frame);
    }
    // The copied image equals the visible bytes of plane 0, line after line.
    void expectPlaneZeroCopied() {
        const uint32_t line = buffer->lineBytes(0);
        ASSERT_EQ(frame.cpuDataSize, line * buffer->spec().planes[0].height);
        for (uint32_t y = 0; y < buffer->spec().planes[0].height; ++y) {
            ASSERT_EQ(std::memcmp(frame.cpuData + y * line, buffer->line(0, y), line), 0) << "line " << y;
        }
    }
    // A client object of its own, so that its copy buffers start empty.
    static AppType freshApp() {
        static std::atomic<uint32_t> next{5000};
        return static_cast<AppType>(next++);
    }
    SensorIpcClientImpl* client = SensorIpcClientImpl::getInstance(freshApp());
    std::shared_ptr<sensor_sim::Buffer> buffer;
    FrameBufObj frame{};
};

struct Layout {
    const char* name;
    BufferSpec spec;
    const char* sizes;
    const char* pitches;
    const char* offsets;  // of each plane's destination from the first
};

class CpuCopyLayouts : public CpuCopy, public testing::WithParamInterface<Layout> {};

// Every surface is plane 0 scaled by the layout's factors; only surface 0 has bytes per pixel, so the
// chroma surfaces of the YUV layouts get no bytes, and they start right after plane 0's lines.
TEST_P(CpuCopyLayouts, SizesPitchesAndBytes) {
    ASSERT_EQ(copy(GetParam().spec), RESULT_OK);
    auto calls = sensor_sim::journalOf("NvSciBufObjGetPixels");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], std::string("ptr,null,ptr,") + GetParam().sizes + "," + GetParam().pitches + "," +
                            GetParam().offsets);
    expectPlaneZeroCopied();
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, CpuCopyLayouts,
    testing::Values(
        Layout{"yuv420", BufferSpec::yuv420(1920, 1080), "[2073600 0]", "[1920 0]", "[0 2073600]"},
        Layout{"yuv444", BufferSpec::yuv444(64, 30), "[1920 0]", "[64 0]", "[0 1920]"},
        Layout{"yuv422", BufferSpec::yuv422(64, 30), "[1920 0]", "[64 0]", "[0 1920]"},
        Layout{"bayer16", BufferSpec::single(100, 10, 16, sensor_sim::kColorBayer16), "[2000]", "[200]", "[0]"},
        Layout{"radar8", BufferSpec::single(4096, 64, 8, sensor_sim::kColorA8), "[262144]", "[4096]", "[0]"}),
    [](const testing::TestParamInfo<Layout>& info) { return std::string(info.param.name); });

// A packed format copies nothing and succeeds, leaving the CPU pointer as it was.
TEST_F(CpuCopy, PackedFormatCopiesNothing) {
    uint8_t marker = 0;
    frame.cpuData = &marker;
    frame.cpuDataSize = 99;
    ASSERT_EQ(copy(BufferSpec::single(64, 8, 16, sensor_sim::kColorUYVY)), RESULT_OK);
    EXPECT_EQ(frame.cpuDataSize, 0u);
    EXPECT_EQ(frame.cpuData, &marker);
    EXPECT_EQ(sensor_sim::callCount("NvSciBufObjGetPixels"), 0u);
}

// A buffer grows to the image size plus 5 only when too small, with its message; it never shrinks.
TEST_F(CpuCopy, BuffersOnlyGrow) {
    testing::internal::CaptureStdout();
    ASSERT_EQ(copy(BufferSpec::single(100, 20, 8, sensor_sim::kColorA8)), RESULT_OK);
    uint8_t* first = frame.cpuData;
    ASSERT_EQ(copy(BufferSpec::single(100, 20, 8, sensor_sim::kColorA8)), RESULT_OK);
    ASSERT_EQ(copy(BufferSpec::single(50, 10, 8, sensor_sim::kColorA8)), RESULT_OK);   // smaller
    ASSERT_EQ(copy(BufferSpec::single(2005, 1, 8, sensor_sim::kColorA8)), RESULT_OK);  // fits the spare 5
    EXPECT_EQ(frame.cpuData, first);
    ASSERT_EQ(copy(BufferSpec::single(2006, 1, 8, sensor_sim::kColorA8)), RESULT_OK);
    ASSERT_EQ(copy(BufferSpec::single(100, 20, 8, sensor_sim::kColorA8), 12, 4), RESULT_OK);  // other index
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "sensorId: 12, objIndex: 3, nvBufObjToCpuBuffer alloc imageData, imageSize: 2000\n"
              "sensorId: 12, objIndex: 3, nvBufObjToCpuBuffer alloc imageData, imageSize: 2006\n"
              "sensorId: 12, objIndex: 4, nvBufObjToCpuBuffer alloc imageData, imageSize: 2000\n");
    expectPlaneZeroCopied();
}

// The cache is flushed over height x pitch of plane 0, and only when the buffer asks for it.
TEST_F(CpuCopy, FlushOnlyWhenRequired) {
    ASSERT_EQ(copy(BufferSpec::single(100, 20, 8, sensor_sim::kColorA8)), RESULT_OK);
    EXPECT_EQ(sensor_sim::callCount("NvSciBufObjFlushCpuCacheRange"), 0u);
    BufferSpec spec = BufferSpec::single(100, 20, 8, sensor_sim::kColorA8);
    spec.needSwCacheCoherency = true;
    ASSERT_EQ(copy(spec), RESULT_OK);
    EXPECT_THAT(sensor_sim::journalOf("NvSciBufObjFlushCpuCacheRange"),
                ElementsAre("ptr,0," + std::to_string(20 * buffer->pitch(0))));
    EXPECT_EQ(buffer->flushCount(), 1u);
}

// Each failure returns -1 with its own message on standard output.
TEST_F(CpuCopy, FailurePaths) {
    BufferSpec flushed = BufferSpec::single(100, 20, 8, sensor_sim::kColorA8);
    flushed.needSwCacheCoherency = true;
    BufferSpec threePlanes = BufferSpec::yuv420(64, 32);
    threePlanes.planes.push_back(threePlanes.planes[1]);
    const struct {
        const char* inject;
        BufferSpec spec;
        const char* printed;
    } cases[] = {
        {"NvSciBufObjGetAttrList", flushed, "nvBufObjToCpuBuffer: PopulateBufAttr failed.\n"},
        {"", threePlanes, "Unsupported plane format\nnvBufObjToCpuBuffer: GetBuffParams failed.\n"},
        {"NvSciBufObjFlushCpuCacheRange", flushed, "nvBufObjToCpuBuffer: NvSciBufObjFlushCpuCacheRange Failed\n"},
        {"NvSciBufObjGetPixels", flushed, "nvBufObjToCpuBuffer: NvSciBufObjGetPixels Failed\n"},
    };
    ASSERT_EQ(copy(flushed), RESULT_OK);  // the buffer exists: no allocation message below
    for (auto& c : cases) {
        if (*c.inject) sensor_sim::injectStatus(c.inject, NvSciError_ResourceError);
        frame.cpuDataSize = 1234;
        testing::internal::CaptureStdout();
        EXPECT_EQ(copy(c.spec), RESULT_FAILED) << c.printed;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        if (std::string(c.inject).find("Flush") != std::string::npos ||
            std::string(c.inject).find("Pixels") != std::string::npos) {
            EXPECT_EQ(frame.cpuDataSize, 0u);
        }
    }
}

// Ids outside the 22 x 9 buffers are refused before anything is read.
TEST_F(CpuCopy, IdsOutsideTheBuffersFail) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(copy(BufferSpec::single(8, 8, 8, sensor_sim::kColorA8), 22, 0), RESULT_FAILED);
    EXPECT_EQ(copy(BufferSpec::single(8, 8, 8, sensor_sim::kColorA8), 0, 9), RESULT_FAILED);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(sensor_sim::journal().empty());
    EXPECT_EQ(copy(BufferSpec::single(8, 8, 8, sensor_sim::kColorA8), 21, 8), RESULT_OK);
}

// A copy slower than 50 ms is reported at warning level; a fast one is not.
TEST_F(CpuCopy, SlowCopyIsRecorded) {
    ASSERT_EQ(copy(BufferSpec::single(64, 8, 8, sensor_sim::kColorA8)), RESULT_OK);
    EXPECT_TRUE(sipc_test::records().empty());
    sensor_sim::setDelay("NvSciBufObjGetPixels", std::chrono::milliseconds(60));
    ASSERT_EQ(copy(BufferSpec::single(64, 8, 8, sensor_sim::kColorA8), 13, 2), RESULT_OK);
    auto slow = sipc_test::records("nvBufObjToCpuBuffer");
    ASSERT_EQ(slow.size(), 1u);
    EXPECT_EQ(slow[0].level, vexa::vexalog::LogLevel::kWarn);
    EXPECT_THAT(slow[0].text, testing::MatchesRegex("sensorId 13 frameId 5 nvBufObjToCpuBuffer cost [0-9]+ms\\."));
    EXPECT_GE(std::stoi(slow[0].text.substr(slow[0].text.rfind(' ') + 1)), 60);
}

// Through the facade: the copy lands in the frame record; a failed copy returns the frame at once.
TEST_F(CpuCopy, FacadeCopiesOrReleases) {
    SensorIpcClient sensors = current(APP_SENSOR_DEMO, 1u << 16);
    auto radar = sipc_test::patterned(BufferSpec::single(256, 16, 8, sensor_sim::kColorA8));
    push(16, 0, 7, 2, radar);
    push(16, 0, 8, 3, radar);
    FrameBufObj copied{};
    ASSERT_EQ(sensors.getFrame(SENSOR_FRONTLEFT, copied, true), RESULT_OK);
    EXPECT_EQ(copied.cpuDataSize, 256u * 16u);
    EXPECT_EQ(std::memcmp(copied.cpuData, radar->line(0, 0), 256), 0);
    EXPECT_EQ(std::memcmp(copied.cpuData + 15 * 256, radar->line(0, 15), 256), 0);

    sensor_sim::injectStatus("NvSciBufObjGetPixels", NvSciError_ResourceError);
    FrameBufObj failed{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(sensors.getFrame(SENSOR_FRONTLEFT, failed, true), RESULT_FAILED);
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(sensor_sim::journalOf("releaseFrame"), ElementsAre("16,0,3,8"));
    EXPECT_THAT(heldFrames(), ElementsAre(HeldFrame{16, 0, 2, 7}));
    EXPECT_EQ(sensors.releaseFrame(copied), RESULT_OK);
    EXPECT_THAT(heldFrames(), IsEmpty());
}

}  // namespace
