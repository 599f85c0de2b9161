// Messages of library failures: the call, then the result code by name and number.
#include "errors.h"

#include <fmt/format.h>

#include "sensor_consumer/errors.h"

namespace sensorctl {

const char* const kExitStatusTable =
    "Exit status:\n"
    "  0    success\n"
    "  1    failed: a library call answered a failure (its result code is printed by name and number)\n"
    "  2    usage: unknown command or option, bad value, a sensor the chosen API does not serve, none of "
    "the chosen sensors present, or a rig, scenario or replay file that cannot be used\n"
    "  3    failed: a file cannot be read or written (a partial file is removed), a dump file is shorter "
    "than its frames, output cannot be written\n"
    "  4    failed: no stream connection within --connect-timeout, or not the frames asked for within "
    "--timeout\n"
    "  5    unavailable: the sensor-simd asked for (--service, SENSOR_SIM_SERVICE) does not answer, or "
    "went away while in use, or view cannot listen on its address (--listen)\n"
    "  130  interrupted: Ctrl-C while connecting or waiting for frames (stream ends normally on Ctrl-C, "
    "with its summary)\n";

LibraryError::LibraryError(const std::string& call, int32_t result)
    : LibraryError(call, result, std::string()) {}

LibraryError::LibraryError(const std::string& call, int32_t result, const std::string& context)
    : ToolError(kExitLibrary, sensor_consumer::Error(call, result, context).what()), m_result(result) {}

std::string serviceProblem(const std::string& socket, const std::string& problem) {
    const std::string prefix = socket + ": ";
    const std::string cause =
        problem.compare(0, prefix.size(), prefix) == 0 ? problem.substr(prefix.size()) : problem;
    return fmt::format("sensor-simd at {} does not answer: {}", socket, cause);
}

void checkResult(const char* call, int32_t result) {
    if (result != 0) throw LibraryError(call, result);
}

}  // namespace sensorctl
