// sensorctl's sessions over the consumer library's: a start bounded by the connect time-out, Ctrl-C or
// the end of the run, and its outcome as the tool's errors.
#include "sessions.h"

#include <fmt/format.h>

#include <algorithm>

#include "errors.h"
#include "interrupt.h"
#include "names.h"

namespace sensorctl {

using vexa::cameraipcclient::AppType;
using vexa::cameraipcclient::SensorName;
using vexa::cameraipcclient::SensorType;

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

std::vector<uint32_t> StreamSession::open(const std::vector<uint32_t>& wanted, bool raw, uint32_t frameTimeoutMs) {
    sensor_consumer::SessionOptions options;
    options.app = m_app;
    options.api = m_api;
    options.raw = raw;
    options.frameTimeoutMs = frameTimeoutMs;
    m_session = std::make_unique<sensor_consumer::Session>(options);
    return m_session->open(wanted);
}

void StreamSession::start(Millis limit, const std::atomic<bool>* cancel) {
    const char* call = m_api == sensor_consumer::Api::Legacy ? "Start" : "start";
    bool stopped = false;
    const auto outcome = m_session->start(limit, [&] {
        stopped = interrupted();
        return stopped || (cancel != nullptr && cancel->load());
    });
    switch (outcome) {
        case sensor_consumer::Session::StartOutcome::Connected:
            return;
        case sensor_consumer::Session::StartOutcome::TimedOut:
            throw TimeoutError(
                fmt::format("{}: the stream connection was not made within {} ms", call, limit.count()));
        case sensor_consumer::Session::StartOutcome::Stopped:
            if (stopped) throw InterruptedError();
            throw TimeoutError(fmt::format("{}: the run ended before the stream connection was made", call));
    }
}

std::vector<uint32_t> CameraSession::init(const std::vector<uint32_t>& wanted, bool raw) {
    return open(wanted, raw, 0);
}

int32_t CameraSession::get(uint32_t sensorId, vexa::cameraipcclient::BufFrameObj& frame) {
    return client().GetFrame(static_cast<SensorName>(sensorId), &frame);
}

int32_t CameraSession::release(const vexa::cameraipcclient::BufFrameObj& frame) {
    return client().ReleaseFrame(&frame);
}

std::vector<uint32_t> SensorSession::init(const std::vector<uint32_t>& wanted, uint32_t frameTimeoutMs) {
    return open(wanted, false, frameTimeoutMs);
}

int32_t SensorSession::get(uint32_t sensorId, vexa::cameraipcclient::FrameBufObj& frame, bool toCpu) {
    return m_session->currentClient().getFrame(static_cast<SensorType>(sensorId), frame, toCpu);
}

int32_t SensorSession::release(const vexa::cameraipcclient::FrameBufObj& frame) {
    return m_session->currentClient().releaseFrame(frame);
}

}  // namespace sensorctl
