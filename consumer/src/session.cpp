// The library's lifecycle under any front end: the start's wait off the caller's thread, and releases
// that never block another thread behind a get.
#include "sensor_consumer/session.h"

#include <set>

#include "sensor_consumer/errors.h"

namespace sensor_consumer {
namespace {

using vexa::cameraipcclient::AppType;
using vexa::cameraipcclient::RESULT_BAD_PARAM;
using vexa::cameraipcclient::RESULT_FAILED;
using vexa::cameraipcclient::RESULT_OK;
using vexa::cameraipcclient::RESULT_STREAM_CODE_9;
using vexa::cameraipcclient::SensorName;
using vexa::cameraipcclient::SensorType;

// Applications in use by sessions of this process.
std::mutex g_appsMutex;
std::set<uint32_t> g_apps;

uint32_t maskOf(const std::vector<uint32_t>& ids) {
    uint32_t mask = 0;
    for (uint32_t id : ids) mask |= 1u << id;
    return mask;
}

}  // namespace

uint64_t steadyUs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

Session::Session(const SessionOptions& options)
    : m_options(options),
      m_legacy(static_cast<AppType>(options.app)),
      m_current(static_cast<AppType>(options.app)) {}

Session::~Session() {
    close();
}

std::vector<uint32_t> Session::open(const std::vector<uint32_t>& sensors) {
    for (uint32_t id : sensors) {
        if (!servedBy(m_options.api, id))
            throw Error::withMessage(RESULT_BAD_PARAM, "init",
                                     "sensor " + std::to_string(id) + " (" + sensorName(id) + ") has no stream through the " +
                                         apiName(m_options.api) + " API");
    }
    {
        std::lock_guard<std::mutex> lock(g_appsMutex);
        if (!m_appClaimed && !g_apps.insert(m_options.app).second) {
            throw Error::withMessage(RESULT_BAD_PARAM, "init",
                                     "application " + appLabel(m_options.app) +
                                         " is already used by another consumer of this process; give each its own");
        }
        m_appClaimed = true;
    }
    const uint32_t wanted = maskOf(sensors);
    std::lock_guard<std::mutex> lock(m_callMutex);
    uint32_t present = 0;
    if (m_options.api == Api::Legacy) {
        auto mask = static_cast<unsigned short>(wanted);
        check("Init", m_legacy.Init(mask, m_options.raw));
        present = mask;
    } else {
        unsigned int mask = wanted;
        check("init", m_current.init(mask, m_options.frameTimeoutMs, nullptr));
        present = mask;
    }
    m_initialised = true;
    std::vector<uint32_t> out;
    for (uint32_t id : sensors) {
        if (present & wanted & (1u << id)) out.push_back(id);
    }
    return out;
}

void Session::beginStart() {
    {
        std::lock_guard<std::mutex> lock(m_startMutex);
        m_startDone = false;
        m_cancelled = false;
    }
    m_starter = std::thread([this] {
        const int32_t r = m_options.api == Api::Legacy ? m_legacy.Start() : m_current.start();
        std::lock_guard<std::mutex> lock(m_startMutex);
        m_startResult = r;
        m_startDone = true;
        m_startCv.notify_all();
    });
}

Session::StartState Session::waitStarted(Millis limit, int32_t* result) {
    std::unique_lock<std::mutex> lock(m_startMutex);
    if (!m_startCv.wait_for(lock, limit, [this] { return m_startDone; })) return StartState::Pending;
    if (m_cancelled) return StartState::Cancelled;
    if (result != nullptr) *result = m_startResult;
    if (m_startResult != RESULT_OK) return StartState::Failed;
    m_started = true;
    return StartState::Connected;
}

void Session::cancelStart() {
    if (!m_starter.joinable()) return;
    bool waiting = false;
    {
        std::lock_guard<std::mutex> lock(m_startMutex);
        waiting = !m_startDone;
        if (waiting) m_cancelled = true;
    }
    if (waiting) {
        if (m_options.api == Api::Legacy) {
            m_legacy.DeInit();
        } else {
            m_current.deInit();
        }
        m_initialised = false;
    }
    m_starter.join();
}

Session::StartOutcome Session::start(Millis limit, const std::function<bool()>& stop) {
    beginStart();
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int32_t result = RESULT_OK;
        switch (waitStarted(Millis(20), &result)) {
            case StartState::Connected:
                m_starter.join();
                return StartOutcome::Connected;
            case StartState::Failed:
                m_starter.join();
                throw Error(m_options.api == Api::Legacy ? "Start" : "start", result);
            case StartState::Cancelled:
                m_starter.join();
                return StartOutcome::Stopped;
            case StartState::Pending:
                break;
        }
        if (stop && stop()) {
            cancelStart();
            return StartOutcome::Stopped;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            cancelStart();
            return StartOutcome::TimedOut;
        }
    }
}

GetStatus Session::get(uint32_t sensor, Frame& frame, int32_t& result, bool toCpu) {
    std::lock_guard<std::mutex> lock(m_callMutex);
    drainLocked();
    frame.api = m_options.api;
    frame.sensor = sensor;
    frame.rawImage = nullptr;
    frame.cpuData = nullptr;
    frame.cpuDataSize = 0;
    if (m_options.api == Api::Legacy) {
        // Zeroed: the raw fields are written only by a pairing.
        frame.legacyRecord = {};
        result = m_legacy.GetFrame(static_cast<SensorName>(sensor), &frame.legacyRecord);
        const auto& r = frame.legacyRecord;
        frame.counter = r.frameCnt;
        frame.exposureUs = r.infoA;
        frame.timestampMs = r.timestampMs;
        frame.image = r.bufObj;
        frame.rawImage = r.rawBufObj;
    } else {
        frame.currentRecord = {};
        result = m_current.getFrame(static_cast<SensorType>(sensor), frame.currentRecord, toCpu);
        const auto& r = frame.currentRecord;
        frame.counter = r.frameCnt;
        frame.exposureUs = r.infoA;
        frame.timestampMs = r.timestampMs;
        frame.image = r.bufObj;
        frame.cpuData = r.cpuData;
        frame.cpuDataSize = r.cpuDataSize;
    }
    if (result == RESULT_OK) return GetStatus::Frame;
    if (result == RESULT_STREAM_CODE_9) return GetStatus::NoFrame;
    if (result == RESULT_FAILED) return m_options.api == Api::Legacy ? GetStatus::PairFailed : GetStatus::CopyFailed;
    return GetStatus::Error;
}

int32_t Session::roiStats(const Frame& frame, vexa::cameraipcclient::CameraFrameRoiStatsData& stats) {
    if (frame.api != Api::Legacy) return RESULT_BAD_PARAM;  // statistics come with camera frames
    std::lock_guard<std::mutex> lock(m_callMutex);
    return m_legacy.GetFrameRoiStatsData(&frame.legacyRecord, &stats);
}

int32_t Session::release(const Frame& frame) {
    std::lock_guard<std::mutex> lock(m_callMutex);
    drainLocked();
    return releaseLocked(frame);
}

void Session::releaseLater(const Frame& frame) {
    {
        std::unique_lock<std::mutex> lock(m_callMutex, std::try_to_lock);
        if (lock.owns_lock()) {
            drainLocked();
            releaseLocked(frame);
            return;
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_deferred.push_back(frame);
        m_anyDeferred.store(true, std::memory_order_release);
    }
    // Whoever holds the call lock drains the queue at its next call; should it have ended meanwhile,
    // this thread does.
    std::unique_lock<std::mutex> lock(m_callMutex, std::try_to_lock);
    if (lock.owns_lock()) drainLocked();
}

size_t Session::deferredReleases() {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    return m_deferred.size();
}

void Session::flushReleases() {
    std::lock_guard<std::mutex> lock(m_callMutex);
    drainLocked();
}

int32_t Session::releaseLocked(const Frame& frame) {
    if (frame.api == Api::Legacy) return m_legacy.ReleaseFrame(&frame.legacyRecord);
    return m_current.releaseFrame(frame.currentRecord);
}

void Session::drainLocked() {
    if (!m_anyDeferred.load(std::memory_order_acquire)) return;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_draining.swap(m_deferred);  // both keep their capacity: no allocation once warm
        m_anyDeferred.store(false, std::memory_order_relaxed);
    }
    for (const Frame& f : m_draining) releaseLocked(f);
    m_draining.clear();
}

void Session::close() {
    cancelStart();
    {
        std::lock_guard<std::mutex> lock(m_callMutex);
        drainLocked();
        if (m_initialised) {
            if (m_options.api == Api::Legacy) {
                if (m_started) m_legacy.Stop();
                m_legacy.DeInit();
            } else {
                if (m_started) m_current.stop();
                m_current.deInit();
            }
            m_initialised = false;
            m_started = false;
        }
    }
    if (m_appClaimed) {
        std::lock_guard<std::mutex> lock(g_appsMutex);
        g_apps.erase(m_options.app);
        m_appClaimed = false;
    }
}

}  // namespace sensor_consumer
