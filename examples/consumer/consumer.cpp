// The example application's consumer: every result code of the frame calls handled, frames always
// returned, lost sensors noticed, and a stop that a signal can trigger at any moment.
#include "consumer.h"

#include <vector>

namespace example {

using namespace vexa::cameraipcclient;

namespace {

// How long one getFrame waits for a frame before it answers RESULT_STREAM_CODE_9.
constexpr unsigned int kFrameTimeoutMs = 100;
// Time-outs in a row after which the application asks the service whether the sensor is still there,
// and rounds between two such questions about a sensor already found lost.
constexpr uint32_t kSilentRoundsBeforeCheck = 5;

// Stands for the application's real work on the pixels.
uint64_t use(const uint8_t* data, uint32_t size) {
    uint64_t sum = 0;
    for (uint32_t i = 0; data != nullptr && i < size; i += 4096) sum += data[i];
    return sum;
}

}  // namespace

Consumer::Consumer(uint32_t sensors, uint16_t cameras, std::shared_ptr<vexa::vexalog::Logger> logger)
    : m_sensors(sensors), m_cameras(cameras), m_logger(std::move(logger)) {}

int32_t Consumer::init() {
    // snippet: init
    // The legacy init comes first: the first legacy init of a process creates the library's own logger,
    // and the logger handed to the library last is the one every client of the process writes to.
    unsigned short cameras = m_cameras;
    int32_t rc = m_legacy.Init(cameras, /*rawEnable=*/true);
    if (rc != RESULT_OK) return rc;
    // Only the camera bits are narrowed to what was asked; the others come back as detected.
    m_cameras &= cameras;

    unsigned int sensors = m_sensors;
    rc = m_current.init(sensors, kFrameTimeoutMs, m_logger);
    if (rc != RESULT_OK) return rc;
    // Radar and lidar bits: wanted, present and registered. Camera bits: as detected, so mask them.
    m_sensors &= sensors;
    // end snippet
    // Every counter exists before the polling threads start: they only look entries up (at), never insert.
    for (uint32_t id = 0; id <= SENSOR_TYPE_MAX; ++id) {
        if (((m_sensors | m_cameras) >> id) & 1u) {
            m_counters[id] = SensorCounters{};
            m_silentRounds[id] = 0;
        }
    }
    return RESULT_OK;
}

// snippet: start
bool Consumer::start() {
    {
        std::lock_guard<std::mutex> lock(m_phaseMutex);
        if (m_stop) return false;
        m_starting = true;
    }
    // Each start() blocks until its connection is decided, with no time-out of its own.
    const bool connected = m_legacy.Start() == RESULT_OK && m_current.start() == RESULT_OK;
    std::lock_guard<std::mutex> lock(m_phaseMutex);
    m_starting = false;
    // A start() ended by deInit() answers RESULT_OK without a connection: the stop flag decides.
    return connected && !m_stop;
}

void Consumer::requestStop() {
    std::lock_guard<std::mutex> lock(m_phaseMutex);
    m_stop = true;
    // deInit() is the one call that may run while another thread is inside a call on the same
    // object, and only to end a waiting start(). Once started, the polling threads own the objects
    // and leave their loops at the flag.
    if (m_starting) {
        m_legacy.DeInit();
        m_current.deInit();
    }
}
// end snippet

bool Consumer::pollSensors() {
    for (uint32_t id = 0; id <= SENSOR_TYPE_MAX && !m_stop; ++id) {
        if ((m_sensors >> id) & 1u) pollSensor(static_cast<SensorType>(id));
    }
    return !m_stop;
}

bool Consumer::pollCameras() {
    for (uint32_t id = 0; id < 16 && !m_stop; ++id) {
        if ((m_cameras >> id) & 1u) pollCamera(static_cast<SensorName>(id));
    }
    return !m_stop;
}

void Consumer::pollSensor(SensorType type) {
    SensorCounters& c = m_counters.at(type);
    if (c.lost && ++m_silentRounds.at(type) % kSilentRoundsBeforeCheck != 0) return;
    // snippet: get-current
    FrameBufObj frame{};
    switch (m_current.getFrame(type, frame, /*toCpu=*/true)) {
        case RESULT_OK: break;
        case RESULT_STREAM_CODE_9: noteTimeout(type, false); return;  // no frame within the time-out
        case RESULT_FAILED: ++c.lostFrames; return;  // the CPU copy failed; the frame is already returned
        case RESULT_STREAM_CODE_10:                  // the stream refused this get: try again next round
        case RESULT_ERROR: ++c.errors; return;
        default: requestStop(); return;  // RESULT_NOT_INIT, RESULT_BAD_PARAM: a bug of the application
    }
    // cpuData belongs to the library and is overwritten by the next copy of the same sensor and
    // buffer: finish with it before asking for another frame of this sensor.
    use(frame.cpuData, frame.cpuDataSize);
    if (m_current.releaseFrame(frame) != RESULT_OK) {
        // RESULT_ACCESS_FAILED: the stream refused and the frame is still held. Once more, then give
        // up: a frame that stays held keeps one buffer of the sensor's pool until the stream is torn down.
        ++c.releaseRetries;
        if (m_current.releaseFrame(frame) != RESULT_OK) ++c.leaked;
    }
    // end snippet
    ++c.frames;
    c.lost = false;
    m_silentRounds.at(type) = 0;
}

void Consumer::pollCamera(SensorName name) {
    SensorCounters& c = m_counters.at(name);
    if (c.lost && ++m_silentRounds.at(name) % kSilentRoundsBeforeCheck != 0) return;
    // snippet: get-legacy
    // Zeroed, because the raw fields are written only when a raw frame is attached.
    BufFrameObj frame{};
    switch (m_legacy.GetFrame(name, &frame)) {
        case RESULT_OK: break;
        case RESULT_STREAM_CODE_9: noteTimeout(name, true); return;
        case RESULT_FAILED: ++c.lostFrames; return;  // no raw frame of the same exposure: already returned
        case RESULT_ERROR: ++c.errors; return;       // includes the stream's code 10 on this API
        default: requestStop(); return;
    }
    // Cameras 2 and 3 come with the raw frame of the same exposure (the same frameCnt).
    // frame.bufObj and frame.rawBufObj are NvSciBuf handles, readable until the release.
    if (frame.rawBufObj != nullptr) ++c.paired;
    // Returns the raw frame first, then the processed one; RESULT_ACCESS_FAILED means the processed
    // frame is still held (a failed raw release is only logged).
    if (m_legacy.ReleaseFrame(&frame) != RESULT_OK) {
        ++c.releaseRetries;
        if (m_legacy.ReleaseFrame(&frame) != RESULT_OK) ++c.leaked;
    }
    // end snippet
    ++c.frames;
    c.lost = false;
    m_silentRounds.at(name) = 0;
}

// A quiet stream is normal for a while; a sensor the service no longer reports present is lost, and is
// then asked for only every few rounds until it comes back.
void Consumer::noteTimeout(uint32_t id, bool legacy) {
    SensorCounters& c = m_counters.at(id);
    ++c.timeouts;
    if (c.lost || ++m_silentRounds.at(id) < kSilentRoundsBeforeCheck) return;
    m_silentRounds.at(id) = 0;
    std::vector<SensorTypeInfo> types;
    const int32_t rc = legacy ? m_legacy.getAllSensorTypeInfo(types) : m_current.getAllSensorTypeInfo(types);
    if (rc == RESULT_OK && id < types.size() && !types[id].present) c.lost = true;
}

// snippet: shutdown
void Consumer::shutdown() {
    // Every frame got has been released by now. Raw frames that the pairing keeps for a later
    // processed frame stay held until the process ends: de-initialisation does not return them.
    m_legacy.Stop();
    m_current.stop();
    m_legacy.DeInit();
    m_current.deInit();
}
// end snippet

}  // namespace example
