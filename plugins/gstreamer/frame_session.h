// One sensor's stream through either facade of the library: registration, a start whose blocking wait
// runs on a helper thread, frame get and release with every library call serialised, and a tear-down
// that returns every frame before the client is de-initialised.
#ifndef SENSORIPC_FRAME_SESSION_H
#define SENSORIPC_FRAME_SESSION_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera_ipc_client.h"
#include "sensor_ipc_client.h"

namespace sensoripc {

// A frame taken from the library, as the element hands it on.
struct Frame {
    uint64_t counter = 0;
    uint64_t exposureUs = 0;      // the stream's nominal exposure time (steady clock), 0 when unknown
    NvSciBufObj image = nullptr;  // the processed image, or the raw one for the raw output
    bool legacy = true;
    vexa::cameraipcclient::BufFrameObj legacyRecord{};
    vexa::cameraipcclient::FrameBufObj currentRecord{};
};

struct SessionOptions {
    uint32_t sensor = 0;
    uint32_t app = 0;
    bool legacy = true;
    bool raw = false;  // the raw frame of cameras 2 and 3, paired by the library
    uint32_t frameTimeoutMs = 100;
};

enum class GetResult { Frame, NoFrame, PairFailed, Error };

class FrameSession {
public:
    explicit FrameSession(const SessionOptions& options);
    // Tears down whatever is still up (see shutdown()).
    ~FrameSession();
    FrameSession(const FrameSession&) = delete;
    FrameSession& operator=(const FrameSession&) = delete;

    // Registers the application and the sensor's stream; false with a message when the library refuses
    // or the sensor is absent. Another session of the same application in this process is refused too:
    // the library's calls on one application must not overlap.
    bool init(std::string& error);
    // Starts the connection on a helper thread; the library's start blocks until it is decided.
    void beginStart();
    // Waits at most `limit` for the connection. Pending: still connecting; Failed: `error` says why.
    enum class StartState { Pending, Connected, Failed };
    StartState waitStarted(std::chrono::milliseconds limit, std::string& error);
    // Ends a start still waiting (through the de-initialisation, which the library lets end it).
    void cancelStart();

    // Takes the next frame; NoFrame when none came within the frame time-out. Releases deferred by
    // other threads are made first.
    GetResult get(Frame& frame, int32_t& result);
    // Returns a frame. Made at once when no other library call is running, otherwise queued for the
    // thread that runs it: a release from a downstream thread never waits for a get's time-out.
    void release(const Frame& frame);
    // Frames queued for release and not yet returned.
    size_t deferredReleases();
    // Makes the queued releases now, waiting for a running call.
    void flushReleases();
    // Ends a waiting start, makes the queued releases, then stops and de-initialises the client.
    void shutdown();

private:
    void releaseLocked(const Frame& frame);
    void drainLocked();

    SessionOptions m_options;
    vexa::cameraipcclient::CCameraIpcClient m_legacy;
    vexa::sensor_access::SensorIpcClient m_current;
    std::mutex m_callMutex;  // one library call at a time
    std::mutex m_queueMutex;
    std::vector<Frame> m_deferred;
    std::mutex m_startMutex;
    std::condition_variable m_startCv;
    std::thread m_starter;
    bool m_startDone = false;
    int32_t m_startResult = 0;
    bool m_cancelled = false;
    bool m_initialised = false;
    bool m_appClaimed = false;
};

}  // namespace sensoripc

#endif  // SENSORIPC_FRAME_SESSION_H
