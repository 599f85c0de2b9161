// The bounded start: the facade's start blocks until the stream connection is decided, with no limit of
// its own. It runs on a helper thread; when the limit passes or Ctrl-C comes, this thread calls the
// de-initialisation, which the library lets end a waiting start from another thread.
#include "sessions.h"

#include <fmt/format.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "errors.h"
#include "interrupt.h"
#include "names.h"

namespace sensorctl {
namespace {

using vexa::cameraipcclient::AppType;
using vexa::cameraipcclient::SensorName;
using vexa::cameraipcclient::SensorType;

template <typename StartFn, typename DeInitFn>
void startBounded(const char* call, StartFn start, DeInitFn deInit, Millis limit,
                  const std::atomic<bool>* cancel) {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    int32_t result = 0;
    std::thread starter([&] {
        const int32_t r = start();
        std::lock_guard<std::mutex> lock(mutex);
        result = r;
        done = true;
        cv.notify_one();
    });
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool timedOut = false;
    bool stopped = false;
    bool cancelled = false;
    {
        std::unique_lock<std::mutex> lock(mutex);
        // Checked every 20 ms while start waits: an interrupt, a cancel from another thread, the deadline.
        while (!cv.wait_for(lock, Millis(20), [&done] { return done; })) {
            if (interrupted()) {
                stopped = true;
                break;
            }
            if (cancel != nullptr && cancel->load()) {
                cancelled = true;
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                timedOut = true;
                break;
            }
        }
    }
    if (timedOut || stopped || cancelled) deInit();
    starter.join();
    if (stopped) throw InterruptedError();
    if (cancelled)
        throw TimeoutError(fmt::format("{}: the run ended before the stream connection was made", call));
    if (timedOut) {
        throw TimeoutError(
            fmt::format("{}: the stream connection was not made within {} ms", call, limit.count()));
    }
    checkResult(call, result);
}

uint32_t maskOf(const std::vector<uint32_t>& ids) {
    uint32_t mask = 0;
    for (uint32_t id : ids) mask |= 1u << id;
    return mask;
}

std::vector<uint32_t> presentAmong(const std::vector<uint32_t>& wanted, uint32_t mask) {
    std::vector<uint32_t> out;
    for (uint32_t id : wanted) {
        if (mask & (1u << id)) out.push_back(id);
    }
    return out;
}

}  // namespace

uint64_t steadyUs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

Selection selectSensors(const std::vector<uint32_t>& given, bool sensorsGiven, bool legacy, bool current,
                        uint32_t probeApp) {
    std::vector<uint32_t> ids = given;
    if (!sensorsGiven) {
        vexa::sensor_access::SensorIpcClient probe(static_cast<AppType>(probeApp));
        std::vector<vexa::cameraipcclient::SensorTypeInfo> types;
        checkResult("getAllSensorTypeInfo", probe.getAllSensorTypeInfo(types));
        for (uint32_t id = 0; id < kSensorCount && id < types.size(); ++id) {
            const bool served = (legacy && servedByLegacy(id)) || (current && servedByCurrent(id));
            if (types[id].present && served) ids.push_back(id);
        }
        if (ids.empty()) throw UsageError("no present sensor is served by the chosen API");
    }
    Selection selection;
    std::vector<uint32_t> refused;
    for (uint32_t id : ids) {
        if (legacy && servedByLegacy(id)) {
            selection.cameras.push_back(id);
        } else if (current && servedByCurrent(id)) {
            selection.others.push_back(id);
        } else {
            refused.push_back(id);
        }
    }
    if (!refused.empty()) {
        const char* api = legacy && current ? "both" : (legacy ? "legacy" : "current");
        throw UsageError(
            fmt::format("sensors {} have no stream through --api {} (legacy: cameras 0-11; current: "
                        "radars and lidars 12-14, 16-21)",
                        formatSensorList(refused), api));
    }
    return selection;
}

std::vector<uint32_t> keepPresent(const std::vector<uint32_t>& wanted, const std::vector<uint32_t>& present,
                                  std::vector<uint32_t>& absent) {
    for (uint32_t id : wanted) {
        if (std::find(present.begin(), present.end(), id) == present.end()) absent.push_back(id);
    }
    return present;
}

CameraSession::CameraSession(uint32_t app) : m_client(static_cast<AppType>(app)) {}

CameraSession::~CameraSession() {
    if (m_started) m_client.Stop();
    if (m_initialised) m_client.DeInit();
}

std::vector<uint32_t> CameraSession::init(const std::vector<uint32_t>& wanted, bool raw) {
    auto mask = static_cast<unsigned short>(maskOf(wanted));
    checkResult("Init", m_client.Init(mask, raw));
    m_initialised = true;
    m_raw = raw;
    return presentAmong(wanted, mask);
}

void CameraSession::start(Millis limit, const std::atomic<bool>* cancel) {
    startBounded(
        "Start", [this] { return m_client.Start(); }, [this] { m_client.DeInit(); }, limit, cancel);
    m_started = true;
}

int32_t CameraSession::get(uint32_t sensorId, vexa::cameraipcclient::BufFrameObj& frame) {
    return m_client.GetFrame(static_cast<SensorName>(sensorId), &frame);
}

int32_t CameraSession::release(const vexa::cameraipcclient::BufFrameObj& frame) {
    return m_client.ReleaseFrame(&frame);
}

SensorSession::SensorSession(uint32_t app) : m_client(static_cast<AppType>(app)) {}

SensorSession::~SensorSession() {
    if (m_started) m_client.stop();
    if (m_initialised) m_client.deInit();
}

std::vector<uint32_t> SensorSession::init(const std::vector<uint32_t>& wanted, uint32_t frameTimeoutMs) {
    unsigned int mask = maskOf(wanted);
    checkResult("init", m_client.init(mask, frameTimeoutMs, nullptr));
    m_initialised = true;
    return presentAmong(wanted, mask);
}

void SensorSession::start(Millis limit, const std::atomic<bool>* cancel) {
    startBounded(
        "start", [this] { return m_client.start(); }, [this] { m_client.deInit(); }, limit, cancel);
    m_started = true;
}

int32_t SensorSession::get(uint32_t sensorId, vexa::cameraipcclient::FrameBufObj& frame, bool toCpu) {
    return m_client.getFrame(static_cast<SensorType>(sensorId), frame, toCpu);
}

int32_t SensorSession::release(const vexa::cameraipcclient::FrameBufObj& frame) {
    return m_client.releaseFrame(frame);
}

}  // namespace sensorctl
