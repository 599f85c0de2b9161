// The messages between sensor-simd and the processes attached to it, and a framed Unix-socket channel
// that carries them (with file descriptors for shared-memory buffers). docs/simulator.md describes it.
//
// A message is an 8-byte header (u32 body length, u16 type, u16 word count) and a body of that many
// little-endian 64-bit words followed by a tail of bytes. Each type has a fixed word count and a
// maximum tail; anything else is malformed, and a malformed message ends the connection that sent it.
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

#include "sensor_sim/buffers.h"
#include "sensor_sim/service.h"
#include "sensor_sim/stats.h"
#include "sensor_sim/streams.h"

namespace sensor_sim {
namespace wire {

constexpr uint32_t kVersion = 3;
constexpr size_t kHeaderBytes = 8;
constexpr size_t kMaxWords = 32;
constexpr size_t kMaxBody = 96 * 1024;  // a statistics answer (64 KiB of cells) is the largest

enum class Type : uint16_t {
    // Requests
    Hello = 1,     // version, pid
    Attach,        // consumer id: another connection of the same consumer (same process)
    InitConsumer,  // param; tail: app name, 0, channel name
    RegStream,     // stream id, has callback, config count; tail: configs (see encodeConfigs)
    InitDone,      //
    GetState,      //
    Deinit,        //
    GetFrame,      // stream id, output, no wait (1: answer at once, even without a frame)
    Release,       // stream id, output, object index, counter
    Camera,        // call, id, a, b, len; tail: bytes written by writeSensorI2C
    Stats,         // sensor id, frame id
    ServiceState,  //
    // Answers
    Welcome,             // version
    Status,              // status, value (the consumer id after InitConsumer)
    Buffer,              // buffer id, size, plane count, layout, sw cache, 3 x 9 plane fields; one fd
    Frame,               // status, counter, object index, sensor id, trailing, buffer id, words A..I
    CameraAnswer,        // status, v0..v5; tail: bytes of the call's vector output
    StatsAnswer,         // status, brightness bits; tail: 32 descriptor words (u32) and the cells
    ServiceStateAnswer,  // consumer count, output count; tail: records (see encodeState)
    // Requests and answer of the control page (see ControlPage)
    OpenPage,   // (after InitConsumer or Attach)
    MapBuffer,  // buffer id of a frame answered through the page: Buffer with its fd, then Status
    Page,       // page bytes; one fd
    Count
};

// The camera-access calls a Camera request names.
enum class CameraCall : uint64_t {
    DetectAll,
    LinkAndVideo,
    Info,
    Versions,
    TypeInfo,
    ReadReg8,
    WriteReg8,
    ReadReg16,
    WriteReg16,
    ReadI2c,
    WriteI2c,
    SetFsyncDelta,
    FsyncFirstTime,
    RadarInner,
    LidarInner,
    Lev2Faults,
    Count
};

// Statuses of the service's own refusals (beside the stream model's).
constexpr int kChannelBusy = 7;  // another connected process holds this application or channel

struct Message {
    Type type = Type::Status;
    std::array<uint64_t, kMaxWords> words{};
    std::string tail;
};

enum class Decoded { Complete, Incomplete, Malformed };

// Reads one message from the front of `data`. Complete: `out` filled and `*used` set to its length;
// Incomplete: more bytes are needed (nothing is filled); Malformed: the bytes can never form a message.
// Pure: no state, no system calls, so a fuzz target can feed it anything.
Decoded decode(const uint8_t* data, size_t size, Message* out, size_t* used);
// The message's bytes, header included.
std::vector<uint8_t> encode(const Message& message);
// Words a message of this type carries.
size_t wordCount(Type type);

// Stream registrations: per config a u32 name length, five u32 fields, then the name.
std::string encodeConfigs(const std::vector<streams::Config>& configs);
// False for a tail that is not exactly `count` configs with names of 1 to 255 bytes.
bool decodeConfigs(const std::string& tail, uint64_t count, std::vector<streams::Config>* out);

// InitConsumer's names; false unless the tail is "app\0channel", both 1 to 255 bytes without NUL.
bool decodeNames(const std::string& tail, std::string* app, std::string* channel);

// Buffer messages describe a shared-memory buffer well enough to rebuild its geometry on the other side.
Message describeBuffer(uint64_t id, const Buffer& buffer);
// The spec of a Buffer message; false for geometry that is out of range (no planes, more than three, a
// size that does not match what the geometry needs).
bool bufferSpecOf(const Message& message, BufferSpec* spec);

// What sensorctl service prints.
using ConsumerState = service::ConsumerState;
using OutputState = service::OutputState;
using ServiceState = service::State;
Message encodeState(const ServiceState& state);
bool decodeState(const Message& message, ServiceState* out);

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
    uint64_t answer[15];  // the words of a Frame message
    std::atomic<uint8_t> available[kPageStreams * 2];
    alignas(64) std::atomic<uint32_t> releaseHead;  // written by the client: releases queued
    alignas(64) std::atomic<uint32_t> releaseTail;  // written by the service: releases taken
    uint64_t releases[kReleaseSlots][4];            // stream id, output, object index, counter
};
static_assert(sizeof(ControlPage) <= kPageBytes, "the control page fits one page");
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<uint8_t>::is_always_lock_free,
              "atomics in shared memory must not need a lock");

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

// --- The channel -----------------------------------------------------------------------------------

// One end of a connected Unix stream socket: whole messages out, whole messages in, every wait bounded
// by a deadline. Not thread-safe; one thread uses a channel at a time.
class Channel {
public:
    using Clock = std::chrono::steady_clock;
    explicit Channel(int fd) : m_fd(fd) {}
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    int fd() const { return m_fd; }
    // Sends without a deadline of their own give up after this long (a peer that stopped reading).
    void setSendBound(std::chrono::milliseconds bound) { m_sendBound = bound; }
    // False when the peer is gone or the message could not be written whole before the deadline.
    bool send(const Message& message, int passFd = -1, Clock::time_point deadline = Clock::time_point::max());
    // Received, Closed (peer gone, or a malformed message), or TimedOut.
    enum class Result { Received, Closed, TimedOut };
    Result receive(Message* out, Clock::time_point deadline = Clock::time_point::max());
    // The oldest descriptor received and not yet taken, or -1. The caller owns it.
    int takeFd();

private:
    int m_fd;
    std::chrono::milliseconds m_sendBound{0};  // 0: none
    std::vector<uint8_t> m_in;
    std::deque<int> m_fds;
};

// Connects to the socket at `path`; -1 with `error` set when nobody answers there.
int connectTo(const std::string& path, std::string* error);


}  // namespace wire
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_WIRE_H
