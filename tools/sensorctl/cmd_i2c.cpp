// i2c read|write: raw I2C transfers with a sensor.
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "names.h"
#include "numbers.h"
#include "sensor_ipc_client.h"

namespace sensorctl {
namespace {

using vexa::cameraipcclient::SensorType;

constexpr size_t kMaxTransfer = 0xFFFF;

std::string hexDump(uint16_t addr, const std::vector<uint8_t>& bytes) {
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 16) {
        out += fmt::format("{:04x}:", (addr + i) & 0xFFFF);
        for (size_t k = i; k < bytes.size() && k < i + 16; ++k) out += fmt::format(" {:02x}", bytes[k]);
        out += "\n";
    }
    return out;
}

class I2cCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand("i2c", "Read or write bytes over a sensor's I2C link");
        cmd->require_subcommand(1);
        m_read = cmd->add_subcommand("read", "Read bytes");
        m_write = cmd->add_subcommand("write", "Write bytes");
        for (CLI::App* sub : {m_read, m_write}) {
            addSensorOption(*sub, m_sensor);
            addNumberOption(*sub, "-a,--addr", m_addr, 0xFFFF, "I2C address (0-0xffff)")->required();
            addAppOption(*sub, "--app", m_app, "sensor control");
        }
        addNumberOption(*m_read, "-l,--len", m_len, kMaxTransfer, "Bytes to read (1-65535)", 1)->required();
        m_read->add_flag("--json", m_json, "Print JSON");
        m_write
            ->add_option_function<std::string>(
                "-d,--data",
                [this](const std::string& text) {
                    asValidation([&] { m_data = parseHexBytes(text, kMaxTransfer); });
                },
                "Bytes in hexadecimal: \"01 02 ff\", \"01,02,ff\" or \"0102ff\"")
            ->required()
            ->type_name("HEX");
        return cmd;
    }

    int run(Output& io) override {
        vexa::sensor_access::SensorIpcClient client(static_cast<vexa::cameraipcclient::AppType>(m_app));
        const SensorType type = static_cast<SensorType>(m_sensor);
        if (m_write->parsed()) {
            checkResult("writeSensorI2C",
                        client.writeSensorI2C(type, m_addr, m_data.data(),
                                              static_cast<unsigned short>(m_data.size()), 0));
            io.out.print("{} ({}) wrote {} bytes at {:#06x}\n", sensorName(m_sensor), m_sensor, m_data.size(),
                         m_addr);
            return kExitOk;
        }
        // The service may answer with fewer bytes (len is updated); the buffer covers any answer up to the
        // largest length the call can describe.
        std::vector<uint8_t> buffer(kMaxTransfer + 1);
        unsigned short len = m_len;
        checkResult("readSensorI2C", client.readSensorI2C(type, m_addr, buffer.data(), len));
        buffer.resize(len);
        if (m_json) {
            io.out.write(nlohmann::ordered_json(
                             {{"sensor", m_sensor}, {"addr", m_addr}, {"len", len}, {"data", buffer}})
                             .dump() +
                         "\n");
        } else {
            io.out.print("{} ({}) read {} of {} bytes at {:#06x}\n", sensorName(m_sensor), m_sensor, len,
                         m_len, m_addr);
            io.out.write(hexDump(m_addr, buffer));
        }
        return kExitOk;
    }

private:
    CLI::App* m_read = nullptr;
    CLI::App* m_write = nullptr;
    uint32_t m_sensor = 0;
    uint16_t m_addr = 0;
    uint16_t m_len = 0;
    std::vector<uint8_t> m_data;
    uint32_t m_app = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeI2cCommand() {
    return std::make_unique<I2cCommand>();
}

}  // namespace sensorctl
