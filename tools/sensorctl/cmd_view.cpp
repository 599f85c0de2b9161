// view: serves a page with every chosen sensor's live picture and figures to a browser. The frames are
// taken at their full rate by one session per facade (cameras through the legacy one, radars and lidars
// through the current one); pictures are made only when a browser asks for them, at most --fps per tile.
#include <algorithm>
#include <malloc.h>

#include <chrono>
#include <memory>
#include <thread>

#include "command.h"
#include "errors.h"
#include "interrupt.h"
#include "names.h"
#include "sessions.h"
#include "view/frames.h"
#include "view/server.h"

namespace sensorctl {
namespace {

constexpr auto kTick = std::chrono::milliseconds(50);

class ViewCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "view",
            "Serve a live page of every chosen sensor (picture and figures) to a browser; prints the page's "
            "address with its access token as the first line; Ctrl-C ends it");
        cmd->add_option_function<std::string>(
               "--listen",
               [this](const std::string& text) {
                   std::string error;
                   if (!view::parseListenAddress(text, m_listen, error)) throw CLI::ValidationError("--listen", error);
               },
               "Address and port to listen on (default 127.0.0.1:0, a free port on this machine only); "
               "another address lets other machines reach the page")
            ->type_name("ADDR:PORT");
        addSensorListOption(*cmd, m_sensors, m_sensorsGiven);
        addNumberOption(*cmd, "--fps", m_fps, 60, "Pictures per second per tile, at most (default 10)", 1);
        addAppOption(*cmd, "--app", m_cameraApp, "legacy (camera) client");
        addAppOption(*cmd, "--sensor-app", m_sensorApp, "current (radar/lidar) client");
        addSwitch(*cmd, "raw", m_raw,
                  "Pair the raw frames of cameras 2 and 3, which the page can show (the default)",
                  "Take cameras 2 and 3 without their raw frames");
        addSecondsOption(*cmd, "--connect-timeout", m_connectTimeout, 3600.0,
                         "Give up connecting after SECONDS (default 10)");
        addSecondsOption(*cmd, "-d,--duration", m_duration, 31536000.0, "End after SECONDS (default: Ctrl-C)");
        return cmd;
    }

    int run(Output& io) override {
        // The address first: one that cannot be listened on ends the command before it registers.
        view::ViewConfig config;
        config.listen = m_listen;
        config.token = view::makeToken();
        config.fps = double(m_fps);
        config.statusApp = m_sensorApp;

        // Full-size pictures need buffers of megabytes on any of the server's threads: mapped and unmapped
        // each time, they never pile up in per-thread heaps, so the view's memory stays flat.
        ::mallopt(M_MMAP_THRESHOLD, 512 * 1024);
        view::ViewServer server(config);
        if (std::string error; !server.bind(error)) throw UnavailableError(error);

        Selection selection = selectSensors(m_sensors, m_sensorsGiven, true, true, m_sensorApp);
        std::vector<uint32_t> absent, sensors;
        std::unique_ptr<sensor_consumer::Session> cameras, others;
        std::vector<std::unique_ptr<view::FrameTaker>> takers;
        auto open = [&](std::unique_ptr<sensor_consumer::Session>& session, const std::vector<uint32_t>& wanted,
                        uint32_t app, sensor_consumer::Api api) {
            if (wanted.empty()) return;
            sensor_consumer::SessionOptions options;
            options.app = app;
            options.api = api;
            options.raw = m_raw;
            options.frameTimeoutMs = 5;
            session = std::make_unique<sensor_consumer::Session>(options);
            const std::vector<uint32_t> present = keepPresent(wanted, session->open(wanted), absent);
            if (present.empty()) return;
            takers.push_back(std::make_unique<view::FrameTaker>(*session, present));
            sensors.insert(sensors.end(), present.begin(), present.end());
        };
        // The server stops before the takers and sessions go, however this scope is left.
        struct StopServer {
            view::ViewServer& server;
            ~StopServer() { server.stop(); }
        } stopServer{server};
        open(cameras, selection.cameras, m_cameraApp, sensor_consumer::Api::Legacy);
        open(others, selection.others, m_sensorApp, sensor_consumer::Api::Current);
        for (uint32_t id : absent)
            io.err.print("sensorctl: sensor {} ({}) is not present; skipped\n", id, sensorEntry(id).name);
        if (sensors.empty()) throw UsageError("none of the chosen sensors is present");
        std::sort(sensors.begin(), sensors.end());

        const Millis connect(static_cast<int64_t>(m_connectTimeout * 1000));
        for (auto& t : takers) t->begin(connect, [] { return interrupted(); });
        std::vector<view::FrameTaker*> takerList;
        takerList.reserve(takers.size());
        for (auto& t : takers) takerList.push_back(t.get());
        server.start(sensors, takerList);
        io.out.print("{}\n", server.url());
        io.err.print("sensorctl: viewing sensors {} at {}:{} (the address above, token included); Ctrl-C ends it\n",
                     formatSensorList(sensors), config.listen.host, server.port());

        const auto end = m_duration > 0 ? std::chrono::steady_clock::now() +
                                              std::chrono::milliseconds(int64_t(m_duration * 1000))
                                        : std::chrono::steady_clock::time_point::max();
        std::string failure;
        bool timedOut = false;
        while (!interrupted() && std::chrono::steady_clock::now() < end && failure.empty()) {
            std::this_thread::sleep_for(kTick);
            for (auto& t : takers) {
                if (!t->running() && !t->failure().empty()) {
                    failure = t->failure();
                    timedOut = t->timedOut();
                }
            }
        }
        server.stop();
        for (auto& t : takers) t->stop();
        if (cameras) cameras->close();
        if (others) others->close();
        if (!failure.empty()) {
            if (timedOut) throw TimeoutError(failure);
            throw ToolError(kExitLibrary, failure);
        }
        return kExitOk;
    }

private:
    view::ListenAddress m_listen;
    std::vector<uint32_t> m_sensors;
    bool m_sensorsGiven = false;
    uint32_t m_fps = 10;
    uint32_t m_cameraApp = defaultApp(Api::Legacy);
    uint32_t m_sensorApp = defaultApp(Api::Current);
    bool m_raw = true;
    double m_connectTimeout = 10;
    double m_duration = 0;
};

}  // namespace

std::unique_ptr<Command> makeViewCommand() {
    return std::make_unique<ViewCommand>();
}

}  // namespace sensorctl
