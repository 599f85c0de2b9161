// sensor-simd's listening socket: private to the user who runs the service, and an accept that turns a
// newcomer away rather than spin or fail when the process has no descriptor left.
#ifndef SENSOR_SIMD_LISTENER_H
#define SENSOR_SIMD_LISTENER_H

#include <cstdint>
#include <string>

namespace sensor_simd {

class Listener {
public:
    Listener() = default;
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Makes the socket's directory (0700) if needed and listens at `path` (0600). "" or the problem.
    std::string open(const std::string& path);
    int fd() const { return m_fd; }

    enum class Accepted {
        Connection,  // `*fd` from process `*pid`
        Refused,     // a connection came and was closed at once: another user's, or no descriptor for it
        None,        // nobody waits
        Exhausted,   // no descriptor left, not even to refuse with: stop accepting for a while
    };
    Accepted accept(int* fd, uint64_t* pid);
    // Stops listening and removes the socket.
    void close();

private:
    std::string m_path;
    int m_fd = -1;
    int m_reserve = -1;  // given up for a moment to accept and close a connection when the table is full
};

}  // namespace sensor_simd

#endif  // SENSOR_SIMD_LISTENER_H
