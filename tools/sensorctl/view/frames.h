// The view's frame taking: one thread per facade takes every frame of its sensors at the stream's rate
// and keeps only the latest one of each sensor held (the previous one goes back at once), with the
// sensor's counters and its latest brightness statistics. Pictures are made from the held frame by
// other threads through withLatest(), which never makes the taking thread wait.
#ifndef SENSORCTL_VIEW_FRAMES_H
#define SENSORCTL_VIEW_FRAMES_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sensor_consumer/counters.h"
#include "sensor_consumer/geometry.h"
#include "sensor_consumer/session.h"

namespace sensorctl::view {

// A frame as the picture makers see it: its layouts and mapped planes, while the frame is held.
struct HeldView {
    uint32_t sensor = 0;
    uint32_t counter = 0;
    uint64_t sequence = 0;  // grows by one per frame kept for the view
    const sensor_consumer::MappedLayout* image = nullptr;
    const sensor_consumer::MappedLayout* raw = nullptr;  // cameras 2 and 3 with pairing, else null
};

struct Brightness {
    bool valid = false;
    float value = 0;
    uint32_t roiCount = 0;
    uint32_t roiCellCount = 0;
    uint32_t frameId = 0;
};

struct SensorFigures {
    uint32_t id = 0;
    sensor_consumer::FrameCounters counters;
    Brightness brightness;
    uint32_t width = 0;
    uint32_t height = 0;
    std::string format;
    std::string lastError;  // a frame that could not be described
};

// One sensor's slot: the held frame and what was counted of the sensor.
struct Slot;

// The frame-taking threads of one facade's session.
class FrameTaker {
public:
    // `session` is opened (its sensors registered) but not started; it must outlive the taker.
    FrameTaker(sensor_consumer::Session& session, std::vector<uint32_t> sensors);
    ~FrameTaker();
    FrameTaker(const FrameTaker&) = delete;
    FrameTaker& operator=(const FrameTaker&) = delete;

    // Starts the session on the taking thread (bounded by `connect` and by `cancel`), then takes
    // frames until stop(). A failed start ends the thread; failure() then says why.
    void begin(std::chrono::milliseconds connect, std::function<bool()> cancel);
    // Ends the taking thread, returns the held frames.
    void stop();

    bool serves(uint32_t sensor) const;
    // Calls `use` with the latest held frame of `sensor` while it stays held, and returns true; false
    // when there is none yet. The frame-taking thread never waits for `use`: a frame that arrives
    // meanwhile goes back at once, and the next one takes its place.
    bool withLatest(uint32_t sensor, const std::function<void(const HeldView&)>& use);
    // The latest kept frame's sequence number (0 before the first), so that a picture is made again
    // only for a newer frame.
    uint64_t latestSequence(uint32_t sensor) const;
    SensorFigures figures(uint32_t sensor) const;
    // Mean time a frame stayed held for the view, in microseconds.
    double meanHoldUs(uint32_t sensor) const;
    std::string failure() const;
    // The failure was a connection that did not come in time.
    bool timedOut() const { return m_timedOut.load(); }
    bool running() const { return m_running.load(); }

private:
    void run(std::chrono::milliseconds connect, const std::function<bool()>& cancel);
    void takeOne(Slot& slot);
    void releaseHeld(Slot& slot);

    sensor_consumer::Session& m_session;
    sensor_consumer::LayoutCache m_layouts;
    std::vector<std::unique_ptr<Slot>> m_slots;
    std::vector<uint8_t> m_roiData;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_timedOut{false};
    std::thread m_thread;
    mutable std::mutex m_failureMutex;
    std::string m_failure;
};

}  // namespace sensorctl::view

#endif  // SENSORCTL_VIEW_FRAMES_H
