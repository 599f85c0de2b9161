// The library's lifecycle under a GStreamer element: the start's wait off the streaming thread, and
// releases that never block a downstream thread behind a get.
#include "frame_session.h"

#include <set>

namespace sensoripc {
namespace {

using vexa::cameraipcclient::AppType;
using vexa::cameraipcclient::RESULT_FAILED;
using vexa::cameraipcclient::RESULT_OK;
using vexa::cameraipcclient::RESULT_STREAM_CODE_9;
using vexa::cameraipcclient::resultCodeName;
using vexa::cameraipcclient::SensorName;
using vexa::cameraipcclient::SensorType;

// Applications in use by sessions of this process.
std::mutex g_appsMutex;
std::set<uint32_t> g_apps;

std::string failure(const char* call, int32_t result) {
    return std::string(call) + " failed: " + resultCodeName(result) + " (" + std::to_string(result) + ")";
}

}  // namespace

FrameSession::FrameSession(const SessionOptions& options)
    : m_options(options),
      m_legacy(static_cast<AppType>(options.app)),
      m_current(static_cast<AppType>(options.app)) {}

FrameSession::~FrameSession() {
    shutdown();
}

bool FrameSession::init(std::string& error) {
    {
        std::lock_guard<std::mutex> lock(g_appsMutex);
        if (!g_apps.insert(m_options.app).second) {
            error = "application " + std::to_string(m_options.app) +
                    " is already used by another sensoripcsrc of this process; give each element its own app";
            return false;
        }
        m_appClaimed = true;
    }
    const uint32_t bit = 1u << m_options.sensor;
    std::lock_guard<std::mutex> lock(m_callMutex);
    if (m_options.legacy) {
        auto mask = static_cast<unsigned short>(bit);
        const int32_t r = m_legacy.Init(mask, m_options.raw);
        if (r != RESULT_OK) {
            error = failure("Init", r);
            return false;
        }
        m_initialised = true;
        if ((mask & bit) == 0) {
            error = "sensor " + std::to_string(m_options.sensor) + " is not present";
            return false;
        }
    } else {
        unsigned int mask = bit;
        const int32_t r = m_current.init(mask, m_options.frameTimeoutMs, nullptr);
        if (r != RESULT_OK) {
            error = failure("init", r);
            return false;
        }
        m_initialised = true;
        if ((mask & bit) == 0) {
            error = "sensor " + std::to_string(m_options.sensor) + " is not present or has no stream";
            return false;
        }
    }
    return true;
}

void FrameSession::beginStart() {
    m_starter = std::thread([this] {
        const int32_t r = m_options.legacy ? m_legacy.Start() : m_current.start();
        std::lock_guard<std::mutex> lock(m_startMutex);
        m_startResult = r;
        m_startDone = true;
        m_startCv.notify_all();
    });
}

FrameSession::StartState FrameSession::waitStarted(std::chrono::milliseconds limit, std::string& error) {
    std::unique_lock<std::mutex> lock(m_startMutex);
    if (!m_startCv.wait_for(lock, limit, [this] { return m_startDone; })) return StartState::Pending;
    if (m_cancelled) {
        error = "the start was cancelled";
        return StartState::Failed;
    }
    if (m_startResult != RESULT_OK) {
        error = failure(m_options.legacy ? "Start" : "start", m_startResult);
        return StartState::Failed;
    }
    return StartState::Connected;
}

void FrameSession::cancelStart() {
    if (!m_starter.joinable()) return;
    bool waiting = false;
    {
        std::lock_guard<std::mutex> lock(m_startMutex);
        waiting = !m_startDone;
        if (waiting) m_cancelled = true;
    }
    if (waiting) {
        if (m_options.legacy) {
            m_legacy.DeInit();
        } else {
            m_current.deInit();
        }
        m_initialised = false;
    }
    m_starter.join();
}

GetResult FrameSession::get(Frame& frame, int32_t& result) {
    std::lock_guard<std::mutex> lock(m_callMutex);
    drainLocked();
    frame = Frame{};
    frame.legacy = m_options.legacy;
    if (m_options.legacy) {
        result = m_legacy.GetFrame(static_cast<SensorName>(m_options.sensor), &frame.legacyRecord);
        frame.counter = frame.legacyRecord.frameCnt;
        frame.exposureUs = frame.legacyRecord.infoA;
        frame.image = m_options.raw ? frame.legacyRecord.rawBufObj : frame.legacyRecord.bufObj;
    } else {
        result = m_current.getFrame(static_cast<SensorType>(m_options.sensor), frame.currentRecord, false);
        frame.counter = frame.currentRecord.frameCnt;
        frame.exposureUs = frame.currentRecord.infoA;
        frame.image = frame.currentRecord.bufObj;
    }
    if (result == RESULT_OK) return GetResult::Frame;
    if (result == RESULT_STREAM_CODE_9) return GetResult::NoFrame;
    if (result == RESULT_FAILED && m_options.legacy) return GetResult::PairFailed;
    return GetResult::Error;
}

void FrameSession::release(const Frame& frame) {
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_deferred.push_back(frame);
    }
    // Whoever holds the call lock drains the queue: the get in progress does after it returns.
    std::unique_lock<std::mutex> lock(m_callMutex, std::try_to_lock);
    if (lock.owns_lock()) drainLocked();
}

size_t FrameSession::deferredReleases() {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    return m_deferred.size();
}

void FrameSession::flushReleases() {
    std::lock_guard<std::mutex> lock(m_callMutex);
    drainLocked();
}

void FrameSession::releaseLocked(const Frame& frame) {
    if (frame.legacy) {
        m_legacy.ReleaseFrame(&frame.legacyRecord);
    } else {
        m_current.releaseFrame(frame.currentRecord);
    }
}

void FrameSession::drainLocked() {
    std::vector<Frame> frames;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        frames.swap(m_deferred);
    }
    for (const Frame& f : frames) releaseLocked(f);
}

void FrameSession::shutdown() {
    cancelStart();
    {
        std::lock_guard<std::mutex> lock(m_callMutex);
        drainLocked();
        if (m_initialised) {
            if (m_options.legacy) {
                m_legacy.Stop();
                m_legacy.DeInit();
            } else {
                m_current.stop();
                m_current.deInit();
            }
            m_initialised = false;
        }
    }
    if (m_appClaimed) {
        std::lock_guard<std::mutex> lock(g_appsMutex);
        g_apps.erase(m_options.app);
        m_appClaimed = false;
    }
}

}  // namespace sensoripc
