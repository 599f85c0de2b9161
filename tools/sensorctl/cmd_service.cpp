// service: the state of the sensor-simd that serves this PC: its consumers (process, application,
// channel, streams, frames received and held, releases refused) and each stream's pool.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "command.h"
#include "errors.h"
#include "names.h"

#if SENSORCTL_SIMULATOR
#include "sensor_sim/service.h"
#endif

namespace sensorctl {
namespace {

class ServiceCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "service", "State of sensor-simd (host platform only): consumers, held frames, pools and drops");
        cmd->add_flag("--json", m_json, "Print JSON");
        return cmd;
    }

    int run(Output& io) override {
#if SENSORCTL_SIMULATOR
        std::string path = sensor_sim::service::socketFromEnvironment();
        if (path.empty()) path = sensor_sim::service::defaultSocketPath();
        sensor_sim::service::State state;
        if (const std::string error = sensor_sim::service::queryState(path, &state); !error.empty())
            throw IoError("no sensor-simd: " + error);
        if (m_json) {
            nlohmann::ordered_json doc{{"socket", path},
                                       {"clients", state.clients},
                                       {"maxClients", state.maxClients},
                                       {"refused", {{"connections", state.refusals.connections},
                                                    {"protocolErrors", state.refusals.protocolErrors},
                                                    {"timeouts", state.refusals.timeouts}}},
                                       {"consumers", nlohmann::json::array()},
                                       { "pools",
                                         nlohmann::json::array() }};
            for (const auto& c : state.consumers) {
                doc["consumers"].push_back({{"pid", c.pid},
                                            {"application", c.app},
                                            {"channel", c.channel},
                                            {"streams", c.streams},
                                            {"framesReceived", c.received},
                                            {"framesHeld", c.held},
                                            { "releasesRefused",
                                              c.refused }});
            }
            for (const auto& o : state.outputs) {
                doc["pools"].push_back({{"stream", o.streamId},
                                        {"output", o.output == 1 ? "processed" : "capture"},
                                        {"size", o.poolSize},
                                        {"inUse", o.inUse},
                                        {"drops", o.poolDrops},
                                        {"produced", o.produced},
                                        { "delivered",
                                          o.delivered }});
            }
            io.out.write(doc.dump() + "\n");
            return kExitOk;
        }
        io.out.print("sensor-simd at {}\n{} of {} connections; refused {} connections, {} protocol errors, {} "
                     "time-outs\n{} consumer(s)\n",
                     path, state.clients, state.maxClients, state.refusals.connections,
                     state.refusals.protocolErrors, state.refusals.timeouts, state.consumers.size());
        for (const auto& c : state.consumers) {
            io.out.print("  pid {:<7} {:<8} {:<28} streams {:<10} received {:<7} held {:<3} refused {}\n",
                         c.pid, c.app, c.channel, fmt::format("{}", fmt::join(c.streams, ",")), c.received,
                         c.held, c.refused);
        }
        io.out.print("pools\n");
        for (const auto& o : state.outputs) {
            io.out.print("  stream {:>2} {:<9} in use {:>2}/{:<2} drops {:<6} produced {:<8} delivered {}\n",
                         o.streamId, o.output == 1 ? "processed" : "capture", o.inUse, o.poolSize,
                         o.poolDrops, o.produced, o.delivered);
        }
        return kExitOk;
#else
        (void)io;
        throw UsageError("service: only the host platform has a simulated vehicle");
#endif
    }

private:
    bool m_json = false;
};

}  // namespace

std::unique_ptr<Command> makeServiceCommand() {
    return std::make_unique<ServiceCommand>();
}

}  // namespace sensorctl
