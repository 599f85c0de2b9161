// The example application's consumer: radar and lidar frames through the current API (with its own
// logger and CPU copies), camera frames with their raw frames through the legacy API.
#ifndef EXAMPLE_CONSUMER_H
#define EXAMPLE_CONSUMER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "camera_ipc_client.h"
#include "sensor_ipc_client.h"
#include "vexa_log.h"

namespace example {

// What the application saw of one sensor.
struct SensorCounters {
    uint64_t frames = 0;          // frames got, used and released
    uint64_t paired = 0;          // of those, camera frames that came with their raw frame
    uint64_t errors = 0;          // gets refused by the stream without a frame
    uint64_t timeouts = 0;        // no frame within the frame time-out
    uint64_t lostFrames = 0;      // frames the library already returned: failed CPU copy or raw pairing
    uint64_t releaseRetries = 0;  // releases refused once and retried
    uint64_t leaked = 0;          // frames still held after the retry (their buffer is lost to the pool)
    bool lost = false;            // the service no longer reports the sensor present
};

class Consumer {
public:
    // sensors: current-API sensors wanted (bit n = SensorType n); cameras: legacy cameras wanted.
    Consumer(uint32_t sensors, uint16_t cameras, std::shared_ptr<vexa::vexalog::Logger> logger);

    // Registers both applications; the first failing result code, or RESULT_OK.
    int32_t init();
    // Blocks until both streams are connected. False when a connection failed or requestStop() ended
    // the wait: start() itself reports success in that case, so the flag decides.
    bool start();
    // One frame of each wanted radar or lidar (current API) that is not lost; false once the
    // application is to stop. pollCameras() does the same for the cameras (legacy API). The two objects
    // are separate clients, so each may have a thread of its own; calls on one object never overlap.
    bool pollSensors();
    bool pollCameras();
    // From another thread (the one that handles signals): ends start() or the poll loop.
    void requestStop();
    // Stop and de-initialise both applications; on the thread that polled.
    void shutdown();

    const std::map<uint32_t, SensorCounters>& counters() const { return m_counters; }

private:
    void pollSensor(vexa::cameraipcclient::SensorType type);
    void pollCamera(vexa::cameraipcclient::SensorName name);
    void noteTimeout(uint32_t id, bool legacy);

    uint32_t m_sensors;
    uint16_t m_cameras;
    std::shared_ptr<vexa::vexalog::Logger> m_logger;
    vexa::sensor_access::SensorIpcClient m_current{vexa::cameraipcclient::APP_SENSOR_DEMO};
    vexa::cameraipcclient::CCameraIpcClient m_legacy{vexa::cameraipcclient::APP_CAMERA_DEMO};
    std::map<uint32_t, SensorCounters> m_counters;
    std::map<uint32_t, uint32_t> m_silentRounds;  // consecutive time-outs per sensor
    std::atomic<bool> m_stop{false};
    std::mutex m_phaseMutex;  // orders requestStop() against the end of start()
    bool m_starting = false;
};

}  // namespace example

#endif  // EXAMPLE_CONSUMER_H
