// The parser and the global options (simulator files), the dispatch to the chosen command, and the one
// place where failures become messages and exit statuses.
#include "tool.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "command.h"
#include "errors.h"
#include "interrupt.h"
#include "names.h"
#include "sensor_consumer/errors.h"

#if SENSORCTL_SIMULATOR
#include "sensor_sim/service.h"
#endif

namespace sensorctl {
namespace {

constexpr const char* kEnvironment =
    "\n"
    "Host platform only: --rig and --scenario choose the in-process simulated vehicle (SENSOR_SIM_RIG,\n"
    "SENSOR_SIM_SCENARIO), --service attaches to a running sensor-simd (SENSOR_SIM_SERVICE);\n"
    "VEXALOG_DIR moves the library's log file.";

std::string versionText() {
    std::string text = fmt::format("sensorctl {}", SENSORCTL_VERSION);
#if SENSORCTL_SIMULATOR
    text += fmt::format("\nsensor-simd protocol {}", sensor_sim::service::protocolVersion());
#endif
    return text;
}

// The simulator reads these when the library first reaches it; the tool changes its working directory
// for dumps, so the paths are made absolute first.
void exportSimulatorFile(const char* variable, const std::string& path) {
    if (path.empty()) return;
    const std::string absolute = std::filesystem::absolute(path).string();
    if (::setenv(variable, absolute.c_str(), 1) != 0) throw IoError(fmt::format("cannot set {}", variable));
}

// The vehicle the global options ask for. A rig or scenario is for the in-process vehicle: with a named
// service as well the choice is contradictory, and without one the default socket is not tried, so that
// a sensor-simd running there never takes the place of the rig asked for.
void chooseSimulatedVehicle(const std::string& rig, const std::string& scenario, const std::string& service) {
    const char* variable = std::getenv("SENSOR_SIM_SERVICE");
    const std::string named = !service.empty() ? service : (variable != nullptr ? variable : "");
    if ((!rig.empty() || !scenario.empty()) && !named.empty() && named != "off")
        throw UsageError(
            fmt::format("--rig and --scenario choose the in-process vehicle, but {} names the "
                        "sensor-simd at {}: give one or the other",
                        service.empty() ? "SENSOR_SIM_SERVICE" : "--service", named));
    exportSimulatorFile("SENSOR_SIM_RIG", rig);
    exportSimulatorFile("SENSOR_SIM_SCENARIO", scenario);
    const std::string chosen = !service.empty() ? service : (!rig.empty() || !scenario.empty() ? "off" : "");
    if (!chosen.empty() && ::setenv("SENSOR_SIM_SERVICE", chosen.c_str(), 1) != 0)
        throw IoError("cannot set SENSOR_SIM_SERVICE");
}

int parseError(Output& io, const CLI::App& app, const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) {  // --help, --help-all: the parser's own output
        std::ostringstream text;
        app.exit(e, text, text);
        io.out.write(text.str());
        return kExitOk;
    }
    io.err.print("sensorctl: {}\nRun 'sensorctl --help' (or 'sensorctl COMMAND --help') for usage.\n",
                 e.what());
    return kExitUsage;
}

}  // namespace

void addSensorOption(CLI::App& cmd, uint32_t& sensor, bool required) {
    auto* opt =
        cmd.add_option_function<std::string>(
               "-s,--sensor",
               [&sensor](const std::string& text) { asValidation([&] { sensor = parseSensor(text); }); },
               "Sensor id 0-21 or name (wide, frontslave, midlidar...)")
            ->type_name("SENSOR");
    if (required) opt->required();
}

void addSensorListOption(CLI::App& cmd, std::vector<uint32_t>& sensors, bool& given) {
    cmd.add_option_function<std::string>(
           "-s,--sensors",
           [&sensors, &given](const std::string& text) {
               asValidation([&] { sensors = parseSensorList(text); });
               given = true;
           },
           "Sensors: ids, ranges (0-7), names (wide, narrow, midlidar...) or groups (cameras, radars, "
           "lidars, all), comma-separated; default every present sensor")
        ->type_name("LIST");
}

void addAppOption(CLI::App& cmd, const std::string& name, uint32_t& app, const std::string& what) {
    cmd.add_option_function<std::string>(
           name, [&app](const std::string& text) { asValidation([&] { app = parseApp(text); }); },
           fmt::format("Application of the {} (number or name, e.g. {}); default {}", what,
                       findApp(app)->enumerator, appLabel(app)))
        ->type_name("APP");
}

CLI::Option* addSecondsOption(CLI::App& cmd, const std::string& name, double& value, double max,
                              const std::string& description) {
    return cmd.add_option(name, value, description)
        ->check(CLI::Validator(CLI::Range(0.0, max)).description(""))
        ->check(CLI::Validator(
            [](std::string& text) {
                double v = 0;
                return CLI::detail::lexical_cast(text, v) && v > 0 ? std::string() : "must be above zero";
            },
            ""))
        ->type_name("SECONDS");
}

void addSwitch(CLI::App& cmd, const std::string& name, bool& value, const std::string& on,
               const std::string& off) {
    cmd.add_flag_callback(
        "--" + name, [&value] { value = true; }, on);
    cmd.add_flag_callback(
        "--no-" + name, [&value] { value = false; }, off);
}

int runTool(int argc, char** argv) {
    Output io = setUpOutput();
    try {
        CLI::App app{
            "sensorctl: sensors, streams, dumps and sensor control through the sensor IPC client library",
            "sensorctl"};
        app.footer(std::string(kExitStatusTable) + kEnvironment);
        app.set_version_flag("--version", versionText(), "Project and protocol versions");
        app.require_subcommand(1);
        app.fallthrough();
        app.set_help_all_flag("--help-all", "Help of every command");
        std::string rig, scenario;
        app.add_option("--rig", rig, "Simulated vehicle (host platform only): rig file, sets SENSOR_SIM_RIG")
            ->check(CLI::Validator(CLI::ExistingFile).description(""))
            ->type_name("FILE");
        app.add_option("--scenario", scenario,
                       "Scripted faults (host platform only): scenario file, sets SENSOR_SIM_SCENARIO")
            ->check(CLI::Validator(CLI::ExistingFile).description(""))
            ->type_name("FILE");

        std::string service;
        app.add_option("--service", service,
                       "Simulated vehicle (host platform only): socket of a running sensor-simd, or off, "
                       "sets SENSOR_SIM_SERVICE")
            ->type_name("PATH");

        std::vector<std::pair<CLI::App*, std::unique_ptr<Command>>> commands;
        std::vector<std::unique_ptr<Command> (*)()> makers{
            makeSensorsCommand, makeStreamCommand,  makeDumpCommand,   makeConvertCommand,
            makeRegCommand,     makeI2cCommand,     makeFsyncCommand,  makeDiagCommand,
            makeStatsCommand,   makeServiceCommand, makeRecordCommand, makeInfoCommand};
#if SENSORCTL_VIEW
        makers.push_back(makeViewCommand);
#endif
        for (auto make : makers) {
            std::unique_ptr<Command> command = make();
            CLI::App* sub = command->configure(app);
            commands.emplace_back(sub, std::move(command));
        }
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& e) {
            return parseError(io, app, e);
        }
        chooseSimulatedVehicle(rig, scenario, service);
        installInterruptHandlers();
        for (auto& [sub, command] : commands) {
            if (!sub->parsed()) continue;
#if SENSORCTL_SIMULATOR
            // Commands that reach the vehicle say which one answers, and fail when it is not the one asked
            // for: a named sensor-simd that does not answer, a rig or scenario file that cannot be used.
            if (sub->get_name() != "convert" && sub->get_name() != "service" && sub->get_name() != "info") {
                sensor_sim::service::chooseVehicle();
                io.err.print("sensorctl: vehicle: {}\n", sensor_sim::service::vehicleDescription());
                if (const std::string problem = sensor_sim::service::vehicleProblem(); !problem.empty())
                    throw UnavailableError(
                        serviceProblem(sensor_sim::service::socketFromEnvironment(), problem));
                if (const std::string problem = sensor_sim::service::vehicleFileProblem(); !problem.empty())
                    throw UsageError(problem);
            }
#endif
            return command->run(io);
        }
        return kExitUsage;
    } catch (const ToolError& e) {
        try {
            if (*e.what() != '\0') io.err.print("sensorctl: {}\n", e.what());
        } catch (const ToolError&) {
        }
        return e.code();
    } catch (const sensor_consumer::Error& e) {
        // A library call of the consumer library's sessions or frame geometry.
        try {
            io.err.print("sensorctl: {}\n", e.what());
        } catch (const ToolError&) {
        }
        return kExitLibrary;
    } catch (const std::exception& e) {
        try {
            io.err.print("sensorctl: unexpected failure: {}\n", e.what());
        } catch (const ToolError&) {
        }
        return kExitIo;
    }
}

}  // namespace sensorctl
