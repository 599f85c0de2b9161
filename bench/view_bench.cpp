// sensorctl view's CPU for the full default rig served by sensor-simd, with a client that asks for
// every tile's picture at 10 per second (as the page does) and for the figures once a second, beside the
// bare consumer of the same sensors (sensorctl stream: get and release only) in the same run. Turns
// alternate, the bare consumer first; counters are the medians over three pairs:
//   bare_cores, view_cores        CPU cores of each process over its turn
//   view_minus_bare_cores         what the pictures and the server add
//   tile_answers_per_s            pictures the client received per tile per second (aim: 10)
//   tile_pictures_per_s           pictures the view made (encoded) per tile per second
//   other_share_bare, other_share_view   another consumer of all sensors (sensorctl stream, its own
//                                 applications) during each turn: its worst sensor's frames per second
//                                 against the nominal rate (aim: at least 0.99 in the view's turn)
// Aim: view_cores under 0.5.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "ratio_reporter.h"
#include "sim_service.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kSeconds = 10;
const std::vector<int> kSensors = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 16, 17, 18, 19, 20, 21};

// One keep-alive connection to the view: a GET and its whole answer; false on any failure.
class Connection {
public:
    explicit Connection(int port) {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_port = htons(static_cast<uint16_t>(port));
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        timeval limit{5, 0};
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (::connect(m_fd, reinterpret_cast<sockaddr*>(&at), sizeof(at)) != 0) close();
    }
    ~Connection() { close(); }
    bool get(const std::string& target, size_t& bodyBytes) {
        std::string body;
        const bool ok = get(target, body);
        bodyBytes = body.size();
        return ok;
    }
    bool get(const std::string& target, std::string& body) {
        if (m_fd < 0) return false;
        const std::string request = "GET " + target + " HTTP/1.1\r\nHost: bench\r\n\r\n";
        if (::send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size())) return false;
        std::string data;
        char buffer[65536];
        size_t headEnd = std::string::npos, length = 0;
        for (;;) {
            if (headEnd != std::string::npos && data.size() >= headEnd + 4 + length) break;
            const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
            if (n <= 0) return false;
            data.append(buffer, size_t(n));
            if (headEnd == std::string::npos && (headEnd = data.find("\r\n\r\n")) != std::string::npos) {
                const size_t at = data.find("Content-Length: ");
                if (at == std::string::npos || at > headEnd) return false;
                length = std::stoul(data.substr(at + 16));
            }
        }
        body = data.substr(headEnd + 4, length);
        const bool ok = data.compare(0, 12, "HTTP/1.1 200") == 0;
        data.erase(0, headEnd + 4 + length);
        return ok && data.empty();
    }

private:
    void close() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }
    int m_fd = -1;
};

// The view's address from the first line it printed, within 20 s.
bool readUrl(const std::string& path, int& port, std::string& token) {
    for (int i = 0; i < 200; ++i) {
        std::ifstream in(path);
        std::string line;
        if (std::getline(in, line) && !in.eof()) {
            const size_t colon = line.rfind(':'), slash = line.find('/', colon), eq = line.find("token=");
            if (colon == std::string::npos || slash == std::string::npos || eq == std::string::npos) return false;
            port = std::stoi(line.substr(colon + 1, slash - colon - 1));
            token = line.substr(eq + 6);
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

// Pictures the view has made in all, from its figures.
double picturesMade(int port, const std::string& token) {
    Connection connection(port);
    std::string body;
    if (!connection.get("/stats?token=" + token, body)) return -1;
    double total = 0;
    const std::string key = "\"pictures\":";
    for (size_t at = body.find(key); at != std::string::npos; at = body.find(key, at + 1))
        total += std::stod(body.substr(at + key.size()));
    return total;
}

// Three client threads, seven tiles each, every tile at most 10 times a second; returns pictures
// received per tile per second.
double watch(int port, const std::string& token, double seconds) {
    std::atomic<uint64_t> pictures{0};
    std::vector<std::thread> threads;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    for (size_t t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            auto connection = std::make_unique<Connection>(port);
            auto nextStats = Clock::now();
            while (Clock::now() < end) {
                const auto round = Clock::now();
                for (size_t i = t; i < kSensors.size(); i += 3) {
                    size_t bytes = 0;
                    if (connection->get("/tile/" + std::to_string(kSensors[i]) + ".jpg?token=" + token, bytes) &&
                        bytes > 0) {
                        ++pictures;
                    } else {
                        connection = std::make_unique<Connection>(port);  // closed by the view: again
                    }
                }
                if (t == 0 && Clock::now() >= nextStats) {
                    size_t bytes = 0;
                    if (!connection->get("/stats?token=" + token, bytes))
                        connection = std::make_unique<Connection>(port);
                    nextStats += std::chrono::seconds(1);
                }
                std::this_thread::sleep_until(round + std::chrono::milliseconds(100));
            }
        });
    }
    for (auto& th : threads) th.join();
    return double(pictures.load()) / double(kSensors.size()) / seconds;
}

double nominalRate(int sensor) {
    if (sensor < 12) return 30;
    return sensor == 14 || sensor == 20 || sensor == 21 ? 10 : 20;
}

// Another consumer of every sensor for `seconds`, on applications of its own.
pid_t startOther(const sipc_bench::Service& service, int seconds) {
    return sipc_bench::spawnWith({SIPC_SENSORCTL_BIN, "stream", "--duration", std::to_string(seconds), "--json",
                                  "--camera-app", "APP_CAMERA_IRC", "--sensor-app", "APP_SENSOR_IRC"},
                                 service.dir + "/other.out", service.socket);
}

// The other consumer's worst sensor: frames per second against the nominal rate.
double otherShare(const sipc_bench::Service& service, pid_t other) {
    sipc_bench::reap(other);
    std::ifstream in(service.dir + "/other.out");
    const auto report = nlohmann::json::parse(in, nullptr, false);
    if (report.is_discarded() || !report.contains("sensors")) return -1;
    double worst = 2;
    for (const auto& s : report["sensors"]) worst = std::min(worst, s["fps"].get<double>() / nominalRate(s["id"].get<int>()));
    return worst;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? -1 : v[v.size() / 2];
}

void BM_ViewFullRig(benchmark::State& state) {
    sipc_bench::Service service(nullptr);
    std::vector<double> bare, view, added, rate, made, otherBare, otherView;
    for (auto _ : state) {
        for (int pair = 0; pair < 3; ++pair) {
            const auto t0 = Clock::now();
            pid_t other = startOther(service, kSeconds);
            const pid_t stream = sipc_bench::spawnWith(
                {SIPC_SENSORCTL_BIN, "stream", "--duration", std::to_string(kSeconds), "--json"},
                service.dir + "/stream.out", service.socket);
            const double bareCpu = sipc_bench::reap(stream);
            const double bareWall = std::chrono::duration<double>(Clock::now() - t0).count();
            otherBare.push_back(otherShare(service, other));

            const auto t1 = Clock::now();
            other = startOther(service, kSeconds);
            const pid_t viewer = sipc_bench::spawnWith(
                {SIPC_SENSORCTL_BIN, "view", "--duration", std::to_string(kSeconds + 2)},
                service.dir + "/view.out", service.socket);
            int port = 0;
            std::string token;
            if (!readUrl(service.dir + "/view.out", port, token)) {
                ::kill(viewer, SIGKILL);
                sipc_bench::reap(viewer);
                sipc_bench::reap(other);
                state.SkipWithError("the view printed no address");
                return;
            }
            std::this_thread::sleep_for(std::chrono::seconds(1));  // the connections are made
            const double made0 = picturesMade(port, token);
            const double pictures = watch(port, token, kSeconds - 1);
            made.push_back((picturesMade(port, token) - made0) / double(kSensors.size()) / (kSeconds - 1));
            const double viewCpu = sipc_bench::reap(viewer);
            const double viewWall = std::chrono::duration<double>(Clock::now() - t1).count();
            otherView.push_back(otherShare(service, other));
            bare.push_back(bareCpu / bareWall);
            view.push_back(viewCpu / viewWall);
            added.push_back(viewCpu / viewWall - bareCpu / bareWall);
            rate.push_back(pictures);
        }
    }
    state.counters["bare_cores"] = median(bare);
    state.counters["view_cores"] = median(view);
    state.counters["view_minus_bare_cores"] = median(added);
    state.counters["tile_answers_per_s"] = median(rate);
    state.counters["other_share_bare"] = median(otherBare);
    state.counters["other_share_view"] = median(otherView);
    state.counters["tile_pictures_per_s"] = median(made);
}
BENCHMARK(BM_ViewFullRig)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    using sipc_bench::Aim;
    const std::string run = "BM_ViewFullRig/iterations:1/real_time";
    return sipc_bench::runWithRatios(argc, argv, "BM_ViewFullRig",
                                     {{run, "view_cores", 0.5, true, "cores"},
                                      {run, "tile_pictures_per_s", 9.5, false, "per_s"},
                                      {run, "other_share_view", 0.99, false, "of_nominal"}});
}
