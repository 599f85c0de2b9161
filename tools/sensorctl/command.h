// One sensorctl command: it adds its subcommand and options to the parser, then runs when chosen.
#ifndef SENSORCTL_COMMAND_H
#define SENSORCTL_COMMAND_H

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "sink.h"

namespace sensorctl {

class Command {
public:
    virtual ~Command() = default;
    // Adds the command to `parent` and returns its subcommand.
    virtual CLI::App* configure(CLI::App& parent) = 0;
    // Runs after a successful parse; returns the exit status (errors are thrown as ToolError).
    virtual int run(Output& io) = 0;
};

std::unique_ptr<Command> makeSensorsCommand();
std::unique_ptr<Command> makeStreamCommand();
std::unique_ptr<Command> makeDumpCommand();
std::unique_ptr<Command> makeConvertCommand();
std::unique_ptr<Command> makeRegCommand();
std::unique_ptr<Command> makeI2cCommand();
std::unique_ptr<Command> makeFsyncCommand();
std::unique_ptr<Command> makeDiagCommand();
std::unique_ptr<Command> makeStatsCommand();
std::unique_ptr<Command> makeServiceCommand();
#if SENSORCTL_VIEW
std::unique_ptr<Command> makeViewCommand();
#endif
// MCAP recordings: record, and info about a recording.
std::unique_ptr<Command> makeRecordCommand();
std::unique_ptr<Command> makeInfoCommand();

// Option helpers shared by the commands: values are checked while parsing, so a bad one is a usage
// error (exit 2) before any library call.
void addSensorOption(CLI::App& cmd, uint32_t& sensor, bool required = true);
void addSensorListOption(CLI::App& cmd, std::vector<uint32_t>& sensors, bool& given);
void addAppOption(CLI::App& cmd, const std::string& name, uint32_t& app, const std::string& what);
// A time in seconds, above zero and at most max.
CLI::Option* addSecondsOption(CLI::App& cmd, const std::string& name, double& value, double max,
                              const std::string& description);
// A pair of flags, --NAME and --no-NAME, that set `value` to true and false.
void addSwitch(CLI::App& cmd, const std::string& name, bool& value, const std::string& on,
               const std::string& off);
// An unsigned number (decimal or 0x hexadecimal) from min to max.
template <typename T>
CLI::Option* addNumberOption(CLI::App& cmd, const std::string& name, T& value, uint64_t max,
                             const std::string& description, uint64_t min = 0);

}  // namespace sensorctl

#include "command_options.h"

#endif  // SENSORCTL_COMMAND_H
