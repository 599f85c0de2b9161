// The consumer library: sensor and application names with the known names on a miss, frame geometry
// from buffer attributes, loss by frame counter, and a session's lifecycle over scripted streams.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "sensor_consumer/counters.h"
#include "sensor_consumer/errors.h"
#include "sensor_consumer/geometry.h"
#include "sensor_consumer/names.h"
#include "sensor_consumer/session.h"
#include "sensor_sim/buffers.h"
#include "sensor_sim/control.h"
#include "sensor_sim/streams.h"
#include "sim_test.h"

namespace sensor_consumer {
namespace {

using namespace std::chrono_literals;
using sensor_sim::BufferSpec;

// Would catch lists that lose or repeat ids, accept ids past 21, or silently skip unknown names.
TEST(ConsumerNames, SensorListsExpandIdsRangesNamesAndGroups) {
    EXPECT_EQ(parseSensorList("0-3,wide, lidars"), (std::vector<uint32_t>{0, 1, 2, 3, 14, 20, 21}));
    EXPECT_EQ(parseSensorList("NARROW,3"), (std::vector<uint32_t>{3}));
    EXPECT_EQ(parseSensorList("wide-narrow"), (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(parseSensorList("all").size(), 22u);
    for (const char* bad : {"3-1", "22", "foo", "1,,2", "", "0-22", "-1"}) {
        EXPECT_THROW(parseSensorList(bad), NameError) << bad;
    }
    EXPECT_EQ(formatSensorList({0, 1, 2, 5, 7, 8}), "0-2,5,7-8");
    EXPECT_EQ(parseApp("sensor-demo"), 9u);
    EXPECT_EQ(parseApp("APP_CAMERA_IRC"), 1u);
    EXPECT_EQ(parseApp("13"), 13u);
    EXPECT_THROW(parseApp("camera"), NameError);
}

// Would catch a miss that does not tell the user what exists (every front end prints these lists).
TEST(ConsumerNames, MissesCarryTheKnownNames) {
    try {
        parseSensor("no-such-sensor");
        FAIL();
    } catch (const NameError& e) {
        EXPECT_EQ(e.known().size(), 22u);
        EXPECT_EQ(e.known()[2], "wide");
        EXPECT_NE(std::string(e.what()).find("narrow"), std::string::npos);
    }
    try {
        parseApp("nope");
        FAIL();
    } catch (const NameError& e) {
        EXPECT_EQ(e.known().size(), 13u);
        EXPECT_EQ(parseApp(e.known()[7]), 7u);  // every listed name parses back to its value
    }
    EXPECT_EQ(apiFor(2), Api::Legacy);
    EXPECT_EQ(apiFor(14), Api::Current);
    EXPECT_FALSE(servedBy(Api::Current, 15));
}

// Would catch a counter wrap counted as four billion lost frames, or repeats counted as gaps.
TEST(ConsumerCounters, GapsFollowTheFrameCounterAcrossItsWrap) {
    FrameCounters c;
    uint64_t t = 0;
    std::vector<bool> discont;
    for (uint32_t cnt : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 3u, 3u, 2u, 3u}) discont.push_back(c.onFrame(cnt, t += 1000, 10, 20));
    EXPECT_EQ(c.frames(), 7u);
    EXPECT_EQ(c.gaps(), 2u);        // 1 and 2 missing between 0 and 3
    EXPECT_EQ(c.outOfOrder(), 2u);  // 3 again, then 2
    EXPECT_EQ(discont, (std::vector<bool>{false, false, false, true, true, true, false}));
    EXPECT_EQ(c.discontinuities(), 3u);
    EXPECT_DOUBLE_EQ(c.fps(), 1000.0);
    EXPECT_DOUBLE_EQ(c.meanGetUs(), 10.0);
}

class ConsumerGeometry : public sipc_test::SimTest {};

// Would catch a chroma plane placed by the luma's visible lines instead of its offset, pitches lost,
// interleaved chroma not seen as two channels, or 16-bit samples counted as bytes.
TEST_F(ConsumerGeometry, LayoutsFollowTheBufferAttributes) {
    BufferSpec spec = BufferSpec::yuv420(64, 48);
    spec.planes[0].alignedHeight = 56;
    auto nv12 = sensor_sim::makeBuffer(spec);
    const BufferInfo info = readBufferInfo(reinterpret_cast<NvSciBufObj>(nv12.get()));
    FrameLayout layout;
    std::string error;
    ASSERT_TRUE(describeFrame(info, layout, error)) << error;
    EXPECT_EQ(layout.format, PixelFormat::Nv12);
    EXPECT_EQ(layout.planeCount, 2u);
    EXPECT_GE(layout.planes[1].offset, uint64_t(layout.planes[0].pitch) * 56);
    EXPECT_EQ(layout.planes[1].channels, 2u);
    EXPECT_EQ(layout.planes[1].width, 32u);
    EXPECT_EQ(layout.planes[1].lines, 24u);
    EXPECT_LE(layout.span, info.size);

    auto bayer = sensor_sim::makeBuffer(BufferSpec::single(64, 48, 16, sensor_sim::kColorBayer16));
    ASSERT_TRUE(describeFrame(readBufferInfo(reinterpret_cast<NvSciBufObj>(bayer.get())), layout, error)) << error;
    EXPECT_EQ(layout.format, PixelFormat::Rggb16);
    EXPECT_EQ(layout.planes[0].sampleBytes, 2u);
    EXPECT_EQ(layout.planes[0].lineBytes, 128u);

    auto packed = sensor_sim::makeBuffer(BufferSpec::single(64, 8, 16, sensor_sim::kColorUYVY));
    EXPECT_FALSE(describeFrame(readBufferInfo(reinterpret_cast<NvSciBufObj>(packed.get())), layout, error));
    EXPECT_NE(error.find("unsupported frame layout"), std::string::npos) << error;

    BufferInfo beyond = info;
    beyond.size = 100;
    EXPECT_FALSE(describeFrame(beyond, layout, error));
    EXPECT_NE(error.find("beyond the buffer"), std::string::npos) << error;
}

class ConsumerSession : public sipc_test::SimTest {
protected:
    static void push(uint32_t stream, uint64_t counter, uint16_t index) {
        sensor_sim::streams::FrameSpec frame;
        frame.counter = counter;
        frame.objIndex = index;
        frame.buffer = sensor_sim::makeBuffer(BufferSpec::single(64, 8, 8, sensor_sim::kColorA8));
        ASSERT_EQ(sensor_sim::streams::push(stream, 0, frame), 1u);
    }
};

// Would catch a session that leaves frames held or the client registered at its end, a release from
// another thread that waits behind a get, and two sessions of one application in a process mixing calls.
TEST_F(ConsumerSession, FramesComeAndEveryOneGoesBack) {
    SessionOptions options;
    options.app = 9;
    options.api = Api::Current;
    options.frameTimeoutMs = 300;
    {
        Session session(options);
        EXPECT_EQ(session.open({12, 14}), (std::vector<uint32_t>{12, 14}));
        Session second(options);
        EXPECT_THROW(second.open({13}), Error);
        ASSERT_EQ(session.start(5s), Session::StartOutcome::Connected);

        push(12, 5, 0);
        Frame frame;
        int32_t result = 0;
        ASSERT_EQ(session.get(12, frame, result), GetStatus::Frame);
        EXPECT_EQ(frame.counter, 5u);
        EXPECT_NE(frame.image, nullptr);
        EXPECT_EQ(sensor_sim::streams::held().size(), 1u);

        // A get waits for a frame; the release from another thread is queued, not blocked behind it.
        Frame next;
        auto getting = std::async(std::launch::async, [&] {
            int32_t r = 0;
            return session.get(14, next, r);
        });
        std::this_thread::sleep_for(50ms);
        const auto before = std::chrono::steady_clock::now();
        session.releaseLater(frame);
        EXPECT_LT(std::chrono::steady_clock::now() - before, 100ms);
        EXPECT_EQ(getting.get(), GetStatus::NoFrame);
        EXPECT_EQ(session.deferredReleases(), 0u);  // made after the get
        EXPECT_TRUE(sensor_sim::streams::held().empty());

        push(12, 6, 1);
        ASSERT_EQ(session.get(12, frame, result), GetStatus::Frame);
        // Left held: the session's end returns it.
        session.releaseLater(frame);
    }
    EXPECT_TRUE(sensor_sim::streams::held().empty());
    EXPECT_GE(sensor_sim::callCount("deinitStream"), 1u);
}

// Would catch a start that waits for ever when the connection never comes, or one that a stop request
// does not end.
TEST_F(ConsumerSession, StartsAreBoundedAndStoppable) {
    sensor_sim::streams::setStates({0});  // connecting, for ever
    SessionOptions options;
    options.app = 0;
    Session session(options);
    ASSERT_EQ(session.open({2}).size(), 1u);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(session.start(100ms), Session::StartOutcome::TimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);

    Session other(SessionOptions{7, Api::Legacy, false, 100});
    other.open({3});
    std::atomic<bool> stop{false};
    auto starting = std::async(std::launch::async, [&] { return other.start(60s, [&] { return stop.load(); }); });
    std::this_thread::sleep_for(50ms);
    stop = true;
    EXPECT_EQ(starting.get(), Session::StartOutcome::Stopped);

    sensor_sim::streams::setStates({2});  // connection failed
    Session failing(SessionOptions{1, Api::Legacy, false, 100});
    failing.open({3});
    EXPECT_THROW(failing.start(5s), Error);
}

}  // namespace
}  // namespace sensor_consumer
