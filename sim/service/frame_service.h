// How sensor-simd hands frames to its consumers: through each connection's control page, where the
// producer that delivers a frame answers a waiting get itself, and through the socket, where the event
// loop answers a get that had to wait once a producer says its frame is there (or its time is up).
#ifndef SENSOR_SIMD_FRAME_SERVICE_H
#define SENSOR_SIMD_FRAME_SERVICE_H

#include <atomic>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "connection.h"

namespace sensor_simd {

class FrameService {
public:
    // `wakeFd`: an eventfd the event loop watches; written when a socket get may be answered.
    explicit FrameService(int wakeFd) : m_wakeFd(wakeFd) {}
    // Hooks the stream model's producers (delivery and release collection); uninstall() unhooks them.
    void install();
    void uninstall();

    // Loop thread. Each answers the request on the connection; false ends the connection.
    bool openPage(Connection& c);
    bool mapBuffer(Connection& c, uint64_t bufferId);
    bool getFrame(Connection& c, uint32_t stream, uint32_t output, bool noWait);
    // The consumer tore its stream down: its gets waiting on the socket or a page are answered now.
    void tornDown(uint64_t consumer, const std::vector<Connection*>& connections);
    // Before a connection goes: it leaves the producers' reach, its releases applied.
    void forget(Connection& c);
    // Releases queued on the pages of a consumer (0: every consumer) applied: before its next request,
    // and before the service reports who holds what.
    void drainPages(uint64_t consumer);
    // Answers socket gets whose frame came or whose time is up; the earliest deadline left.
    Clock::time_point serveWaiting(Clock::time_point now);
    // The service stops: clients waiting on their pages return at once.
    void closePages();

private:
    // Producer threads.
    void delivered(uint32_t stream, uint32_t output);
    void collectReleases();
    // Under c.pageMutex.
    void drain(Connection& c);
    void offerPage(Connection& c, uint32_t stream, uint32_t output);
    void answerPage(Connection& c, uint32_t stream, uint32_t output, int result,
                    const sensor_sim::streams::FrameSpec& frame);
    void refreshAvailable(Connection& c, uint32_t stream, uint32_t output);
    // Loop thread: a Frame answer, preceded by the buffer's description the first time.
    bool sendFrame(Connection& c, int result, const sensor_sim::streams::FrameSpec& frame);
    bool answerPending(Connection& c);
    template <typename F>
    void forEachPage(F f) {
        std::shared_lock<std::shared_mutex> links(m_linksMutex);
        for (Connection* c : m_linked) {
            std::lock_guard<std::mutex> lock(c->pageMutex);
            f(*c);
        }
    }

    int m_wakeFd;
    std::shared_mutex m_linksMutex;     // producers hold it shared
    std::vector<Connection*> m_linked;  // connections with a control page
    std::vector<Connection*> m_waiting;  // loop thread: socket gets that wait
    // How many wait, for the producers: without any, a delivery wakes nobody but the page's client.
    std::atomic<size_t> m_waitingCount{0};
    std::mutex m_deliveredMutex;
    std::set<std::pair<uint32_t, uint32_t>> m_delivered;  // outputs delivered since the loop last looked
};

}  // namespace sensor_simd

#endif  // SENSOR_SIMD_FRAME_SERVICE_H
