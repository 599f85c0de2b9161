// diag: radar and lidar inner-parameter states and the radar level-2 fault list.
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "names.h"
#include "sensor_ipc_client.h"

namespace sensorctl {
namespace {

using vexa::cameraipcclient::InnerParaState;
using vexa::cameraipcclient::RESULT_BUFFER_TOO_SMALL;

class DiagCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand("diag",
                                              "Radar and lidar diagnostics: inner-parameter states, radar "
                                              "level-2 faults");
        addNumberOption(*cmd, "--capacity", m_capacity, 0xFFFF,
                        "Room for this many level-2 faults (default 64)");
        addNumberOption(*cmd, "--fault-a", m_faultA, 0xFFFF,
                        "First argument of the level-2 fault query (default 0)");
        addNumberOption(*cmd, "--fault-b", m_faultB, 0xFFFF,
                        "Second argument of the level-2 fault query (default 0)");
        addAppOption(*cmd, "--app", m_app, "sensor control");
        cmd->add_flag("--json", m_json, "Print JSON");
        return cmd;
    }

    // Every query runs even when an earlier one fails; the first failure decides the exit status.
    int run(Output& io) override {
        vexa::sensor_access::SensorIpcClient client(static_cast<vexa::cameraipcclient::AppType>(m_app));
        nlohmann::ordered_json doc;
        std::vector<LibraryError> failures;
        auto query = [&](const char* call, const char* key, int32_t result,
                         const nlohmann::ordered_json& value) {
            if (result == 0) {
                doc[key] = value;
            } else {
                failures.emplace_back(call, result);
                doc[key] = {{"error", vexa::cameraipcclient::resultCodeName(result)}, {"result", result}};
            }
        };
        InnerParaState radar{}, lidar{};
        const int32_t radarResult = client.getRadarInnerParaState(radar);
        query("getRadarInnerParaState", "radarInnerState", radarResult, static_cast<uint32_t>(radar));
        const int32_t lidarResult = client.getLidarInnerParaState(lidar);
        query("getLidarInnerParaState", "lidarInnerState", lidarResult, static_cast<uint32_t>(lidar));
        std::vector<unsigned short> faults(m_capacity);
        unsigned short count = m_capacity;
        unsigned long time = 0;
        // The facade refuses a null array, so an empty capacity still passes one element's room.
        unsigned short room = 0;
        const int32_t faultResult = client.getRadarLev2FaultInfo(
            m_faultA, m_faultB, faults.empty() ? &room : faults.data(), count, time);
        if (faultResult == RESULT_BUFFER_TOO_SMALL) {
            io.err.print("sensorctl: the level-2 fault list is longer than --capacity {}\n", m_capacity);
        }
        faults.resize(faultResult == 0 ? count : 0);
        query("getRadarLev2FaultInfo", "radarLevel2Faults", faultResult,
              {{"count", faults.size()}, {"faults", faults}, {"time", time}});

        if (m_json) {
            io.out.write(doc.dump(2) + "\n");
        } else {
            auto line = [&](const char* label, int32_t result, const std::string& text) {
                io.out.print(
                    "{:<24} {}\n", label,
                    result == 0
                        ? text
                        : fmt::format("{} ({})", vexa::cameraipcclient::resultCodeName(result), result));
            };
            line("radar inner parameters", radarResult, fmt::format("{}", uint32_t(radar)));
            line("lidar inner parameters", lidarResult, fmt::format("{}", uint32_t(lidar)));
            std::string list;
            for (unsigned short f : faults) list += fmt::format(" {:#06x}", f);
            line("radar level-2 faults", faultResult,
                 fmt::format("{} at time {}{}{}", faults.size(), time, faults.empty() ? "" : ":", list));
        }
        for (const LibraryError& e : failures) io.err.print("sensorctl: {}\n", e.what());
        return failures.empty() ? kExitOk : kExitLibrary;
    }

private:
    uint16_t m_capacity = 64;
    uint16_t m_faultA = 0;
    uint16_t m_faultB = 0;
    uint32_t m_app = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeDiagCommand() {
    return std::make_unique<DiagCommand>();
}

}  // namespace sensorctl
