// sensorctl's stream sessions: the consumer library's sessions over the two facades, with starts bounded
// by --connect-timeout and Ctrl-C and mapped to the tool's errors, and the choice of sensors by API.
#ifndef SENSORCTL_SESSIONS_H
#define SENSORCTL_SESSIONS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "sensor_consumer/session.h"

namespace sensorctl {

using Millis = std::chrono::milliseconds;
using sensor_consumer::steadyUs;

// The sensors a command streams from: cameras for the legacy facade, radars and lidars for the current one.
struct Selection {
    std::vector<uint32_t> cameras;
    std::vector<uint32_t> others;
};
// The given sensors split by API (throws UsageError for one the chosen APIs do not serve), or without
// any given, every present sensor that they serve (presence asked through the current facade of probeApp).
Selection selectSensors(const std::vector<uint32_t>& given, bool sensorsGiven, bool legacy, bool current,
                        uint32_t probeApp);

// `present`, after adding to `absent` the wanted sensors that it lacks.
std::vector<uint32_t> keepPresent(const std::vector<uint32_t>& wanted, const std::vector<uint32_t>& present,
                                  std::vector<uint32_t>& absent);

// One application's session (registered by init, torn down by the destructor).
class StreamSession {
public:
    StreamSession(uint32_t app, sensor_consumer::Api api) : m_app(app), m_api(api) {}
    // Waits for the connection at most `limit`, or until `cancel` turns true; throws TimeoutError,
    // InterruptedError or, for a failed connection, sensor_consumer::Error.
    void start(Millis limit, const std::atomic<bool>* cancel = nullptr);

protected:
    std::vector<uint32_t> open(const std::vector<uint32_t>& wanted, bool raw, uint32_t frameTimeoutMs);
    std::unique_ptr<sensor_consumer::Session> m_session;

private:
    uint32_t m_app;
    sensor_consumer::Api m_api;
};

// Cameras 0 to 11 through the legacy facade.
class CameraSession : public StreamSession {
public:
    explicit CameraSession(uint32_t app) : StreamSession(app, sensor_consumer::Api::Legacy) {}
    // Registers the wanted cameras; returns those the service reports present among them.
    std::vector<uint32_t> init(const std::vector<uint32_t>& wanted, bool raw);
    // The facade's answer, unchanged (0, -7 for "no frame yet", -1 for a failed raw pairing...).
    int32_t get(uint32_t sensorId, vexa::cameraipcclient::BufFrameObj& frame);
    int32_t release(const vexa::cameraipcclient::BufFrameObj& frame);
    bool raw() const { return m_session && m_session->options().raw; }
    vexa::cameraipcclient::CCameraIpcClient& client() { return m_session->legacyClient(); }
};

// Radars and lidars through the current facade.
class SensorSession : public StreamSession {
public:
    explicit SensorSession(uint32_t app) : StreamSession(app, sensor_consumer::Api::Current) {}
    // Registers the wanted sensors with the stream library's frame time-out; returns those present and
    // registered among them.
    std::vector<uint32_t> init(const std::vector<uint32_t>& wanted, uint32_t frameTimeoutMs);
    int32_t get(uint32_t sensorId, vexa::cameraipcclient::FrameBufObj& frame, bool toCpu);
    int32_t release(const vexa::cameraipcclient::FrameBufObj& frame);
};

}  // namespace sensorctl

#endif  // SENSORCTL_SESSIONS_H
