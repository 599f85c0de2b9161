// reg read|write: 8- and 16-bit sensor registers.
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "names.h"
#include "sensor_ipc_client.h"

namespace sensorctl {
namespace {

using vexa::cameraipcclient::SensorType;

class RegCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand("reg", "Read or write an 8- or 16-bit sensor register");
        cmd->require_subcommand(1);
        m_read = cmd->add_subcommand("read", "Read a register");
        m_write = cmd->add_subcommand("write", "Write a register");
        for (CLI::App* sub : {m_read, m_write}) {
            addSensorOption(*sub, m_sensor);
            addNumberOption(*sub, "-r,--reg", m_reg, 0xFFFF, "Register address (0-0xffff)")->required();
            sub->add_option("-w,--width", m_width, "Register width in bits: 8 (default) or 16")
                ->check(CLI::IsMember({8, 16}));
            addAppOption(*sub, "--app", m_app, "sensor control");
        }
        addNumberOption(*m_write, "-v,--value", m_value, 0xFFFF, "Value to write")->required();
        m_read->add_flag("--json", m_json, "Print JSON");
        return cmd;
    }

    int run(Output& io) override {
        vexa::sensor_access::SensorIpcClient client(static_cast<vexa::cameraipcclient::AppType>(m_app));
        const SensorType type = static_cast<SensorType>(m_sensor);
        const std::string label = fmt::format("{} ({})", sensorName(m_sensor), m_sensor);
        const unsigned digits = m_width / 4;
        if (m_write->parsed()) {
            if (m_width == 8 && m_value > 0xFF)
                throw UsageError(fmt::format("--value {:#x} does not fit 8 bits", m_value));
            if (m_width == 8) {
                checkResult("writeSensorRegUint8",
                            client.writeSensorRegUint8(type, m_reg, static_cast<unsigned char>(m_value), 0));
            } else {
                checkResult("writeSensorRegUint16", client.writeSensorRegUint16(type, m_reg, m_value, 0));
            }
            io.out.print("{} register {:#06x} <- {:#0{}x}\n", label, m_reg, m_value, digits + 2);
            return kExitOk;
        }
        unsigned value = 0;
        if (m_width == 8) {
            unsigned char v = 0;
            checkResult("readSensorRegUint8", client.readSensorRegUint8(type, m_reg, v));
            value = v;
        } else {
            unsigned short v = 0;
            checkResult("readSensorRegUint16", client.readSensorRegUint16(type, m_reg, v));
            value = v;
        }
        if (m_json) {
            io.out.write(nlohmann::ordered_json(
                             {{"sensor", m_sensor}, {"reg", m_reg}, {"width", m_width}, {"value", value}})
                             .dump() +
                         "\n");
        } else {
            io.out.print("{} register {:#06x} = {:#0{}x} ({})\n", label, m_reg, value, digits + 2, value);
        }
        return kExitOk;
    }

private:
    CLI::App* m_read = nullptr;
    CLI::App* m_write = nullptr;
    uint32_t m_sensor = 0;
    uint16_t m_reg = 0;
    uint16_t m_value = 0;
    int m_width = 8;
    uint32_t m_app = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeRegCommand() {
    return std::make_unique<RegCommand>();
}

}  // namespace sensorctl
