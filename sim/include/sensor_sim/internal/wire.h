// The transport between sensor-simd and the processes attached to it: the control page through which
// frames are got and released without a message, and the client's end of the socket that carries the
// messages of messages.h (with file descriptors for shared-memory buffers). docs/simulator.md describes it.
#ifndef SENSOR_SIM_INTERNAL_WIRE_H
#define SENSOR_SIM_INTERNAL_WIRE_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "sensor_sim/internal/messages.h"

namespace sensor_sim {
namespace wire {

// --- The control page ------------------------------------------------------------------------------

// A page of shared memory per consumer connection, made by the service (a sealed memfd that neither side
// can shrink) and mapped writable by both, through which a frame's get and release pass without a
// message: the client announces a get in the futex word `get`, and the producer that delivers the frame
// takes it for the client, writes its words into `answer` and wakes the client; releases go into a ring
// that the service drains before each frame takes a pool buffer. The service trusts nothing it reads
// here: it acts only on exact values of `get`, and a ring that is out of range ends the connection.
//
// `get` holds a phase in its low 4 bits and, while waiting, the output (bit 4) and stream id (bits 8-15):
//   Idle --client--> Waiting(stream, output) --service--> Claimed --service--> Answered --client--> Idle
//   Waiting --client--> Idle        (the client gives up: a frame waits already, or its time is up)
//   any --service--> Closed         (the service stops)
// `available[stream * 2 + output]` is 1 while frames of that output wait for this consumer: the client
// then takes one through the socket at once rather than wait for the next delivery. The client stores
// Waiting before it reads `available`, the service stores `available` before it reads `get` (both
// sequentially consistent), so a frame is never left waiting beside a waiting get.
constexpr uint32_t kPageStreams = 32;  // gets of higher stream ids always go through the socket
constexpr uint32_t kReleaseSlots = 64;
constexpr size_t kPageBytes = 4096;
constexpr size_t kPageAnswerBytes = 128;
enum PagePhase : uint32_t {
    kPageIdle = 0,
    kPageWaiting = 1,
    kPageClaimed = 2,
    kPageAnswered = 3,
    kPageClosed = 4
};
constexpr uint32_t pagePhase(uint32_t get) {
    return get & 0xF;
}
constexpr uint32_t pageWaiting(uint32_t streamId, uint32_t output) {
    return kPageWaiting | (output << 4) | (streamId << 8);
}
// The stream and output a Waiting word names.
constexpr uint32_t pageStream(uint32_t get) {
    return (get >> 8) & 0xFF;
}
constexpr uint32_t pageOutput(uint32_t get) {
    return (get >> 4) & 1;
}

struct ControlPage {
    std::atomic<uint32_t> get;
    uint32_t reserved;
    uint8_t answer[kPageAnswerBytes];  // a FrameAnswer's body
    std::atomic<uint8_t> available[kPageStreams * 2];
    alignas(64) std::atomic<uint32_t> releaseHead;  // written by the client: releases queued
    alignas(64) std::atomic<uint32_t> releaseTail;  // written by the service: releases taken
    uint64_t releases[kReleaseSlots][4];            // stream id, output, object index, counter
};
static_assert(sizeof(ControlPage) <= kPageBytes, "the control page fits one page");
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<uint8_t>::is_always_lock_free,
              "atomics in shared memory must not need a lock");

// A frame's answer written into the page, and read back from it; false for bytes that are no answer.
void putAnswer(ControlPage& page, const msg::FrameAnswer& answer);
bool takeAnswer(const ControlPage& page, msg::FrameAnswer* out);

// A mapping of a control page: made by the service, or mapped by a client from the descriptor it got.
class PageMapping {
public:
    // The service's: a new sealed memfd, mapped, zeroed. Null with `error` set when the system refuses.
    static std::unique_ptr<PageMapping> create(std::string* error);
    // The client's: maps `fd` (taken over, closed here) after checking its size.
    static std::unique_ptr<PageMapping> map(int fd, std::string* error);
    ~PageMapping();
    PageMapping(const PageMapping&) = delete;
    PageMapping& operator=(const PageMapping&) = delete;

    ControlPage& page() const { return *m_page; }
    int fd() const { return m_fd; }  // the service's descriptor to pass; -1 on a client

private:
    PageMapping(ControlPage* page, int fd) : m_page(page), m_fd(fd) {}
    ControlPage* m_page;
    int m_fd;
};

// Wakes a client that waits on the page's `get`.
void wakePage(ControlPage& page);
// Waits while `get` still holds `seen`, at most until `deadline` (spurious returns happen).
void waitPage(ControlPage& page, uint32_t seen, std::chrono::steady_clock::time_point deadline);

struct ReleaseEntry {
    uint32_t streamId;
    uint32_t output;
    uint16_t objIndex;
    uint64_t counter;
};
// The service's side of the ring: the releases queued after `*tail`, which moves past them (and is
// published back to the client). -1 when the ring is malformed: a head more than the ring ahead of the
// tail, or an entry out of range. Reads each entry once into `out`, so a client that writes meanwhile
// can only make its own releases wrong.
int takeReleases(ControlPage& page, uint32_t* tail, std::array<ReleaseEntry, kReleaseSlots>* out);
// The client's side: false when the ring is full (the release then goes as a message).
bool putRelease(ControlPage& page, const ReleaseEntry& entry);

// --- The client's channel -------------------------------------------------------------------------

// One end of a connected Unix stream socket: whole requests out, whole answers in, every wait bounded by a
// deadline. Not thread-safe; one thread uses a channel at a time.
class Channel {
public:
    using Clock = std::chrono::steady_clock;
    explicit Channel(int fd) : m_fd(fd) {}
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    int fd() const { return m_fd; }
    // False when the peer is gone or the request could not be written whole before the deadline.
    template <typename M>
    bool send(const M& request, Clock::time_point deadline) {
        return sendBytes(msg::Requests::encode(request), deadline);
    }
    // Received, Closed (peer gone, or a malformed answer), or TimedOut.
    enum class Result { Received, Closed, TimedOut };
    Result receive(msg::Answer* out, Clock::time_point deadline);
    // The oldest descriptor received with an answer that carries one, or -1. The caller owns it.
    int takeFd();

private:
    bool sendBytes(const std::vector<uint8_t>& bytes, Clock::time_point deadline);
    int m_fd;
    std::vector<uint8_t> m_in;
    std::deque<int> m_fds;
};

// One non-blocking sendmsg of `size` bytes with `passFd` beside them (none when negative): what sendmsg
// returns.
ssize_t sendWithFd(int fd, const uint8_t* data, size_t size, int passFd);
// One non-blocking recvmsg into `data`: what recvmsg returns; the descriptors that came are appended to
// `fds` (the caller owns them), and `*truncated` says whether some could not be taken (MSG_CTRUNC).
ssize_t receiveWithFds(int fd, uint8_t* data, size_t size, std::vector<int>* fds, bool* truncated);

// Connects to the socket at `path`; -1 with `error` set when nobody answers there.
int connectTo(const std::string& path, std::string* error);

}  // namespace wire
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_WIRE_H
