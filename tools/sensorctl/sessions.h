// Stream sessions over the two facades: initialisation, a start with a time limit, and a tear-down that
// always runs (stop, then de-initialisation), so that no command leaves a client registered.
#ifndef SENSORCTL_SESSIONS_H
#define SENSORCTL_SESSIONS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "camera_ipc_client.h"
#include "sensor_ipc_client.h"

namespace sensorctl {

using Millis = std::chrono::milliseconds;

// Microseconds of the steady clock, for latencies and rates.
uint64_t steadyUs();

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

// Cameras 0 to 11 through the legacy facade.
class CameraSession {
public:
    explicit CameraSession(uint32_t app);
    ~CameraSession();
    CameraSession(const CameraSession&) = delete;
    CameraSession& operator=(const CameraSession&) = delete;

    // Registers the wanted cameras; returns those the service reports present among them.
    std::vector<uint32_t> init(const std::vector<uint32_t>& wanted, bool raw);
    // Waits for the connection at most `limit`, or until `cancel` turns true; throws TimeoutError,
    // InterruptedError or LibraryError.
    void start(Millis limit, const std::atomic<bool>* cancel = nullptr);
    // The facade's answer, unchanged (0, -7 for "no frame yet", -1 for a failed raw pairing...).
    int32_t get(uint32_t sensorId, vexa::cameraipcclient::BufFrameObj& frame);
    int32_t release(const vexa::cameraipcclient::BufFrameObj& frame);
    bool raw() const { return m_raw; }
    vexa::cameraipcclient::CCameraIpcClient& client() { return m_client; }

private:
    vexa::cameraipcclient::CCameraIpcClient m_client;
    bool m_initialised = false;
    bool m_started = false;
    bool m_raw = false;
};

// Radars and lidars through the current facade.
class SensorSession {
public:
    explicit SensorSession(uint32_t app);
    ~SensorSession();
    SensorSession(const SensorSession&) = delete;
    SensorSession& operator=(const SensorSession&) = delete;

    // Registers the wanted sensors with the stream library's frame time-out; returns those present and
    // registered among them.
    std::vector<uint32_t> init(const std::vector<uint32_t>& wanted, uint32_t frameTimeoutMs);
    void start(Millis limit, const std::atomic<bool>* cancel = nullptr);
    int32_t get(uint32_t sensorId, vexa::cameraipcclient::FrameBufObj& frame, bool toCpu);
    int32_t release(const vexa::cameraipcclient::FrameBufObj& frame);

private:
    vexa::sensor_access::SensorIpcClient m_client;
    bool m_initialised = false;
    bool m_started = false;
};

}  // namespace sensorctl

#endif  // SENSORCTL_SESSIONS_H
