// sensoripcsrc in a GStreamer harness over scripted streams (and once over the live vehicle): caps and
// pixels of every format, wrapped and copied buffers, counters, and that every frame taken is returned
// exactly once on every path.
#include "sensoripc_src.h"

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "sensor_sim/buffers.h"
#include "sensor_sim/control.h"
#include "sensor_sim/rig.h"
#include "sensor_sim/streams.h"
#include "sim_test.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using sensor_sim::BufferSpec;
using sipc_test::patterned;
using sipc_test::waitFor;

constexpr uint32_t kCapture = 0;
constexpr uint32_t kProcessed = 1;

// GStreamer's registry goes to a temporary directory removed at exit, never to $HOME.
class GstEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        char pattern[] = "/tmp/sensoripc-gst-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        setenv("GST_REGISTRY", (m_dir / "registry.bin").c_str(), 1);
        gst_init(nullptr, nullptr);
        ASSERT_TRUE(gst_sensor_ipc_src_register(nullptr));
    }
    void TearDown() override { fs::remove_all(m_dir); }

private:
    fs::path m_dir;
};
[[maybe_unused]] const auto* const g_env = ::testing::AddGlobalTestEnvironment(new GstEnvironment);

GstBuffer* pullWithin(GstHarness* h, std::chrono::milliseconds limit = 5s) {
    GstBuffer* buffer = nullptr;
    waitFor([&] { return (buffer = gst_harness_try_pull(h)) != nullptr; }, limit);
    return buffer;
}

void push(uint32_t stream, uint32_t output, uint64_t counter, uint16_t objIndex,
          std::shared_ptr<sensor_sim::Buffer> buffer = nullptr) {
    sensor_sim::streams::FrameSpec frame;
    frame.counter = counter;
    frame.objIndex = objIndex;
    frame.buffer = std::move(buffer);
    ASSERT_EQ(sensor_sim::streams::push(stream, output, frame), 1u);
}

// How often each (stream, output, counter) was released.
std::map<std::string, int> releases() {
    std::map<std::string, int> out;
    for (const auto& args : sensor_sim::journalOf("releaseFrame")) {
        const auto a = args.find(','), b = args.find(',', a + 1), c = args.find(',', b + 1);
        ++out[args.substr(0, b) + "," + args.substr(c + 1)];
    }
    return out;
}

guint64 statsValue(GstElement* element, const char* field) {
    GstStructure* stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 value = 0;
    gst_structure_get_uint64(stats, field, &value);
    gst_structure_free(stats);
    return value;
}

// A harness around one sensoripcsrc whose bus the test reads.
class Harness {
public:
    Harness(const std::string& description, bool videoMeta) {
        GstElement* element = gst_parse_launch(description.c_str(), nullptr);
        m_h = gst_harness_new_with_element(element, nullptr, "src");
        gst_object_unref(element);
        m_bus = gst_bus_new();
        gst_element_set_bus(m_h->element, m_bus);
        if (videoMeta) gst_harness_add_propose_allocation_meta(m_h, GST_VIDEO_META_API_TYPE, nullptr);
    }
    ~Harness() {
        gst_harness_teardown(m_h);
        gst_object_unref(m_bus);
    }
    GstHarness* operator->() { return m_h; }
    GstHarness* get() { return m_h; }
    GstElement* element() { return m_h->element; }
    // The first error on the bus within `limit`, or "".
    std::string error(std::chrono::milliseconds limit = 5s) {
        GstMessage* m = gst_bus_timed_pop_filtered(m_bus, GST_MSECOND * limit.count(), GST_MESSAGE_ERROR);
        if (m == nullptr) return "";
        GError* e = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(m, &e, &debug);
        std::string text = std::string(e->message) + " | " + (debug != nullptr ? debug : "");
        g_error_free(e);
        g_free(debug);
        gst_message_unref(m);
        return text;
    }

private:
    GstHarness* m_h;
    GstBus* m_bus;
};

class SensorIpcSrcTest : public sipc_test::SimTest {
protected:
    void TearDown() override { sensor_sim::rig::stop(); }
};

struct FormatCase {
    const char* name;
    const char* properties;
    uint32_t stream;
    uint32_t output;
    BufferSpec spec;
    bool videoMeta;     // downstream reads strides from a video meta
    const char* media;  // expected caps; empty: an error on the bus
    const char* format;
    bool wrapped;
};

void PrintTo(const FormatCase& c, std::ostream* os) {
    *os << c.name;
}

BufferSpec alignedLuma() {
    BufferSpec spec = BufferSpec::yuv420(64, 48);
    spec.planes[0].alignedHeight = 56;
    return spec;
}

class FormatTest : public SensorIpcSrcTest, public ::testing::WithParamInterface<FormatCase> {};

// Would catch a wrong format or size in the caps, strides or plane offsets lost (padding shown as
// pixels), a padded Bayer mosaic handed on with strides downstream cannot know, a copy taken where the
// frame could be wrapped (or the reverse), a crash or silence on an indescribable buffer, and a frame
// not returned exactly once.
TEST_P(FormatTest, NegotiatesAndDeliversVisiblePixels) {
    const FormatCase& c = GetParam();
    auto image = patterned(c.spec);
    {
        Harness h(std::string("sensoripcsrc ") + c.properties, c.videoMeta);
        gst_harness_play(h.get());
        // A raw frame waits for the processed frame of its exposure, as on the vehicle.
        push(c.stream, c.output, 7, 3, image);
        if (c.output == kCapture && std::string(c.properties).find("output=raw") != std::string::npos) {
            push(c.stream, kProcessed, 7, 1, patterned(BufferSpec::yuv420(64, 48)));
        }
        if (c.media[0] == '\0') {
            const std::string error = h.error();
            EXPECT_NE(error.find("unsupported frame layout"), std::string::npos) << error;
        } else {
            GstBuffer* buffer = pullWithin(h.get());
            ASSERT_NE(buffer, nullptr);
            GstCaps* caps = gst_pad_get_current_caps(h->sinkpad);
            const GstStructure* s = gst_caps_get_structure(caps, 0);
            EXPECT_STREQ(gst_structure_get_name(s), c.media);
            EXPECT_STREQ(gst_structure_get_string(s, "format"), c.format);
            int width = 0, height = 0;
            gst_structure_get_int(s, "width", &width);
            gst_structure_get_int(s, "height", &height);
            EXPECT_EQ(uint32_t(width), c.spec.planes[0].width);
            EXPECT_EQ(uint32_t(height), c.spec.planes[0].height);
            EXPECT_EQ(GST_BUFFER_OFFSET(buffer), 7u);

            // Every visible line as the buffer's own planes hold it, read through the buffer's meta.
            GstMapInfo map;
            ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
            GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
            EXPECT_EQ(meta != nullptr, c.wrapped && std::string(c.media) == "video/x-raw");
            GstVideoInfo info;
            if (std::string(c.media) == "video/x-raw") gst_video_info_from_caps(&info, caps);
            for (size_t p = 0; p < c.spec.planes.size(); ++p) {
                size_t offset = 0, stride = image->lineBytes(p);
                if (meta != nullptr) {
                    offset = meta->offset[p];
                    stride = size_t(meta->stride[p]);
                } else if (std::string(c.media) == "video/x-raw") {
                    offset = GST_VIDEO_INFO_PLANE_OFFSET(&info, p);
                    stride = size_t(GST_VIDEO_INFO_PLANE_STRIDE(&info, p));
                }
                for (uint32_t y = 0; y < c.spec.planes[p].height; ++y) {
                    ASSERT_LE(offset + y * stride + image->lineBytes(p), map.size);
                    ASSERT_EQ(memcmp(map.data + offset + y * stride, image->line(p, y), image->lineBytes(p)),
                              0)
                        << "plane " << p << " line " << y;
                }
            }
            gst_buffer_unmap(buffer, &map);
            gst_caps_unref(caps);
            EXPECT_EQ(statsValue(h.element(), "wrapped"), c.wrapped ? 1u : 0u);
            EXPECT_EQ(sensor_sim::streams::held().size(), c.wrapped ? 1u : 0u);
            gst_buffer_unref(buffer);
        }
    }
    EXPECT_TRUE(sensor_sim::streams::held().empty());
    for (const auto& [frame, count] : releases()) EXPECT_EQ(count, 1) << frame;
    EXPECT_EQ(releases().count(std::to_string(c.stream) + "," + std::to_string(c.output) + ",7"), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, FormatTest,
    ::testing::Values(
        FormatCase{"nv12", "sensor=wideleft", 0, kProcessed, BufferSpec::yuv420(64, 48), true, "video/x-raw",
                   "NV12", true},
        FormatCase{"nv12_without_meta", "sensor=0", 0, kProcessed, BufferSpec::yuv420(64, 48), false,
                   "video/x-raw", "NV12", false},
        // Luma lines allocated beyond the visible ones: the chroma plane is found by its offset.
        FormatCase{"nv12_aligned_luma", "sensor=wideleft", 0, kProcessed, alignedLuma(), true, "video/x-raw",
                   "NV12", true},
        FormatCase{"bayer_raw", "sensor=wide output=raw", 2, kCapture,
                   BufferSpec::single(64, 48, 16, sensor_sim::kColorBayer16), true, "video/x-bayer",
                   "rggb16le", false},
        FormatCase{"gray8_radar", "sensor=frontslave", 12, kCapture,
                   BufferSpec::single(64, 8, 8, sensor_sim::kColorA8), true, "video/x-raw", "GRAY8", true},
        FormatCase{"gray16_lidar", "sensor=midlidar api=current", 14, kCapture,
                   BufferSpec::single(64, 8, 16, sensor_sim::kColorA16), true, "video/x-raw", "GRAY16_LE",
                   true},
        FormatCase{"packed_422_unsupported", "sensor=frontmaster", 13, kCapture,
                   BufferSpec::single(64, 8, 16, sensor_sim::kColorUYVY), true, "", "", false}),
    [](const auto& info) { return std::string(info.param.name); });

// Would catch frames kept after EOS, after a flushing seek or at a state change with buffers still
// downstream, a frame returned twice (once by its buffer, once by the stop), max-held not switching to
// copies, and counters' gaps without DISCONT or not counted.
TEST_F(SensorIpcSrcTest, HeldFramesSwitchToCopiesAndEveryPathReturnsThemOnce) {
    auto image = patterned(BufferSpec::single(64, 8, 8, sensor_sim::kColorA8));
    Harness h("sensoripcsrc sensor=frontslave max-held=2 num-buffers=6", true);
    gst_harness_play(h.get());
    const uint64_t counters[] = {10, 11, 14, 15, 16, 17};
    for (uint16_t i = 0; i < 6; ++i) push(12, kCapture, counters[i], i, image);
    std::vector<GstBuffer*> buffers;
    for (int i = 0; i < 6; ++i) {
        GstBuffer* b = pullWithin(h.get());
        ASSERT_NE(b, nullptr) << i;
        EXPECT_EQ(GST_BUFFER_OFFSET(b), counters[i]);
        // The first buffer of a stream is a discontinuity anyway.
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(b, GST_BUFFER_FLAG_DISCONT), i == 0 || counters[i] == 14)
            << counters[i];
        buffers.push_back(b);
    }
    // Two wrapped and held; the rest copied and returned at once.
    EXPECT_EQ(statsValue(h.element(), "wrapped"), 2u);
    EXPECT_EQ(statsValue(h.element(), "copies"), 4u);
    EXPECT_EQ(statsValue(h.element(), "gaps"), 2u);
    EXPECT_EQ(sensor_sim::streams::held().size(), 2u);
    // EOS after num-buffers, with the held frames still downstream.
    EXPECT_TRUE(waitFor([&] {
        GstEvent* e = gst_harness_try_pull_event(h.get());
        const bool eos = e != nullptr && GST_EVENT_TYPE(e) == GST_EVENT_EOS;
        if (e != nullptr) gst_event_unref(e);
        return eos;
    }));
    // A buffer copied downstream shares the frame: it returns with the last reference.
    GstBuffer* copy = gst_buffer_copy(buffers[0]);
    gst_buffer_unref(buffers[0]);
    EXPECT_EQ(sensor_sim::streams::held().size(), 2u);
    gst_buffer_unref(copy);
    EXPECT_TRUE(waitFor([] { return sensor_sim::streams::held().size() == 1u; }));
    // The second outlives the stream: the stop returns it, its unref later must not.
    gst_element_set_state(h.element(), GST_STATE_NULL);
    EXPECT_TRUE(sensor_sim::streams::held().empty());
    for (size_t i = 1; i < buffers.size(); ++i) gst_buffer_unref(buffers[i]);
    for (const auto& [frame, count] : releases()) EXPECT_EQ(count, 1) << frame;
    EXPECT_EQ(releases().size(), 6u);

    // A flushing seek with a frame downstream, then frames again.
    sensor_sim::clearJournal();
    gst_harness_play(h.get());
    push(12, kCapture, 20, 1, image);
    GstBuffer* b = pullWithin(h.get());
    ASSERT_NE(b, nullptr);
    gst_element_send_event(h.element(), gst_event_new_flush_start());
    gst_element_send_event(h.element(), gst_event_new_flush_stop(TRUE));
    push(12, kCapture, 21, 2, image);
    GstBuffer* after = pullWithin(h.get());
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(GST_BUFFER_OFFSET(after), 21u);
    gst_buffer_unref(b);
    gst_buffer_unref(after);
    gst_element_set_state(h.element(), GST_STATE_NULL);
    EXPECT_TRUE(sensor_sim::streams::held().empty());
    EXPECT_EQ(releases().size(), 2u);
}

// Would catch a start whose wait blocks the state change to NULL (the connection never comes) or that
// leaves the client registered, a failed connection reported as anything but an error, and a second
// element of the same application in one process left to mix its calls with the first one's.
TEST_F(SensorIpcSrcTest, StartWaitEndsOnNullAndFailuresAreErrors) {
    sensor_sim::streams::setStates({0});  // connecting, for ever
    {
        Harness h("sensoripcsrc sensor=frontslave", true);
        gst_harness_play(h.get());
        // The element waits for the connection before it is set to NULL.
        EXPECT_TRUE(waitFor([] { return sensor_sim::callCount("getStreamState") >= 1; }));
        const auto before = std::chrono::steady_clock::now();
        gst_element_set_state(h.element(), GST_STATE_NULL);
        EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
        EXPECT_GE(sensor_sim::callCount("deinitStream"), 1u);
    }
    sensor_sim::streams::setStates({2});  // connection failed
    {
        Harness h("sensoripcsrc sensor=frontslave", true);
        gst_harness_play(h.get());
        EXPECT_NE(h.error().find("connection failed"), std::string::npos);
    }
    sensor_sim::streams::setStates({1});
    {
        Harness first("sensoripcsrc sensor=wide app=vic", true);
        Harness second("sensoripcsrc sensor=narrow app=7", true);
        gst_harness_play(first.get());
        EXPECT_EQ(gst_element_set_state(second.element(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        EXPECT_NE(second.error().find("already used"), std::string::npos);
        Harness bad("sensoripcsrc sensor=wide output=raw api=current", true);
        EXPECT_EQ(gst_element_set_state(bad.element(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        EXPECT_NE(bad.error().find("no stream through the current API"), std::string::npos);
    }
}

// Would catch a slow consumer behind a queue exhausting the producer's pool (frames wrapped beyond
// max-held), frames left held at the end of a live stream, and caps without the stream's rate.
TEST_F(SensorIpcSrcTest, SlowSinkNeverExhaustsThePool) {
    ASSERT_EQ(sensor_sim::rig::load(sensor_sim::rig::defaultText()), "");
    sensor_sim::rig::start();
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(
        "sensoripcsrc name=src sensor=rear max-held=2 num-buffers=20 ! queue ! identity sleep-time=60000 ! "
        "fakesink",
        &error);
    ASSERT_NE(pipeline, nullptr) << error->message;
    ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* m =
        gst_bus_timed_pop_filtered(bus, 20 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(m), GST_MESSAGE_EOS);
    gst_message_unref(m);
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    EXPECT_GT(statsValue(src, "copies"), 0u);
    // The caps carry the camera's rate, taken from the exposure times.
    GstPad* pad = gst_element_get_static_pad(src, "src");
    GstCaps* caps = gst_pad_get_current_caps(pad);
    gint n = 0, d = 0;
    ASSERT_TRUE(gst_structure_get_fraction(gst_caps_get_structure(caps, 0), "framerate", &n, &d));
    EXPECT_EQ(n * 1000 / d, 30000);
    gst_caps_unref(caps);
    gst_object_unref(pad);
    const auto stats = sensor_sim::rig::outputStats(1, kProcessed);
    EXPECT_EQ(stats.poolDrops, 0u);
    EXPECT_GE(stats.delivered, 20u);
    gst_object_unref(src);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    EXPECT_TRUE(sensor_sim::streams::held().empty());
}

}  // namespace
