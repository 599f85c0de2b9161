// sensoripcsrc: frames wrapped without a copy while few are in flight, copied into pooled buffers beyond
// max-held; every frame goes back to the library exactly once, whatever downstream does with it.
#include "sensoripc_src.h"

#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "frame_layout.h"
#include "sensor_consumer/counters.h"
#include "sensor_consumer/errors.h"
#include "sensor_consumer/names.h"
#include "sensor_consumer/session.h"
#include "wrap_pool.h"

GST_DEBUG_CATEGORY_STATIC(sensoripc_debug);
#define GST_CAT_DEFAULT sensoripc_debug

namespace {

using sensor_consumer::FrameLayout;
using sensor_consumer::GetStatus;
using sensor_consumer::Session;
using sensoripc::Described;
using sensoripc::isBayer;
using sensoripc::WrapPool;

enum class Api { Auto, Legacy, Current };
enum class Output { Processed, Raw };

constexpr guint kDefaultMaxHeld = 4;  // the pool has 9 buffers: leave the producer room and a FIFO's worth
constexpr guint kDefaultStartTimeoutMs = 10000;
constexpr guint kDefaultFrameWaitMs = 5000;
constexpr const char* kDefaultSensor = "wide";

struct Stats {
    sensor_consumer::FrameCounters counters;  // frames, gaps, discontinuities, pair failures
    guint64 copies = 0;
    guint64 wrapped = 0;
};

// The element's C++ state, created with the instance.
struct State {
    // Properties (under the object lock).
    std::string sensor = kDefaultSensor;
    std::string app;
    Api api = Api::Auto;
    Output output = Output::Processed;
    guint maxHeld = kDefaultMaxHeld;
    guint startTimeoutMs = kDefaultStartTimeoutMs;
    guint frameWaitMs = kDefaultFrameWaitMs;

    // Streaming.
    std::shared_ptr<Session> session;
    std::shared_ptr<WrapPool> wraps;
    uint32_t sensorId = 0;
    bool raw = false;  // the raw image of each frame goes downstream
    bool connected = false;
    std::atomic<bool> unlocking{false};
    std::optional<FrameLayout> layout;  // of the caps set
    std::shared_ptr<const Described> described;  // the buffer of the last frame, whose layout the caps carry
    GstVideoInfo copyInfo{};   // the layout of copied raw-video buffers
    bool videoMetaOk = false;  // downstream reads strides and offsets from a video meta
    GstBufferPool* pool = nullptr;
    // The stream's rate, from the exposure times of its first two frames (the second waits here).
    bool rateProbed = false;
    gint fpsN = 0;
    gint fpsD = 1;
    GstClockTime period = GST_CLOCK_TIME_NONE;
    std::optional<sensor_consumer::Frame> pending;
    Stats stats;  // under the object lock
};

}  // namespace

struct _GstSensorIpcSrc {
    GstPushSrc parent;
    State* state;
};

G_DEFINE_TYPE(GstSensorIpcSrc, gst_sensor_ipc_src, GST_TYPE_PUSH_SRC)

enum {
    PROP_0,
    PROP_SENSOR,
    PROP_APP,
    PROP_API,
    PROP_OUTPUT,
    PROP_MAX_HELD,
    PROP_START_TIMEOUT,
    PROP_FRAME_WAIT,
    PROP_STATS,
};

static GstStaticPadTemplate srcTemplate = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(
        "{ NV12, NV21, GRAY8, GRAY16_LE }") "; "
                                            "video/x-bayer, format = (string) rggb16le, width "
                                            "= " GST_VIDEO_SIZE_RANGE ", height = " GST_VIDEO_SIZE_RANGE));

#define GST_TYPE_SENSOR_IPC_API (sensorIpcApiGetType())
static GType sensorIpcApiGetType() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {int(Api::Auto), "By the sensor's kind: legacy for cameras, current for radars and lidars", "auto"},
        {int(Api::Legacy), "The camera API (cameras 0-11)", "legacy"},
        {int(Api::Current), "The sensor API (radars and lidars 12-14, 16-21)", "current"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("GstSensorIpcApi", values));
    return type;
}

#define GST_TYPE_SENSOR_IPC_OUTPUT (sensorIpcOutputGetType())
static GType sensorIpcOutputGetType() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {int(Output::Processed), "The processed image", "processed"},
        {int(Output::Raw), "The raw Bayer frame of the same exposure (cameras 2 and 3, legacy API)", "raw"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("GstSensorIpcOutput", values));
    return type;
}

static GstStructure* statsStructure(GstSensorIpcSrc* self) {
    State& s = *self->state;
    GST_OBJECT_LOCK(self);
    const Stats st = s.stats;
    GST_OBJECT_UNLOCK(self);
    const guint inFlight = s.wraps ? guint(s.wraps->inFlight()) : 0u;
    const auto& c = st.counters;
    return gst_structure_new("sensoripcsrc-stats", "frames", G_TYPE_UINT64, guint64(c.frames()), "gaps",
                             G_TYPE_UINT64, guint64(c.gaps()), "discontinuities", G_TYPE_UINT64,
                             guint64(c.discontinuities()), "pair-failures", G_TYPE_UINT64,
                             guint64(c.pairFailures()), "copies", G_TYPE_UINT64, st.copies, "wrapped",
                             G_TYPE_UINT64, st.wrapped, "in-flight", G_TYPE_UINT, inFlight, nullptr);
}

static void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
    auto* self = GST_SENSOR_IPC_SRC(object);
    State& s = *self->state;
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_SENSOR: {
            const gchar* text = g_value_get_string(value);
            s.sensor = text != nullptr ? text : "";
            break;
        }
        case PROP_APP: {
            const gchar* text = g_value_get_string(value);
            s.app = text != nullptr ? text : "";
            break;
        }
        case PROP_API:
            s.api = Api(g_value_get_enum(value));
            break;
        case PROP_OUTPUT:
            s.output = Output(g_value_get_enum(value));
            break;
        case PROP_MAX_HELD:
            s.maxHeld = g_value_get_uint(value);
            break;
        case PROP_START_TIMEOUT:
            s.startTimeoutMs = g_value_get_uint(value);
            break;
        case PROP_FRAME_WAIT:
            s.frameWaitMs = g_value_get_uint(value);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    auto* self = GST_SENSOR_IPC_SRC(object);
    State& s = *self->state;
    if (id == PROP_STATS) {
        g_value_take_boxed(value, statsStructure(self));
        return;
    }
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_SENSOR:
            g_value_set_string(value, s.sensor.c_str());
            break;
        case PROP_APP:
            g_value_set_string(value, s.app.c_str());
            break;
        case PROP_API:
            g_value_set_enum(value, int(s.api));
            break;
        case PROP_OUTPUT:
            g_value_set_enum(value, int(s.output));
            break;
        case PROP_MAX_HELD:
            g_value_set_uint(value, s.maxHeld);
            break;
        case PROP_START_TIMEOUT:
            g_value_set_uint(value, s.startTimeoutMs);
            break;
        case PROP_FRAME_WAIT:
            g_value_set_uint(value, s.frameWaitMs);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

// Registers the application and the sensor's stream and starts the connection without waiting for it:
// the wait happens in create(), where a flush or a state change can end it.
static gboolean srcStart(GstBaseSrc* base) {
    auto* self = GST_SENSOR_IPC_SRC(base);
    State& s = *self->state;
    GST_OBJECT_LOCK(self);
    const std::string sensorText = s.sensor;
    const std::string appText = s.app;
    const Api api = s.api;
    const Output output = s.output;
    GST_OBJECT_UNLOCK(self);

    namespace sc = sensor_consumer;
    uint32_t sensor = 0;
    try {
        sensor = sc::parseSensor(sensorText);
    } catch (const std::exception& e) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("Bad sensor \"%s\"", sensorText.c_str()),
                          ("%s", e.what()));
        return FALSE;
    }
    const sc::SensorEntry& entry = sc::sensorEntry(sensor);
    sc::SessionOptions options;
    options.api = api == Api::Auto ? sc::apiFor(sensor) : (api == Api::Legacy ? sc::Api::Legacy : sc::Api::Current);
    if (!sc::servedBy(options.api, sensor)) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                          ("Sensor %s has no stream through the %s API", entry.name, sc::apiName(options.api)),
                          ("legacy: cameras 0-11; current: radars and lidars 12-14, 16-21"));
        return FALSE;
    }
    options.raw = output == Output::Raw;
    if (options.raw && (!entry.hasRaw || options.api != sc::Api::Legacy)) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("Sensor %s has no raw output", entry.name),
                          ("only cameras 2 and 3 publish raw frames, through the legacy API"));
        return FALSE;
    }
    try {
        options.app = appText.empty() ? sc::defaultApp(options.api) : sc::parseApp(appText);
    } catch (const std::exception& e) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("Bad app \"%s\"", appText.c_str()), ("%s", e.what()));
        return FALSE;
    }

    auto session = std::make_shared<Session>(options);
    try {
        if (session->open({sensor}).empty()) {
            throw std::runtime_error("sensor " + std::to_string(sensor) + " is not present or has no stream");
        }
    } catch (const std::exception& e) {
        session->close();
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("Cannot open sensor %s", entry.name), ("%s", e.what()));
        return FALSE;
    }
    GST_INFO_OBJECT(self, "sensor %u (%s), app %u, %s API, %s output", sensor, entry.name, options.app,
                    sc::apiName(options.api), options.raw ? "raw" : "processed");
    session->beginStart();
    s.session = session;
    s.sensorId = sensor;
    s.wraps = WrapPool::create(session);
    s.raw = options.raw;
    s.connected = false;
    s.layout.reset();
    s.described.reset();
    s.rateProbed = false;
    s.fpsN = 0;
    s.fpsD = 1;
    s.period = GST_CLOCK_TIME_NONE;
    GST_OBJECT_LOCK(self);
    s.stats = Stats{};
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static void dropPool(State& s) {
    if (s.pool != nullptr) {
        gst_buffer_pool_set_active(s.pool, FALSE);
        gst_object_unref(s.pool);
        s.pool = nullptr;
    }
}

// Ends a waiting start through the de-initialisation, returns every frame (those of buffers that
// outlive the stream too), then stops and de-initialises the client.
static gboolean srcStop(GstBaseSrc* base) {
    auto* self = GST_SENSOR_IPC_SRC(base);
    State& s = *self->state;
    if (s.session) {
        s.session->cancelStart();
        if (s.pending) s.session->releaseLater(*s.pending);
        s.pending.reset();
        const size_t outstanding = s.wraps->giveBackAll();
        if (outstanding != 0) {
            GST_ELEMENT_WARNING(
                self, RESOURCE, CLOSE,
                ("%zu buffers outlived the stream; their frames were returned to the service", outstanding),
                ("their memory may be overwritten by later frames"));
        }
        s.session->close();
        s.wraps->shutdown();
    }
    s.wraps.reset();
    s.session.reset();
    dropPool(s);
    s.layout.reset();
    s.described.reset();
    return TRUE;
}

static gboolean srcUnlock(GstBaseSrc* base) {
    GST_SENSOR_IPC_SRC(base)->state->unlocking = true;
    return TRUE;
}

static gboolean srcUnlockStop(GstBaseSrc* base) {
    GST_SENSOR_IPC_SRC(base)->state->unlocking = false;
    return TRUE;
}

static gboolean srcDecideAllocation(GstBaseSrc* base, GstQuery* query) {
    auto* self = GST_SENSOR_IPC_SRC(base);
    self->state->videoMetaOk = gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    GST_DEBUG_OBJECT(self, "downstream %s video meta", self->state->videoMetaOk ? "reads" : "does not read");
    return GST_BASE_SRC_CLASS(gst_sensor_ipc_src_parent_class)->decide_allocation(base, query);
}

// Whether the frame's own planes can go downstream: downstream reads the strides from a video meta, or
// they are the ones it assumes anyway.
static bool canWrap(const State& s, const FrameLayout& layout) {
    if (isBayer(layout)) return layout.planes[0].pitch == layout.planes[0].lineBytes && layout.planes[0].offset == 0;
    if (s.videoMetaOk) return true;
    for (uint32_t i = 0; i < layout.planeCount; ++i) {
        if (gint(layout.planes[i].pitch) != GST_VIDEO_INFO_PLANE_STRIDE(&s.copyInfo, i) ||
            gsize(layout.planes[i].offset) != GST_VIDEO_INFO_PLANE_OFFSET(&s.copyInfo, i))
            return false;
    }
    return true;
}

// Sets the caps of a new layout and the pool that copies of it come from.
static bool applyLayout(GstSensorIpcSrc* self, const FrameLayout& layout) {
    State& s = *self->state;
    GstCaps* caps = sensoripc::layoutCaps(layout);
    if (s.fpsN > 0) gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION, s.fpsN, s.fpsD, nullptr);
    GST_INFO_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
    gsize copySize = 0;
    if (!isBayer(layout)) {
        gst_video_info_from_caps(&s.copyInfo, caps);
        copySize = GST_VIDEO_INFO_SIZE(&s.copyInfo);
    } else {
        copySize = gsize(layout.planes[0].lineBytes) * layout.height;
    }
    if (!gst_base_src_set_caps(GST_BASE_SRC(self), caps)) {
        gst_caps_unref(caps);
        return false;
    }
    dropPool(s);
    s.pool = gst_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(s.pool);
    gst_buffer_pool_config_set_params(config, caps, guint(copySize), 2, 0);
    gst_caps_unref(caps);
    if (!gst_buffer_pool_set_config(s.pool, config) || !gst_buffer_pool_set_active(s.pool, TRUE)) {
        dropPool(s);
        return false;
    }
    s.layout = layout;
    return true;
}

// A pooled buffer with the frame's visible lines in the layout downstream assumes.
static GstFlowReturn copyFrame(GstSensorIpcSrc* self, const guint8* base, GstBuffer** out) {
    State& s = *self->state;
    const FrameLayout& layout = *s.layout;
    GstBuffer* buffer = nullptr;
    GstFlowReturn ret = gst_buffer_pool_acquire_buffer(s.pool, &buffer, nullptr);
    if (ret != GST_FLOW_OK) return ret;
    if (!isBayer(layout)) {
        GstVideoFrame dst;
        if (!gst_video_frame_map(&dst, &s.copyInfo, buffer, GST_MAP_WRITE)) {
            gst_buffer_unref(buffer);
            return GST_FLOW_ERROR;
        }
        for (uint32_t i = 0; i < layout.planeCount; ++i) {
            auto* to = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&dst, i));
            const gint toStride = GST_VIDEO_FRAME_PLANE_STRIDE(&dst, i);
            const auto& plane = layout.planes[i];
            const gsize n = std::min<gsize>(plane.lineBytes, gsize(toStride));
            for (uint32_t y = 0; y < plane.lines; ++y)
                std::memcpy(to + gsize(y) * toStride, base + plane.offset + gsize(y) * plane.pitch, n);
        }
        gst_video_frame_unmap(&dst);
    } else {
        GstMapInfo map;
        if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
            gst_buffer_unref(buffer);
            return GST_FLOW_ERROR;
        }
        const auto& plane = layout.planes[0];
        const gsize line = plane.lineBytes;
        for (uint32_t y = 0; y < layout.height; ++y)
            std::memcpy(map.data + gsize(y) * line, base + plane.offset + gsize(y) * plane.pitch, line);
        gst_buffer_unmap(buffer, &map);
    }
    *out = buffer;
    return GST_FLOW_OK;
}

// Running time of the frame's exposure on the pipeline clock: the exposure's age on the steady clock
// taken back from the clock's present time. Without a usable exposure time, the present.
static GstClockTime exposurePts(GstSensorIpcSrc* self, uint64_t exposureUs) {
    GstClock* clock = gst_element_get_clock(GST_ELEMENT(self));
    if (clock == nullptr) return GST_CLOCK_TIME_NONE;
    const GstClockTime now = gst_clock_get_time(clock);
    gst_object_unref(clock);
    const GstClockTime baseTime = gst_element_get_base_time(GST_ELEMENT(self));
    const gint64 nowUs = g_get_monotonic_time();
    GstClockTime age = 0;
    constexpr gint64 kMaxAgeUs = 10 * G_USEC_PER_SEC;  // older than this: another clock's time
    if (exposureUs != 0 && gint64(exposureUs) <= nowUs && nowUs - gint64(exposureUs) < kMaxAgeUs)
        age = GstClockTime(nowUs - gint64(exposureUs)) * GST_USECOND;
    const GstClockTime at = now > age ? now - age : 0;
    return at > baseTime ? at - baseTime : 0;
}

static GstFlowReturn waitConnected(GstSensorIpcSrc* self) {
    State& s = *self->state;
    GST_OBJECT_LOCK(self);
    const guint limitMs = s.startTimeoutMs;
    GST_OBJECT_UNLOCK(self);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    for (;;) {
        if (s.unlocking) return GST_FLOW_FLUSHING;
        int32_t result = 0;
        switch (s.session->waitStarted(std::chrono::milliseconds(20), &result)) {
            case Session::StartState::Connected:
                s.connected = true;
                return GST_FLOW_OK;
            case Session::StartState::Failed:
                GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("The stream connection failed"),
                                  ("%s", sensor_consumer::Error(s.session->options().api == sensor_consumer::Api::Legacy
                                                                    ? "Start"
                                                                    : "start",
                                                                result)
                                             .what()));
                return GST_FLOW_ERROR;
            case Session::StartState::Cancelled:
                GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("The stream connection failed"),
                                  ("the start was cancelled"));
                return GST_FLOW_ERROR;
            case Session::StartState::Pending:
                break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ,
                              ("The stream connection was not made within %u ms", limitMs), (nullptr));
            return GST_FLOW_ERROR;
        }
    }
}

// Takes the next frame, waiting at most frame-wait; NoFrame is never returned.
static GstFlowReturn nextFrame(GstSensorIpcSrc* self, sensor_consumer::Frame& frame) {
    State& s = *self->state;
    GST_OBJECT_LOCK(self);
    const guint waitMs = s.frameWaitMs;
    GST_OBJECT_UNLOCK(self);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
        if (s.unlocking) return GST_FLOW_FLUSHING;
        int32_t result = 0;
        switch (s.session->get(s.sensorId, frame, result)) {
            case GetStatus::Frame:
                return GST_FLOW_OK;
            case GetStatus::PairFailed:
                GST_OBJECT_LOCK(self);
                s.stats.counters.onPairFailure();
                GST_OBJECT_UNLOCK(self);
                break;
            case GetStatus::NoFrame:
                // A scripted stream answers at once: do not spin on it.
                g_usleep(1000);
                break;
            case GetStatus::CopyFailed:
            case GetStatus::Error:
                GST_ELEMENT_ERROR(self, RESOURCE, READ, ("Getting a frame failed"),
                                  ("%s (%d)", vexa::cameraipcclient::resultCodeName(result), result));
                return GST_FLOW_ERROR;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            GST_ELEMENT_ERROR(self, RESOURCE, READ, ("No frame within %u ms", waitMs), (nullptr));
            return GST_FLOW_ERROR;
        }
    }
}

static GstFlowReturn srcCreate(GstPushSrc* push, GstBuffer** out) {
    auto* self = GST_SENSOR_IPC_SRC(push);
    State& s = *self->state;
    if (!s.session) return GST_FLOW_FLUSHING;
    if (!s.connected) {
        const GstFlowReturn ret = waitConnected(self);
        if (ret != GST_FLOW_OK) return ret;
    }
    sensor_consumer::Frame frame;
    GstFlowReturn ret = GST_FLOW_OK;
    if (s.pending) {
        frame = *s.pending;
        s.pending.reset();
    } else if ((ret = nextFrame(self, frame)) != GST_FLOW_OK) {
        return ret;
    }
    if (!s.rateProbed && frame.exposureUs != 0) {
        // The rate the caps carry: the second frame's exposure after the first's, per counter step.
        s.rateProbed = true;
        sensor_consumer::Frame next;
        if ((ret = nextFrame(self, next)) != GST_FLOW_OK) {
            s.session->release(frame);
            return ret;
        }
        const uint32_t steps = next.counter - frame.counter;
        if (next.exposureUs > frame.exposureUs && steps != 0 && steps < 0x80000000u) {
            const double periodUs = double(next.exposureUs - frame.exposureUs) / steps;
            const double fps = std::round(1e8 / periodUs) / 100.0;  // to a hundredth: times are whole µs
            gst_util_double_to_fraction(fps, &s.fpsN, &s.fpsD);
            s.period = GstClockTime(periodUs * GST_USECOND);
            GST_INFO_OBJECT(self, "stream rate %d/%d", s.fpsN, s.fpsD);
        }
        s.pending = next;
    }

    // From here on the frame is held: every path below returns it or hands it to a buffer. A pool buffer
    // is described once; the caps change only with another layout.
    NvSciBufObj image = s.raw ? frame.rawImage : frame.image;
    std::string error;
    const std::shared_ptr<const Described> described = image != nullptr ? s.wraps->describe(image, error) : nullptr;
    if (described == nullptr) {
        s.session->release(frame);
        if (error.empty()) error = "the frame has no buffer";
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Frame %u cannot be described", unsigned(frame.counter)),
                          ("%s", error.c_str()));
        return GST_FLOW_NOT_NEGOTIATED;
    }
    const FrameLayout& layout = described->layout;
    if (described != s.described && (!s.layout || !s.layout->sameAs(layout))) {
        if (!applyLayout(self, layout)) {
            s.session->release(frame);
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                              ("Downstream refused the caps of frame %u", unsigned(frame.counter)),
                              (nullptr));
            return GST_FLOW_NOT_NEGOTIATED;
        }
    }
    s.described = described;

    GST_OBJECT_LOCK(self);
    const guint maxHeld = s.maxHeld;
    GST_OBJECT_UNLOCK(self);
    GstBuffer* buffer = nullptr;
    const bool wrap = canWrap(s, layout) && s.wraps->inFlight() < maxHeld;
    if (wrap) {
        buffer = s.wraps->wrap(described, frame);
        if (buffer == nullptr) {
            s.session->release(frame);
            return GST_FLOW_FLUSHING;
        }
    } else {
        ret = copyFrame(self, described->base, &buffer);
        s.session->release(frame);
        if (ret != GST_FLOW_OK) return ret;
    }

    GST_OBJECT_LOCK(self);
    const bool discont = s.stats.counters.onFrame(frame.counter);
    ++(wrap ? s.stats.wrapped : s.stats.copies);
    GST_OBJECT_UNLOCK(self);
    GST_BUFFER_OFFSET(buffer) = frame.counter;
    GST_BUFFER_OFFSET_END(buffer) = guint64(frame.counter) + 1;
    GST_BUFFER_PTS(buffer) = exposurePts(self, frame.exposureUs);
    GST_BUFFER_DTS(buffer) = GST_BUFFER_PTS(buffer);
    GST_BUFFER_DURATION(buffer) = s.period;
    if (discont) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    *out = buffer;
    return GST_FLOW_OK;
}

// Caps come from the first frame's buffer (create() sets them): nothing to fixate before it.
static gboolean srcNegotiate(GstBaseSrc*) {
    return TRUE;
}

static gboolean srcQuery(GstBaseSrc* base, GstQuery* query) {
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        // Frames are stamped at their exposure: they reach the pipeline about one delivery later.
        gst_query_set_latency(query, TRUE, 0, GST_CLOCK_TIME_NONE);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(gst_sensor_ipc_src_parent_class)->query(base, query);
}

static void srcFinalize(GObject* object) {
    auto* self = GST_SENSOR_IPC_SRC(object);
    delete self->state;
    self->state = nullptr;
    G_OBJECT_CLASS(gst_sensor_ipc_src_parent_class)->finalize(object);
}

static void gst_sensor_ipc_src_init(GstSensorIpcSrc* self) {
    self->state = new State();
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
    gst_base_src_set_do_timestamp(GST_BASE_SRC(self), FALSE);
}

static void gst_sensor_ipc_src_class_init(GstSensorIpcSrcClass* klass) {
    auto* gobjectClass = G_OBJECT_CLASS(klass);
    auto* elementClass = GST_ELEMENT_CLASS(klass);
    auto* baseClass = GST_BASE_SRC_CLASS(klass);
    auto* pushClass = GST_PUSH_SRC_CLASS(klass);

    gobjectClass->set_property = setProperty;
    gobjectClass->get_property = getProperty;
    gobjectClass->finalize = srcFinalize;
    const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

    g_object_class_install_property(
        gobjectClass, PROP_SENSOR,
        g_param_spec_string("sensor", "Sensor",
                            "The sensor: id 0-21 or name (wideleft, rear, wide, narrow, ..., frontslave, "
                            "midlidar, ...), as sensorctl accepts them",
                            kDefaultSensor, flags));
    g_object_class_install_property(
        gobjectClass, PROP_APP,
        g_param_spec_string("app", "Application",
                            "The client application: a number or an AppType name with or without APP_ "
                            "(camera-demo, sensor-irc, ...); empty: APP_CAMERA_DEMO for the legacy API, "
                            "APP_SENSOR_DEMO for the current one. Each element of a process needs its own",
                            "", flags));
    g_object_class_install_property(
        gobjectClass, PROP_API,
        g_param_spec_enum("api", "API", "The library facade that serves the sensor", GST_TYPE_SENSOR_IPC_API,
                          int(Api::Auto), flags));
    g_object_class_install_property(
        gobjectClass, PROP_OUTPUT,
        g_param_spec_enum("output", "Output", "Which image of the frame to push", GST_TYPE_SENSOR_IPC_OUTPUT,
                          int(Output::Processed), flags));
    g_object_class_install_property(
        gobjectClass, PROP_MAX_HELD,
        g_param_spec_uint(
            "max-held", "Maximum frames held",
            "Frames that may be downstream without a copy at once; beyond, frames are copied "
            "into pooled buffers and returned at once (0: always copy; the producer's pool "
            "has 9 buffers)",
            0, 64, kDefaultMaxHeld,
            GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(
        gobjectClass, PROP_START_TIMEOUT,
        g_param_spec_uint("start-timeout", "Start time-out",
                          "Milliseconds to wait for the stream connection before an error", 1, G_MAXINT,
                          kDefaultStartTimeoutMs, flags));
    g_object_class_install_property(
        gobjectClass, PROP_FRAME_WAIT,
        g_param_spec_uint("frame-wait", "Frame wait", "Milliseconds without any frame before an error", 1,
                          G_MAXINT, kDefaultFrameWaitMs, flags));
    g_object_class_install_property(
        gobjectClass, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "Counters since the start: frames, gaps (frames missing between counters), "
                           "discontinuities, pair-failures, copies, wrapped, in-flight",
                           GST_TYPE_STRUCTURE, GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_set_static_metadata(elementClass, "Sensor IPC source", "Source/Video",
                                          "Frames of one camera, radar or lidar of the vehicle through the "
                                          "sensor IPC client, without a copy where safe",
                                          "sensor_ipcclient");
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);

    baseClass->start = srcStart;
    baseClass->stop = srcStop;
    baseClass->unlock = srcUnlock;
    baseClass->unlock_stop = srcUnlockStop;
    baseClass->decide_allocation = srcDecideAllocation;
    baseClass->query = srcQuery;
    baseClass->negotiate = srcNegotiate;
    pushClass->create = srcCreate;

    GST_DEBUG_CATEGORY_INIT(sensoripc_debug, "sensoripcsrc", 0, "sensor IPC source");
}

gboolean gst_sensor_ipc_src_register(GstPlugin* plugin) {
    return gst_element_register(plugin, "sensoripcsrc", GST_RANK_NONE, GST_TYPE_SENSOR_IPC_SRC);
}
