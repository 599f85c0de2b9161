// stats: brightness and ROI statistics of one camera frame, taken through the legacy API.
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "interrupt.h"
#include "names.h"
#include "sessions.h"

namespace sensorctl {
namespace {

using vexa::cameraipcclient::BufFrameObj;
using vexa::cameraipcclient::CameraFrameRoiStatsData;
using vexa::cameraipcclient::RESULT_STREAM_CODE_9;

// Four regions of at most 16384 bytes each (the library copies each region's block).
constexpr size_t kRoiBytes = 65536;

class StatsCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd =
            parent.add_subcommand("stats", "Brightness and ROI statistics of one frame of a camera");
        addSensorOption(*cmd, m_sensor);
        addSecondsOption(*cmd, "--timeout", m_timeout, 3600.0,
                         "Give up after SECONDS without a frame (exit 4); default 5");
        addSecondsOption(*cmd, "--connect-timeout", m_connectTimeout, 3600.0,
                         "Give up connecting after SECONDS (default 10)");
        addAppOption(*cmd, "--camera-app", m_cameraApp, "legacy (camera) client");
        cmd->add_flag("--json", m_json, "Print JSON");
        return cmd;
    }

    int run(Output& io) override {
        if (!servedByLegacy(m_sensor)) {
            throw UsageError(fmt::format("statistics come with camera frames (0-11), not sensor {} ({})",
                                         m_sensor, sensorName(m_sensor)));
        }
        CameraSession session(m_cameraApp);
        if (session.init({m_sensor}, false).empty()) {
            throw UsageError(fmt::format("camera {} ({}) is not present", m_sensor, sensorName(m_sensor)));
        }
        session.start(std::chrono::milliseconds(static_cast<int64_t>(m_connectTimeout * 1000)));

        BufFrameObj frame{};
        const uint64_t deadline = steadyUs() + static_cast<uint64_t>(m_timeout * 1e6);
        while (true) {
            if (interrupted()) throw InterruptedError();
            const int32_t result = session.get(m_sensor, frame);
            if (result == 0) break;
            if (result != RESULT_STREAM_CODE_9) throw LibraryError("GetFrame", result);
            if (steadyUs() >= deadline)
                throw TimeoutError(fmt::format("no frame of camera {} within {} s", m_sensor, m_timeout));
        }
        std::vector<uint8_t> roi(kRoiBytes);
        CameraFrameRoiStatsData stats{};
        stats.roiData = roi.data();
        const int32_t statsResult = session.client().GetFrameRoiStatsData(&frame, &stats);
        const int32_t released = session.release(frame);
        checkResult("GetFrameRoiStatsData", statsResult);
        checkResult("ReleaseFrame", released);

        if (m_json) {
            io.out.write(nlohmann::ordered_json({{"sensor", m_sensor},
                                                 {"name", sensorName(m_sensor)},
                                                 {"frameCnt", frame.frameCnt},
                                                 {"frameId", stats.frameId},
                                                 {"valid", stats.valid},
                                                 {"brightness", stats.brightness},
                                                 {"roiCount", stats.roiCount},
                                                 {"roiCellCount", stats.roiCellCount},
                                                 {"cellValueCount", stats.cellValueCount},
                                                 {"roiDataSize", stats.roiDataSize}})
                             .dump(2) +
                         "\n");
        } else {
            io.out.print("camera {} ({}), frame {}\n", m_sensor, sensorName(m_sensor), frame.frameCnt);
            io.out.print("  valid            {}\n  brightness       {:.3f}\n  regions          {}\n",
                         stats.valid, stats.brightness, stats.roiCount);
            io.out.print("  region 0 cells   {} ({} values each, {} bytes)\n  all regions      {} bytes\n",
                         stats.roiCellCount, stats.cellValueCount, uint64_t(stats.roiCellCount) * 16,
                         stats.roiDataSize);
        }
        return kExitOk;
    }

private:
    uint32_t m_sensor = 0;
    double m_timeout = 5;
    double m_connectTimeout = 10;
    uint32_t m_cameraApp = vexa::cameraipcclient::APP_CAMERA_DEMO;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeStatsCommand() {
    return std::make_unique<StatsCommand>();
}

}  // namespace sensorctl
