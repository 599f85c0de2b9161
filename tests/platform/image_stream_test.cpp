// The stream substitute and its model: registration, frame queues, held-frame accounting, connection
// state, the producer's return hook and the live-mode wait.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "image_stream_master.h"
#include "sensor_sim/core.h"
#include "sensor_sim/internal/streams_internal.h"
#include "sim_test.h"

namespace {

using namespace std::chrono_literals;
using vexa::imgstream::ImageInfo;
using vexa::imgstream::ImageStreamMaster;
using vexa::imgstream::OUTPUT_TYPE_ICP;
using vexa::imgstream::OUTPUT_TYPE_ISP;
using vexa::imgstream::OutputType;
namespace streams = sensor_sim::streams;
using Counters = std::vector<uint64_t>;

int reg(ImageStreamMaster& s, unsigned id, const std::vector<std::string>& names, uint32_t timeout = 0) {
    std::vector<vexa::imgstream::ImageStreamConfig> configs;
    for (const auto& n : names) configs.push_back({n, 0, 7, 16, timeout, 0});
    return s.regConsumerStream(id, configs, {});
}

streams::FrameSpec frame(uint64_t counter, uint16_t objIndex) {
    streams::FrameSpec f;
    f.counter = counter;
    f.objIndex = objIndex;
    return f;
}

Counters heldCounters() {
    Counters out;
    for (const auto& h : streams::held()) out.push_back(h.counter);
    return out;
}

// A consumer "TEST" with stream 2 registered (both outputs). It exists before reset(), so every test
// also relies on it surviving the reset as a fresh consumer.
class ImageStreamTest : public sipc_test::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(m_master.initConsumer("TEST", "chan", nullptr, 4), 0);
        ASSERT_EQ(reg(m_master, 2, {"ipc-camera-wide", "ipc-camera-wide-isp0"}, 5000), 0);
    }
    int take(ImageStreamMaster& s, OutputType out = OUTPUT_TYPE_ISP, uint64_t* counter = nullptr) {
        ImageInfo info{};
        int r = s.getFrame(2, out, &info);
        if (counter != nullptr) *counter = info.frameCnt;
        return r;
    }
    int give(uint64_t counter, uint16_t objIndex, OutputType out = OUTPUT_TYPE_ISP) {
        ImageInfo info{};
        info.frameCnt = counter;
        info.objIndex = objIndex;
        return m_master.releaseFrame(2, out, &info);
    }
    void addOther(ImageStreamMaster& other, const char* name) {
        ASSERT_EQ(other.initConsumer(name, "chan2", nullptr, 4), 0);
        ASSERT_EQ(reg(other, 2, {"ipc-camera-wide-isp0"}), 0);
    }
    ImageStreamMaster m_master;
};

// A name table with a wrong id/name pairing would connect the client to another sensor's stream.
TEST_F(ImageStreamTest, NameMustBePublishedForThatId) {
    const struct {
        unsigned id;
        const char* name;
        int expected;
    } cases[] = {{0, "ipc-camera-wideleft-isp0", 0}, {3, "ipc-camera-narrow", 0},
                 {11, "ipc-camera-surroundleft", 0}, {21, "ipc-sensor-rightlidar", 0},
                 {0, "ipc-camera-wide", 2},          {8, "ipc-camera-surroundfront-isp0", 2},
                 {13, "ipc-sensor-frontslave", 2},   {15, "ipc-sensor-midlidar", 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.id) + " " + c.name);
        EXPECT_EQ(reg(m_master, c.id, {c.name}), c.expected);
        EXPECT_EQ(streams::registrations().back().result, c.expected);
    }
}

// A partly valid configuration vector must register nothing; the journal must show every config; an
// uninitialised consumer must be refused and must not look connected.
TEST_F(ImageStreamTest, BadRegistrationAndUninitialisedConsumer) {
    EXPECT_EQ(reg(m_master, 3, {"ipc-camera-narrow", "ipc-camera-narrowish"}), streams::kUnknownStream);
    EXPECT_EQ(streams::push(3, 0, frame(1, 0)), 0u);
    EXPECT_EQ(sensor_sim::journalOf("regConsumerStream").back(),
              "3,[{ipc-camera-narrow 0 7 16 0 0} {ipc-camera-narrowish 0 7 16 0 0}],nocb");
    ImageStreamMaster fresh;
    ImageInfo info{};
    EXPECT_EQ(reg(fresh, 2, {"ipc-camera-wide"}), streams::kNotInitialised);
    EXPECT_EQ(fresh.initConsumerDone(), streams::kNotInitialised);
    EXPECT_EQ(fresh.getFrame(2, OUTPUT_TYPE_ICP, &info), streams::kNotInitialised);
    EXPECT_EQ(fresh.getStreamState(), vexa::imgstream::STREAM_STATE_CONNECT_FAILED);
    EXPECT_EQ(fresh.initConsumer("", "chan", nullptr, 4), streams::kBadArgument);
}

// deinitStream must drop waiting frames and stop delivery but keep held frames held; destroying a
// consumer must forget everything it had.
TEST_F(ImageStreamTest, DeinitKeepsHeldFramesDestroyForgetsThem) {
    ImageStreamMaster other;
    addOther(other, "OTHER");
    EXPECT_EQ(streams::push(2, 1, frame(1, 0)), 2u);
    EXPECT_EQ(streams::push(2, 1, frame(2, 1)), 2u);
    ASSERT_EQ(take(m_master), 0);
    EXPECT_EQ(m_master.deinitStream(), 0);
    EXPECT_EQ(streams::queued(2, 1), 2u);  // only OTHER's
    EXPECT_EQ(streams::push(2, 1, frame(3, 2)), 1u);
    EXPECT_EQ(take(m_master), streams::kNoFrame);
    EXPECT_EQ(heldCounters(), Counters{1});
    EXPECT_EQ(give(1, 0), 0);
    {
        ImageStreamMaster doomed;
        addOther(doomed, "DOOMED");
        streams::push(2, 1, frame(9, 3));
        ASSERT_EQ(take(doomed), 0);
    }
    EXPECT_TRUE(streams::held().empty());
    auto list = streams::consumers();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].deinitCalls, 1);
    EXPECT_FALSE(list[2].alive);
}

// A producer's buffer must come back exactly once, and only after every copy is released or dropped;
// a lost or early return would leak or overwrite pool buffers.
TEST_F(ImageStreamTest, ProducerSeesBufferReturnedOnce) {
    ImageStreamMaster other;
    addOther(other, "OTHER");
    std::atomic<int> returned{0};
    auto count = [&] { ++returned; };
    EXPECT_EQ(streams::internal::deliver(2, 1, frame(5, 2), count), 2u);
    ASSERT_EQ(take(m_master), 0);
    EXPECT_EQ(give(5, 2), 0);
    EXPECT_EQ(returned, 0);  // still waiting at OTHER
    EXPECT_EQ(other.deinitStream(), 0);
    EXPECT_EQ(returned, 1);
    EXPECT_EQ(streams::internal::deliver(4, 1, frame(6, 0), count), 0u);
    EXPECT_EQ(returned, 2);  // nobody registered: back at once
    streams::internal::deliver(2, 1, frame(7, 0), count);
    ASSERT_EQ(take(m_master), 0);
    sensor_sim::reset();
    EXPECT_EQ(returned, 3);  // reset forgets held frames
}

// Live mode (the process never reset): an empty get must wait for the frame time-out (100 ms when 0),
// and a frame pushed from another thread must end the wait early. Relies on ctest's process per test.
TEST(ImageStreamLive, GetFrameWaitsBoundedAndWakesOnPush) {
    if (!sensor_sim::core::live()) GTEST_SKIP() << "needs a process that never called reset()";
    ImageStreamMaster s;
    ASSERT_EQ(s.initConsumer("LIVE", "chan", nullptr, 4), 0);
    ASSERT_EQ(reg(s, 12, {"ipc-sensor-frontslave"}, 0), 0);
    ASSERT_EQ(reg(s, 13, {"ipc-sensor-frontmaster"}, 10000), 0);
    ImageInfo info{};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.getFrame(12, OUTPUT_TYPE_ICP, &info), streams::kNoFrame);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    std::thread pusher([] {
        std::this_thread::sleep_for(50ms);
        streams::push(13, 0, frame(42, 1));
    });
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.getFrame(13, OUTPUT_TYPE_ICP, &info), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);  // not the 10 s time-out
    EXPECT_EQ(info.frameCnt, 42u);
    pusher.join();
}

}  // namespace
