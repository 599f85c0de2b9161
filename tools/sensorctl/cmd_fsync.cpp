// fsync set|start-time: frame-synchronisation delay of a group, and the time of the first sync pulse.
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "names.h"
#include "sensor_ipc_client.h"

namespace sensorctl {
namespace {

class FsyncCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand("fsync",
                                              "Frame synchronisation: set a group's delay, read the first "
                                              "sync time");
        cmd->require_subcommand(1);
        m_set = cmd->add_subcommand("set", "Set the delay of a sync group");
        m_startTime = cmd->add_subcommand("start-time", "Print the time of the first sync pulse");
        addNumberOption(*m_set, "-g,--group", m_group, 0xFFFFFFFFu, "Sync group number")->required();
        addNumberOption(*m_set, "--delta-ms", m_deltaMs, UINT64_MAX, "Delay in milliseconds")->required();
        m_startTime->add_flag("--json", m_json, "Print JSON");
        for (CLI::App* sub : {m_set, m_startTime}) addAppOption(*sub, "--app", m_app, "sensor control");
        return cmd;
    }

    int run(Output& io) override {
        vexa::sensor_access::SensorIpcClient client(static_cast<vexa::cameraipcclient::AppType>(m_app));
        if (m_set->parsed()) {
            checkResult(
                "setFsyncDeltaMs",
                client.setFsyncDeltaMs(static_cast<vexa::cameraipcclient::GroupId>(m_group), m_deltaMs));
            io.out.print("sync group {}: delay {} ms\n", m_group, m_deltaMs);
            return kExitOk;
        }
        unsigned long time = 0;
        checkResult("getSensorFsyncStartTime", client.getSensorFsyncStartTime(time));
        if (m_json) {
            io.out.write(nlohmann::ordered_json({{"startTime", time}}).dump() + "\n");
        } else {
            io.out.print("first sync time: {}\n", time);
        }
        return kExitOk;
    }

private:
    CLI::App* m_set = nullptr;
    CLI::App* m_startTime = nullptr;
    uint32_t m_group = 0;
    unsigned long m_deltaMs = 0;
    uint32_t m_app = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeFsyncCommand() {
    return std::make_unique<FsyncCommand>();
}

}  // namespace sensorctl
