// sensors: presence, type, information bytes, versions and link state of every sensor id.
#include <map>
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "names.h"
#include "sensor_ipc_client.h"

namespace sensorctl {
namespace {

using vexa::cameraipcclient::SensorInfo;
using vexa::cameraipcclient::SensorType;
using vexa::cameraipcclient::SensorTypeInfo;

std::string hexBytes(const uint8_t* data, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += fmt::format("{}{:02x}", i == 0 ? "" : " ", data[i]);
    return out.empty() ? "-" : out;
}

class SensorsCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand("sensors",
                                              "Table of every sensor id 0-21: presence, type, "
                                              "information bytes, versions, link and video state");
        cmd->add_flag("--json", m_json, "Print JSON instead of a table");
        addAppOption(*cmd, "--app", m_app, "queries");
        return cmd;
    }

    int run(Output& io) override {
        vexa::sensor_access::SensorIpcClient client(static_cast<vexa::cameraipcclient::AppType>(m_app));
        std::vector<SensorTypeInfo> types;
        checkResult("getAllSensorTypeInfo", client.getAllSensorTypeInfo(types));
        std::vector<SensorInfo> infos;
        checkResult("getSensorInfo", client.getSensorInfo(infos));
        unsigned int linkMask = 0, videoMask = 0;
        std::map<SensorType, unsigned char> status;
        const int32_t statusResult = client.getSensorStatus(linkMask, videoMask, status);
        const bool haveStatus = statusResult == 0;

        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        std::string table = fmt::format(
            "{:>2}  {:<15} {:<6} {:<7} {:>4}  {:<17}  {:<12} {:<12} {:<4} {:<5} {}\n", "ID", "NAME", "KIND",
            "PRESENT", "TYPE", "INFO", "VERSION0", "VERSION1", "LINK", "VIDEO", "STATE");
        for (uint32_t id = 0; id < kSensorCount; ++id) {
            const SensorEntry& entry = sensorEntry(id);
            const SensorTypeInfo type = id < types.size() ? types[id] : SensorTypeInfo{false, 0};
            const SensorInfo* info = id < infos.size() ? &infos[id] : nullptr;
            const bool link = (linkMask >> id) & 1u;
            const bool video = (videoMask >> id) & 1u;
            auto state = status.find(static_cast<SensorType>(id));
            nlohmann::ordered_json row = {{"id", id},
                                          {"name", entry.name},
                                          {"kind", kindName(entry.kind)},
                                          {"present", type.present},
                                          {"typeCode", type.typeCode}};
            if (info != nullptr) {
                row["info"] = std::vector<uint8_t>(info->sensorAttr, info->sensorAttr + 6);
                row["version0"] = info->verData0;
                row["version1"] = info->verData1;
            }
            row["link"] = haveStatus ? nlohmann::ordered_json(link) : nlohmann::ordered_json(nullptr);
            row["video"] = haveStatus ? nlohmann::ordered_json(video) : nlohmann::ordered_json(nullptr);
            row["state"] = state != status.end() ? nlohmann::ordered_json(state->second)
                                                 : nlohmann::ordered_json(nullptr);
            list.push_back(row);
            table += fmt::format("{:>2}  {:<15} {:<6} {:<7} {:>4}  {:<17}  {:<12} {:<12} {:<4} {:<5} {}\n",
                                 id, entry.name, kindName(entry.kind), type.present ? "yes" : "no",
                                 type.typeCode, info ? hexBytes(info->sensorAttr, 6) : "-",
                                 info ? hexBytes(info->verData0.data(), info->verData0.size()) : "-",
                                 info ? hexBytes(info->verData1.data(), info->verData1.size()) : "-",
                                 haveStatus ? (link ? "up" : "down") : "?",
                                 haveStatus ? (video ? "on" : "off") : "?",
                                 state != status.end() ? fmt::format("{}", state->second) : "-");
        }
        if (m_json) {
            nlohmann::ordered_json doc = {{"sensors", list}};
            doc["linkMask"] = haveStatus ? nlohmann::ordered_json(linkMask) : nlohmann::ordered_json(nullptr);
            doc["videoMask"] =
                haveStatus ? nlohmann::ordered_json(videoMask) : nlohmann::ordered_json(nullptr);
            io.out.write(doc.dump(2) + "\n");
        } else {
            io.out.write(table);
            if (haveStatus) io.out.print("link mask {:#08x}, video mask {:#08x}\n", linkMask, videoMask);
        }
        // The table is still printed without the link state; the failure decides the exit status.
        checkResult("getSensorStatus", statusResult);
        return kExitOk;
    }

private:
    bool m_json = false;
    uint32_t m_app = vexa::cameraipcclient::APP_SENSOR_DEMO;
};

}  // namespace

std::unique_ptr<Command> makeSensorsCommand() {
    return std::make_unique<SensorsCommand>();
}

}  // namespace sensorctl
