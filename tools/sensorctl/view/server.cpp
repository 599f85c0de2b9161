// The view's HTTP server over cpp-httplib. Every request is checked for the token before anything else;
// connections are served by a fixed set of threads, each read and write has a time limit, and requests
// are limited in size, so that a slow, stalled or hostile client costs a bounded share and never the
// frames.
#include "view/server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "camera_ipc_client.h"
#include "sensor_ipc_client.h"
#include "sensor_consumer/names.h"
#include "view/page_files.h"
#include "view/picture.h"

namespace sensorctl::view {

using sensor_consumer::steadyUs;

namespace {

constexpr size_t kServingThreads = 16;
// Connections accepted beyond what the threads serve wait here; past this many they are answered 503.
constexpr size_t kWaitingConnections = 64;
constexpr time_t kReadTimeoutS = 5;
constexpr time_t kWriteTimeoutS = 2;
// Also how long the end of the view may wait for an idle browser connection.
constexpr time_t kKeepAliveS = 2;
constexpr size_t kMaxBody = 1024;
constexpr int kTileQuality = 75;
constexpr int kFullQuality = 85;
constexpr uint64_t kLinkRefreshUs = 1000000;

thread_local bool t_overloaded = false;

// The server's connection threads: a fixed number, and a bounded wait for a thread; a connection that
// would wait beyond the bound is served a refusal instead of a page. They run at a lower priority than
// the frame-taking threads (and than other consumers): when the machine is short of CPU, pictures come
// later, frames do not.
constexpr int kServingNice = 10;
class BoundedPool : public httplib::TaskQueue {
public:
    explicit BoundedPool(size_t threads) {
        for (size_t i = 0; i < threads; ++i) m_threads.emplace_back([this] { work(); });
    }
    void enqueue(std::function<void()> fn) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_jobs.size() >= kWaitingConnections) {
                m_jobs.emplace_front([fn = std::move(fn)] {
                    t_overloaded = true;
                    fn();
                    t_overloaded = false;
                });
            } else {
                m_jobs.push_back(std::move(fn));
            }
        }
        m_cv.notify_one();
    }
    void shutdown() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_shutdown = true;
        }
        m_cv.notify_all();
        for (auto& t : m_threads) t.join();
    }

private:
    void work() {
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), kServingNice);
        for (;;) {
            std::function<void()> fn;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait(lock, [&] { return m_shutdown || !m_jobs.empty(); });
                if (m_jobs.empty()) return;
                fn = std::move(m_jobs.front());
                m_jobs.pop_front();
            }
            fn();
        }
    }
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<std::function<void()>> m_jobs;
    std::vector<std::thread> m_threads;
    bool m_shutdown = false;
};

// The last picture of one tile (or of its full-size or raw view) and when it was made.
struct PictureCache {
    std::mutex mutex;
    std::shared_ptr<const std::string> jpeg;
    uint64_t sequence = 0;
    uint64_t dueUs = 0;  // when the next picture may be made
    uint64_t made = 0;   // pictures made so far
};

std::string hostForUrl(const std::string& host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Why `host`:`port` cannot be listened on: the system's answer to the same bind.
std::string bindProblem(const std::string& host, uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (const int rc = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found); rc != 0)
        return ::gai_strerror(rc);
    std::string problem = "no usable address";
    for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        if (fd < 0) {
            problem = std::strerror(errno);
            continue;
        }
        const int yes = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        const int rc = ::bind(fd, a->ai_addr, a->ai_addrlen);
        problem = rc == 0 ? "the address was taken meanwhile" : std::strerror(errno);
        ::close(fd);
    }
    ::freeaddrinfo(found);
    return problem;
}

}  // namespace

bool parseListenAddress(const std::string& text, ListenAddress& out, std::string& error) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        error = "'" + text + "' is not ADDR:PORT";
        return false;
    }
    std::string host = text.substr(0, colon);
    if (host.front() == '[') {
        if (host.back() != ']' || host.size() < 3) {
            error = "'" + text + "': an IPv6 address goes in brackets, [ADDR]:PORT";
            return false;
        }
        host = host.substr(1, host.size() - 2);
    }
    const std::string port = text.substr(colon + 1);
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > 65535) {
        error = "'" + port + "' is not a port (0 to 65535; 0 for a free one)";
        return false;
    }
    out.host = host;
    out.port = static_cast<uint16_t>(std::stoul(port));
    return true;
}

std::string makeToken() {
    std::random_device random;
    std::string token;
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof(part), "%08x", static_cast<unsigned>(random()));
        token += part;
    }
    return token;
}

bool sameToken(const std::string& given, const std::string& token) {
    // Every byte of the token is looked at, whatever was given.
    unsigned diff = given.size() == token.size() ? 0u : 1u;
    for (size_t i = 0; i < token.size(); ++i) {
        const unsigned char g = i < given.size() ? static_cast<unsigned char>(given[i]) : 0;
        diff |= g ^ static_cast<unsigned char>(token[i]);
    }
    return diff == 0;
}

struct ViewServer::Impl {
    ViewConfig config;
    std::vector<uint32_t> sensors;
    std::vector<FrameTaker*> takers;
    httplib::Server http;
    std::thread thread;
    uint16_t port = 0;
    std::map<std::pair<uint32_t, PictureKind>, std::unique_ptr<PictureCache>> pictures;

    std::mutex linkMutex;
    uint64_t linkAtUs = 0;
    bool linkKnown = false;
    unsigned linkMask = 0, videoMask = 0;
    std::map<vexa::cameraipcclient::SensorType, unsigned char> linkStates;

    FrameTaker* takerOf(uint32_t sensor) const {
        for (FrameTaker* t : takers) {
            if (t->serves(sensor)) return t;
        }
        return nullptr;
    }

    // The picture of `sensor`: the cached one while no newer frame came or the tile's rate is reached,
    // else a new one from the latest frame.
    std::shared_ptr<const std::string> picture(uint32_t sensor, PictureKind kind, std::string& error) {
        FrameTaker* taker = takerOf(sensor);
        PictureCache& cache = *pictures.at({sensor, kind});
        std::lock_guard<std::mutex> lock(cache.mutex);
        const uint64_t now = steadyUs();
        // At most --fps pictures a second on average: each picture moves the next one's time on by one
        // interval, from no earlier than one interval ago, so that requests that come a little early
        // (a browser's timers) still get every picture due, and a burst gets at most one more.
        const uint64_t interval = uint64_t(1e6 / config.fps);
        if (cache.jpeg && (taker->latestSequence(sensor) == cache.sequence || now < cache.dueUs))
            return cache.jpeg;
        Extract image;
        uint64_t sequence = 0;
        bool extracted = false;
        const bool held = taker->withLatest(sensor, [&](const HeldView& frame) {
            sequence = frame.sequence;
            extracted = extractPicture(frame, kind, config.tileWidth, image, error);
        });
        if (!held) {
            if (error.empty()) error = "no frame yet";
            return cache.jpeg;
        }
        if (!extracted) return nullptr;
        auto jpeg = std::make_shared<std::string>();
        if (!encodeJpeg(image, kind == PictureKind::Tile ? kTileQuality : kFullQuality, *jpeg, error)) return nullptr;
        cache.jpeg = std::move(jpeg);
        cache.sequence = sequence;
        cache.dueUs = std::max(cache.dueUs, now - std::min(now, interval)) + interval;
        ++cache.made;
        return cache.jpeg;
    }

    void refreshLink() {
        std::lock_guard<std::mutex> lock(linkMutex);
        const uint64_t now = steadyUs();
        if (linkAtUs != 0 && now - linkAtUs < kLinkRefreshUs) return;
        linkAtUs = now;
        vexa::sensor_access::SensorIpcClient probe(static_cast<vexa::cameraipcclient::AppType>(config.statusApp));
        unsigned link = 0, video = 0;
        linkKnown = probe.getSensorStatus(link, video, linkStates) == 0;
        linkMask = link;
        videoMask = video;
    }

    nlohmann::json stats() {
        refreshLink();
        nlohmann::json list = nlohmann::json::array();
        for (uint32_t id : sensors) {
            FrameTaker* taker = takerOf(id);
            const SensorFigures f = taker->figures(id);
            const auto& c = f.counters;
            const auto& entry = sensor_consumer::sensorEntry(id);
            nlohmann::json s = {
                {"id", id},
                {"name", entry.name},
                {"kind", sensor_consumer::kindName(entry.kind)},
                {"raw", entry.hasRaw && c.paired() > 0},
                {"width", f.width},
                {"height", f.height},
                {"format", f.format},
                {"frames", c.frames()},
                {"meanFps", c.fps()},
                {"gaps", c.gaps()},
                {"outOfOrder", c.outOfOrder()},
                {"noFrame", c.noFrame()},
                {"paired", c.paired()},
                {"pairFailures", c.pairFailures()},
                {"getUs", c.meanGetUs()},
                {"holdUs", taker->meanHoldUs(id)},
                {"lastCounter", c.lastCounter() ? nlohmann::json(*c.lastCounter()) : nlohmann::json()},
            };
            nlohmann::json errors = nlohmann::json::object();
            for (const auto& [code, n] : c.errors()) errors[vexa::cameraipcclient::resultCodeName(code)] = n;
            s["errors"] = errors;
            if (!f.lastError.empty()) s["problem"] = f.lastError;
            if (entry.kind == sensor_consumer::SensorKind::Camera) {
                s["brightness"] = {{"valid", f.brightness.valid},
                                   {"value", f.brightness.value},
                                   {"roiCount", f.brightness.roiCount},
                                   {"roiCellCount", f.brightness.roiCellCount},
                                   {"frameId", f.brightness.frameId}};
            }
            {
                std::lock_guard<std::mutex> lock(linkMutex);
                if (linkKnown) {
                    const auto state = linkStates.find(static_cast<vexa::cameraipcclient::SensorType>(id));
                    s["link"] = {{"link", ((linkMask >> id) & 1u) != 0},
                                 {"video", ((videoMask >> id) & 1u) != 0},
                                 {"state", state == linkStates.end() ? nlohmann::json() : nlohmann::json(state->second)}};
                }
            }
            PictureCache& cache = *pictures.at({id, PictureKind::Tile});
            {
                std::lock_guard<std::mutex> lock(cache.mutex);
                s["pictures"] = cache.made;
            }
            list.push_back(std::move(s));
        }
        return {{"nowUs", steadyUs()}, {"fps", config.fps}, {"sensors", std::move(list)}};
    }

    void routes() {
        http.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
            res.set_header("Cache-Control", "no-store");
            res.set_header("Referrer-Policy", "no-referrer");
            res.set_header("X-Content-Type-Options", "nosniff");
            if (t_overloaded) {
                res.status = 503;
                res.set_header("Connection", "close");
                res.set_content("too many connections\n", "text/plain");
                return httplib::Server::HandlerResponse::Handled;
            }
            if (!sameToken(req.get_param_value("token"), config.token)) {
                res.status = 403;
                res.set_content("a valid token is needed: open the address sensorctl printed\n", "text/plain");
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
        // The page names its script and style sheet with the token, which it is served with.
        auto serveFile = [this](const std::string& path, const char* type) {
            return [this, path, type](const httplib::Request&, httplib::Response& res) {
                for (size_t i = 0; i < kPageFileCount; ++i) {
                    if (path == kPageFiles[i].path) {
                        std::string text(reinterpret_cast<const char*>(kPageFiles[i].data), kPageFiles[i].size);
                        for (size_t at = text.find("{{TOKEN}}"); at != std::string::npos; at = text.find("{{TOKEN}}"))
                            text.replace(at, 9, config.token);
                        res.set_content(text, type);
                        res.set_header("Content-Security-Policy",
                                       "default-src 'self'; img-src 'self'; frame-ancestors 'none'");
                        return;
                    }
                }
                res.status = 404;
            };
        };
        http.Get("/", serveFile("/index.html", "text/html; charset=utf-8"));
        http.Get("/view.js", serveFile("/view.js", "text/javascript; charset=utf-8"));
        http.Get("/view.css", serveFile("/view.css", "text/css; charset=utf-8"));
        http.Get("/stats", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content(stats().dump(), "application/json");
        });
        http.Get(R"(/(tile|full|raw)/(\d{1,2})\.jpg)", [this](const httplib::Request& req, httplib::Response& res) {
            const std::string what = req.matches[1];
            const uint32_t sensor = static_cast<uint32_t>(std::stoul(req.matches[2]));
            const PictureKind kind =
                what == "tile" ? PictureKind::Tile : (what == "full" ? PictureKind::Full : PictureKind::Raw);
            if (pictures.count({sensor, kind}) == 0) {
                res.status = 404;
                res.set_content("no such sensor in this view\n", "text/plain");
                return;
            }
            std::string error;
            auto jpeg = picture(sensor, kind, error);
            if (!jpeg) {
                res.status = 503;
                res.set_content(error + "\n", "text/plain");
                return;
            }
            res.set_content(*jpeg, "image/jpeg");
        });
        http.set_error_handler([](const httplib::Request&, httplib::Response& res) {
            if (res.body.empty()) res.set_content(std::to_string(res.status) + "\n", "text/plain");
        });
        http.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
            res.status = 500;
            res.set_content("internal error\n", "text/plain");
        });
    }
};

ViewServer::ViewServer(ViewConfig config) : m_impl(std::make_unique<Impl>()) {
    m_impl->config = std::move(config);
    auto& http = m_impl->http;
    http.new_task_queue = [] { return new BoundedPool(kServingThreads); };
    http.set_read_timeout(kReadTimeoutS, 0);
    http.set_write_timeout(kWriteTimeoutS, 0);
    http.set_keep_alive_timeout(kKeepAliveS);
    // A page asks for every tile's picture again and again: its connections are kept.
    http.set_keep_alive_max_count(100000);
    http.set_payload_max_length(kMaxBody);
    // An answer's head and body are written apart: without this the body waits for the client's
    // delayed acknowledgement (40 ms) on every picture.
    http.set_tcp_nodelay(true);
    m_impl->routes();
}

ViewServer::~ViewServer() {
    stop();
}

bool ViewServer::bind(std::string& error) {
    const ListenAddress& at = m_impl->config.listen;
    if (at.port == 0) {
        const int port = m_impl->http.bind_to_any_port(at.host);
        if (port > 0) {
            m_impl->port = static_cast<uint16_t>(port);
            return true;
        }
    } else if (m_impl->http.bind_to_port(at.host, at.port)) {
        m_impl->port = at.port;
        return true;
    }
    error = "cannot listen on " + hostForUrl(at.host) + ":" + std::to_string(at.port) + ": " +
            bindProblem(at.host, at.port);
    return false;
}

uint16_t ViewServer::port() const {
    return m_impl->port;
}

std::string ViewServer::url() const {
    return "http://" + hostForUrl(m_impl->config.listen.host) + ":" + std::to_string(m_impl->port) +
           "/?token=" + m_impl->config.token;
}

void ViewServer::start(std::vector<uint32_t> sensors, std::vector<FrameTaker*> takers) {
    for (uint32_t id : sensors) {
        for (PictureKind kind : {PictureKind::Tile, PictureKind::Full, PictureKind::Raw}) {
            if (kind == PictureKind::Raw && !sensor_consumer::sensorEntry(id).hasRaw) continue;
            m_impl->pictures[{id, kind}] = std::make_unique<PictureCache>();
        }
    }
    m_impl->sensors = std::move(sensors);
    m_impl->takers = std::move(takers);
    m_impl->thread = std::thread([this] { m_impl->http.listen_after_bind(); });
}

void ViewServer::stop() {
    if (m_impl->thread.joinable()) {
        m_impl->http.stop();
        m_impl->thread.join();
    }
}

}  // namespace sensorctl::view
