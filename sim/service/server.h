// sensor-simd's server: the private socket, one thread per connection, and the consumers it serves on
// the simulator's models (the vehicle itself runs in this process, its pools in shared memory).
#ifndef SENSOR_SIMD_SERVER_H
#define SENSOR_SIMD_SERVER_H

#include <memory>
#include <string>

namespace sensor_simd {

class Server {
public:
    Server();
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Makes the socket's directory (0700) if needed and listens at `path` (0600). "" or the problem.
    std::string listen(const std::string& path);
    // Serves until SIGINT or SIGTERM (which the caller has blocked in every thread), then disconnects
    // every client, removes the socket and returns.
    void run();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace sensor_simd

#endif  // SENSOR_SIMD_SERVER_H
