// One client connection of sensor-simd: bytes in and whole requests out, answers queued and written
// without ever blocking the service, and what the connection holds (its consumer, its control page).
#ifndef SENSOR_SIMD_CONNECTION_H
#define SENSOR_SIMD_CONNECTION_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "sensor_sim/internal/messages.h"
#include "sensor_sim/internal/vehicle.h"
#include "sensor_sim/internal/wire.h"

namespace sensor_simd {

using Clock = std::chrono::steady_clock;
struct ConsumerRecord;

class Connection {
public:
    // Answers a client has not read yet, beyond which it is taken for one that stopped reading.
    static constexpr size_t kMaxQueuedBytes = 1 << 20;

    Connection(int fd, uint64_t pid, Clock::time_point deadline) : handshakeDeadline(deadline), m_fd(fd), m_pid(pid) {}
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int fd() const { return m_fd; }
    uint64_t pid() const { return m_pid; }

    enum class Read { Ok, Closed, Broken };
    // Reads what the socket holds now. Broken: the client passed descriptors (no request carries one);
    // every descriptor that came is closed at once.
    Read readSome();
    // The next whole request: Request, None (more bytes needed) or Broken (bytes no honest client sends:
    // an unknown type, an oversized or malformed message).
    enum class Next { Request, None, Broken };
    Next next(sensor_sim::msg::Request* out);

    // Queues an answer (with a descriptor to pass, which the caller keeps) and writes what the socket
    // takes now. False when the connection must end: peer gone, a client that stopped reading, or no
    // descriptor left to keep the passed one until it can be written.
    template <typename M>
    bool send(const M& answer, int passFd = -1) {
        return queue(sensor_sim::msg::Answers::encode(answer), passFd);
    }
    // Writes queued answers; false when the peer is gone.
    bool flush();
    bool wantsWrite() const { return !m_out.empty(); }
    bool writeWatched = false;  // the event loop watches for room to write

    // The handshake, and the consumer this connection serves (0: none yet).
    bool greeted = false;
    Clock::time_point handshakeDeadline;
    uint64_t consumer = 0;
    bool owner = false;  // this connection made the consumer: its end ends the consumer
    ConsumerRecord* record = nullptr;
    std::set<uint64_t> sent;  // buffers whose descriptor this connection has passed

    // A get through the socket that waits for a frame (loop thread only).
    bool pending = false;
    uint32_t pendingStream = 0;
    uint32_t pendingOutput = 0;
    Clock::time_point pendingDeadline{};

    // The control page and what the service keeps of it, under `pageMutex`, which producers take too: the
    // tail of its release ring, and the buffers of the frames answered through it (MapBuffer may ask).
    std::mutex pageMutex;
    std::unique_ptr<sensor_sim::wire::PageMapping> page;
    uint32_t releaseTail = 0;
    bool pageBroken = false;  // its ring was malformed: the connection is being closed
    std::map<uint64_t, std::weak_ptr<sensor_sim::Buffer>> offered;

private:
    struct Outgoing {
        std::vector<uint8_t> bytes;
        size_t at = 0;
        int fd = -1;  // owned: a duplicate, passed with the first byte
    };
    bool queue(std::vector<uint8_t> bytes, int passFd);

    int m_fd;
    uint64_t m_pid;
    std::vector<uint8_t> m_in;
    std::deque<Outgoing> m_out;
    size_t m_queued = 0;
};

}  // namespace sensor_simd

#endif  // SENSOR_SIMD_CONNECTION_H
