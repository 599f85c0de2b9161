// The view's HTTP server: the page's own files (built into the tool), the pictures of the tiles and the
// figures as JSON, each answered only to requests that carry the access token. Read-only: nothing a
// request says reaches the vehicle.
#ifndef SENSORCTL_VIEW_SERVER_H
#define SENSORCTL_VIEW_SERVER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "view/frames.h"

namespace sensorctl::view {

struct ListenAddress {
    std::string host = "127.0.0.1";
    uint16_t port = 0;  // 0: a free port
};
// "ADDR:PORT" or "[IPV6]:PORT"; false with `error` for anything else.
bool parseListenAddress(const std::string& text, ListenAddress& out, std::string& error);

// A random token of 128 bits in hexadecimal.
std::string makeToken();
// Compares in a time that does not depend on where the texts first differ.
bool sameToken(const std::string& given, const std::string& token);

struct ViewConfig {
    ListenAddress listen;
    std::string token;
    double fps = 10;           // pictures per second per tile, at most
    uint32_t tileWidth = 480;  // pixels
    uint32_t statusApp = 0;    // the application whose facade asks for the sensors' link state
};

class ViewServer {
public:
    explicit ViewServer(ViewConfig config);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    // Binds the address; false with the cause when it cannot.
    bool bind(std::string& error);
    uint16_t port() const;
    // The page's address with the token, for the person who started the view.
    std::string url() const;
    // Serves `sensors`, whose frames the takers keep, on a thread of its own until stop().
    void start(std::vector<uint32_t> sensors, std::vector<FrameTaker*> takers);
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace sensorctl::view

#endif  // SENSORCTL_VIEW_SERVER_H
