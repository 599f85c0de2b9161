// sensor-simd's server: one event loop (epoll) over the listening socket and every client connection,
// with the limits that keep one careless or hostile client from ending the service for the others.
#ifndef SENSOR_SIMD_SERVER_H
#define SENSOR_SIMD_SERVER_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace sensor_simd {

// Shared pool buffers the service serves at most: each costs it a descriptor, and a consumer that maps
// every one must stay within an ordinary descriptor table (1024) beside its own files.
constexpr uint64_t kMaxSharedBuffers = 512;

struct Limits {
    uint32_t maxClients = 64;                      // connections served at once; more are refused
    std::chrono::milliseconds handshake{2000};     // a new connection's Hello must come within this
};

class Server {
public:
    explicit Server(Limits limits = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Makes the socket's directory (0700) if needed and listens at `path` (0600). "" or the problem.
    std::string listen(const std::string& path);
    // Serves until SIGINT or SIGTERM (which the caller has blocked in every thread), then disconnects
    // every client, removes the socket and returns.
    void run();

    // For driving connections in-process (the connection fuzz target): serves `fd` as a connection
    // accepted from process `pid`, and runs the loop once, waiting at most `timeoutMs` for an event.
    void adopt(int fd, uint64_t pid);
    void step(int timeoutMs);
    size_t connections() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace sensor_simd

#endif  // SENSOR_SIMD_SERVER_H
