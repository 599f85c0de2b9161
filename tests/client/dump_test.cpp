// Image dumps: file names of the four variants, the bytes written (visible lines only, appended), line
// sizes, an absent buffer size, skipped planes and the failure report.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "frame_test.h"
#include "sensor_ipcclient_impl.h"
#include "write_to_file.h"

namespace {

using namespace vexa::cameraipcclient;
using sensor_sim::BufferSpec;
using testing::ElementsAre;
using vexa::sensor_access::SensorIpcClientImpl;
using vexa::sensor_access::WriteToFile;

std::vector<uint8_t> readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The visible bytes of every plane, as a dump should hold them.
std::vector<uint8_t> visibleBytes(const sensor_sim::Buffer& buffer) {
    std::vector<uint8_t> out;
    for (size_t p = 0; p < buffer.spec().planes.size(); ++p) {
        for (uint32_t y = 0; y < buffer.spec().planes[p].height; ++y) {
            out.insert(out.end(), buffer.line(p, y), buffer.line(p, y) + buffer.lineBytes(p));
        }
    }
    return out;
}

class Dump : public sipc_test::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        vexa::sensor_access::Clogger::GetInstance().initIrdLogger(
            sipc_test::makeLogger(vexa::vexalog::LogLevel::kInfo));
        char pattern[] = "/tmp/sipc-dump-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        ASSERT_NE(getcwd(previous, sizeof(previous)), nullptr);
        ASSERT_EQ(chdir(dir.c_str()), 0);
    }
    void TearDown() override {
        ASSERT_EQ(chdir(previous), 0);
        std::filesystem::remove_all(dir);
    }
    std::string dir;
    char previous[4096] = {};
};

// A padded two-plane 4:2:0 frame dumps as its visible lines only, and a second dump appends.
TEST_F(Dump, YuvFrameDumpsVisibleLinesAndAppends) {
    auto image = sipc_test::patterned(BufferSpec::yuv420(1920, 1080, 128));
    ASSERT_GT(image->pitch(0), 1920u);
    BufFrameObj obj{};
    obj.sensorId = 2;
    obj.frameCnt = 1534;
    obj.bufObj = sipc_test::handle(image);
    CCameraIpcClient client(APP_CAMERA_IRC);
    ASSERT_EQ(client.WriteImageToFile(&obj), RESULT_OK);
    auto bytes = readFile("CIRC_client_cam_2_1534_1920_X_1080.yuv");
    ASSERT_EQ(bytes.size(), 3110400u);
    EXPECT_TRUE(bytes == visibleBytes(*image));

    ASSERT_EQ(client.WriteImageToFile(&obj), RESULT_OK);
    bytes = readFile("CIRC_client_cam_2_1534_1920_X_1080.yuv");
    ASSERT_EQ(bytes.size(), 2 * 3110400u);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 3110400, bytes.begin() + 3110400));
}

// The four variants name their files from sensor, counter and plane-0 size; only the legacy processed
// variant carries the application's name, and it throws for an application without one.
TEST_F(Dump, FileNamesOfTheFourVariants) {
    auto processed = sipc_test::patterned(BufferSpec::yuv420(64, 32));
    auto raw = sipc_test::patterned(BufferSpec::single(80, 20, 16, sensor_sim::kColorBayer16));
    FrameBufObj frame{};
    frame.sensorId = 3;
    frame.frameCnt = 77;
    frame.bufObj = sipc_test::handle(processed);
    frame.rawBufObj = sipc_test::handle(raw);
    BufFrameObj obj{};
    obj.sensorId = 3;
    obj.frameCnt = 77;
    obj.bufObj = frame.bufObj;
    obj.rawBufObj = frame.rawBufObj;

    SensorIpcClientImpl* impl = SensorIpcClientImpl::getInstance(APP_PEX_ENC);
    ASSERT_EQ(impl->writeImageToFile(frame), RESULT_OK);
    ASSERT_EQ(impl->writeImageToFile(&obj), RESULT_OK);
    ASSERT_EQ(impl->writeRawImageToFile(frame), RESULT_OK);
    ASSERT_EQ(CCameraIpcClient(APP_PEX_ENC).WriteRawImageToFile(&obj), RESULT_OK);
    EXPECT_EQ(readFile("client_cam_3_77_64_X_32.yuv").size(), 64u * 32 + 64 * 16);
    EXPECT_EQ(readFile("PXE_client_cam_3_77_64_X_32.yuv").size(), 64u * 32 + 64 * 16);
    EXPECT_EQ(readFile("client_cam_3_77_80_X_20.raw").size(), 2 * 80u * 20 * 2);  // both raw dumps

    EXPECT_THROW(CCameraIpcClient(static_cast<AppType>(13)).WriteImageToFile(&obj), std::out_of_range);
    EXPECT_EQ(CCameraIpcClient(APP_PEX_ENC).WriteImageToFile(nullptr), RESULT_ACCESS_FAILED);
    EXPECT_EQ(CCameraIpcClient(APP_PEX_ENC).WriteRawImageToFile(nullptr), RESULT_ACCESS_FAILED);
}

// Line sizes truncate width x bits to whole bytes, and the line count follows plane size / line size,
// so a 10-bit line of 3 pixels is 3 bytes and 4 rows give 5 lines (the fifth from the aligned rows).
TEST_F(Dump, LineSizeTruncatesToWholeBytes) {
    BufferSpec spec = BufferSpec::single(3, 4, 10, sensor_sim::kColorA16);
    spec.planes[0].alignedHeight = 8;
    auto image = sipc_test::patterned(spec);
    WriteToFile writer("ten_bit.raw");
    ASSERT_EQ(writer.WriteBufferToFile(sipc_test::handle(image)), 0);
    auto bytes = readFile("ten_bit.raw");
    ASSERT_EQ(bytes.size(), 15u);
    for (uint32_t y = 0; y < 4; ++y) {
        EXPECT_TRUE(std::equal(bytes.begin() + 3 * y, bytes.begin() + 3 * y + 3, image->line(0, y))) << y;
    }
    EXPECT_THAT(std::vector<uint8_t>(bytes.begin() + 12, bytes.end()), ElementsAre(0xEE, 0xEE, 0xEE));
}

// A buffer that does not state its size still dumps the whole image: the size only bounds the lines
// when it is there.
TEST_F(Dump, AbsentSizeIsNoFailure) {
    BufferSpec spec = BufferSpec::yuv420(64, 32);
    spec.absent = {sensor_sim::Attr::Size};
    auto image = sipc_test::patterned(spec);
    FrameBufObj frame{};
    frame.sensorId = 4;
    frame.frameCnt = 7;
    frame.bufObj = sipc_test::handle(image);
    ASSERT_EQ(SensorIpcClientImpl::getInstance(APP_PEX_CUDA)->writeImageToFile(frame), RESULT_OK);
    EXPECT_TRUE(readFile("client_cam_4_7_64_X_32.yuv") == visibleBytes(*image));
}

// A plane whose size is below its line size is left out; the skip flag writes nothing at all.
TEST_F(Dump, SkippedPlanesAndSkipFlag) {
    BufferSpec spec = BufferSpec::yuv420(64, 32);
    spec.planes[1].height = 0;
    auto image = sipc_test::patterned(spec);
    WriteToFile writer("no_chroma.yuv");
    ASSERT_EQ(writer.WriteBufferToFile(sipc_test::handle(image)), 0);
    EXPECT_EQ(readFile("no_chroma.yuv").size(), 64u * 32);

    vexa::sensor_access::PixelDataBuffer1 pixels{};
    ASSERT_EQ(writer.AllocatePixelDataBuffer(&pixels, sipc_test::handle(image)), 0);
    EXPECT_EQ(writer.ReadWritePixelDataLineByLine(sipc_test::handle(image), &pixels, true), 0);
    EXPECT_EQ(readFile("no_chroma.yuv").size(), 64u * 32);

    sensor_sim::injectStatus("NvSciBufObjGetAttrList", NvSciError_BadParameter, 2);
    EXPECT_EQ(writer.AllocatePixelDataBuffer(&pixels, sipc_test::handle(image)), 1);
    EXPECT_EQ(vexa::sensor_access::AllocatePixelDataBuffer(&pixels, sipc_test::handle(image)), 9);
}

// A file that cannot be opened gives -6 and an error record under the dump's own name.
TEST_F(Dump, UnopenableFileIsReported) {
    auto image = sipc_test::patterned(BufferSpec::yuv420(64, 32));
    FrameBufObj frame{};
    frame.sensorId = 1;
    frame.frameCnt = 9;
    frame.bufObj = sipc_test::handle(image);
    frame.rawBufObj = frame.bufObj;
    ASSERT_EQ(mkdir("client_cam_1_9_64_X_32.yuv", 0755), 0);
    ASSERT_EQ(mkdir("client_cam_1_9_64_X_32.raw", 0755), 0);
    SensorIpcClientImpl* impl = SensorIpcClientImpl::getInstance(APP_PEX_CUDA);
    EXPECT_EQ(impl->writeImageToFile(frame), RESULT_ACCESS_FAILED);
    EXPECT_EQ(impl->writeRawImageToFile(frame), RESULT_ACCESS_FAILED);
    auto failures = sipc_test::records();
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].function, "writeImageToFile");
    EXPECT_EQ(failures[1].function, "writeRawImageToFile");
    for (auto& r : failures) {
        EXPECT_EQ(r.text, "WriteBufferToFile failed");
        EXPECT_EQ(r.level, vexa::vexalog::LogLevel::kError);
    }

    WriteToFile block("client_cam_1_9_64_X_32.yuv");
    const uint8_t data[4] = {1, 2, 3, 4};
    testing::internal::CaptureStdout();
    EXPECT_EQ(block.WriteBufferToFile2(data, 4), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WriteBufferToFile2::Failed to open file client_cam_1_9_64_X_32.yuv.\n");
    WriteToFile plain("block.bin");
    EXPECT_EQ(plain.WriteBufferToFile2(data, 4), 0);
    EXPECT_EQ(readFile("block.bin").size(), 4u);
}

}  // namespace
