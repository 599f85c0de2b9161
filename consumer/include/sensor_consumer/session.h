// One application's stream session over either facade: registration of its sensors, a start whose
// blocking wait runs on a helper thread (bounded, cancellable), frame get with raw pairing or a CPU copy,
// release from any thread, and a tear-down that returns every frame before the client is de-initialised.
#ifndef SENSOR_CONSUMER_SESSION_H
#define SENSOR_CONSUMER_SESSION_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "sensor_consumer/names.h"
#include "sensor_ipc_client.h"

namespace sensor_consumer {

using Millis = std::chrono::milliseconds;

// Microseconds of the steady clock, for latencies and rates.
uint64_t steadyUs();

// A frame taken from the library; held until the session releases it.
struct Frame {
    Api api = Api::Legacy;
    uint32_t sensor = 0;
    uint32_t counter = 0;
    uint64_t exposureUs = 0;   // the stream's word A: nominal exposure time (steady clock), 0 when unknown
    uint64_t timestampMs = 0;  // wall clock at the get
    NvSciBufObj image = nullptr;     // the processed image (radars and lidars: their only one)
    NvSciBufObj rawImage = nullptr;  // the paired raw image of cameras 2 and 3, else null
    const uint8_t* cpuData = nullptr;  // the library's CPU copy (current API, asked at the get)
    uint32_t cpuDataSize = 0;
    vexa::cameraipcclient::BufFrameObj legacyRecord{};
    vexa::cameraipcclient::FrameBufObj currentRecord{};
};

enum class GetStatus {
    Frame,       // a frame is held
    NoFrame,     // none within the stream's frame time-out
    PairFailed,  // legacy, raw pairing on: no raw frame of the same exposure (the library returned it)
    CopyFailed,  // current, CPU copy asked: the copy failed (the library returned the frame)
    Error,       // any other refusal: the result says which
};

struct SessionOptions {
    uint32_t app = 0;
    Api api = Api::Legacy;
    bool raw = false;               // legacy: pair the raw frames of cameras 2 and 3
    uint32_t frameTimeoutMs = 100;  // current: how long one get waits (the legacy API has its own)
};

class Session {
public:
    explicit Session(const SessionOptions& options);
    // Tears down whatever is still up (see close()).
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Registers the application and the wanted sensors' streams; returns the present ones among them.
    // Throws Error when the library refuses, and when another session of this process already uses the
    // application (the library's calls on one application must not overlap).
    std::vector<uint32_t> open(const std::vector<uint32_t>& sensors);

    // Starts the connection on a helper thread (the library's start blocks until it is decided).
    void beginStart();
    enum class StartState { Pending, Connected, Failed, Cancelled };
    // Waits at most `limit`; on Failed, `result` is the library's answer.
    StartState waitStarted(Millis limit, int32_t* result = nullptr);
    // Ends a start still waiting (through the de-initialisation, which the library lets end it).
    void cancelStart();
    // beginStart(), then waits until connected, `limit` has passed or `stop` answers true (asked every
    // 20 ms); a start that ended otherwise is cancelled. Throws Error when the connection failed.
    enum class StartOutcome { Connected, TimedOut, Stopped };
    StartOutcome start(Millis limit, const std::function<bool()>& stop = {});

    // Takes the next frame of `sensor`; queued releases are made first. `toCpu`: the library's CPU copy
    // (current API). `result` is the library's answer.
    GetStatus get(uint32_t sensor, Frame& frame, int32_t& result, bool toCpu = false);
    // The brightness and ROI statistics of a held camera frame (legacy API) into `stats`, whose roiData
    // must hold 65536 bytes; the library's answer.
    int32_t roiStats(const Frame& frame, vexa::cameraipcclient::CameraFrameRoiStatsData& stats);
    // Returns a frame now, on the calling thread; the library's answer.
    int32_t release(const Frame& frame);
    // Returns a frame from any thread: at once when no other call runs, otherwise queued for the thread
    // that runs it (made after its call), so that it never waits for a get's time-out.
    void releaseLater(const Frame& frame);
    // Frames queued for release and not yet returned.
    size_t deferredReleases();
    // Makes the queued releases now, waiting for a running call.
    void flushReleases();
    // Ends a waiting start, makes the queued releases, then stops and de-initialises the client.
    void close();

    const SessionOptions& options() const { return m_options; }
    bool opened() const { return m_initialised; }
    // The facades, for calls the session does not wrap (dumps, statistics); not while a get runs.
    vexa::cameraipcclient::CCameraIpcClient& legacyClient() { return m_legacy; }
    vexa::sensor_access::SensorIpcClient& currentClient() { return m_current; }

private:
    int32_t releaseLocked(const Frame& frame);
    void drainLocked();

    SessionOptions m_options;
    vexa::cameraipcclient::CCameraIpcClient m_legacy;
    vexa::sensor_access::SensorIpcClient m_current;
    std::mutex m_callMutex;  // one library call at a time
    std::mutex m_queueMutex;
    std::vector<Frame> m_deferred;
    std::atomic<bool> m_anyDeferred{false};  // lets a get skip the queue's lock when it is empty
    std::vector<Frame> m_draining;           // under the call lock
    std::mutex m_startMutex;
    std::condition_variable m_startCv;
    std::thread m_starter;
    bool m_startDone = false;
    int32_t m_startResult = 0;
    bool m_cancelled = false;
    bool m_initialised = false;
    bool m_started = false;
    bool m_appClaimed = false;
};

}  // namespace sensor_consumer

#endif  // SENSOR_CONSUMER_SESSION_H
