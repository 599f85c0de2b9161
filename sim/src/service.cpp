// The tools' view of the simulated vehicle: which one serves this process, and sensor-simd's state.
#include "sensor_sim/service.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sensor_sim/core.h"
#include "sensor_sim/internal/served_vehicle.h"

namespace sensor_sim {
namespace service {

std::string defaultSocketPath() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime == '/') return std::string(runtime) + "/sensor-sim/service.sock";
    return "/tmp/sensor-sim-" + std::to_string(::getuid()) + "/service.sock";
}

std::string socketFromEnvironment() {
    const char* named = std::getenv("SENSOR_SIM_SERVICE");
    if (named != nullptr && std::strcmp(named, "off") == 0) return "";
    return named != nullptr && *named != '\0' ? named : defaultSocketPath();
}

std::string queryState(const std::string& path, State* out) {
    return remote::queryState(path, out);
}

void chooseVehicle() {
    core::ensureFirstUse();
}

std::string vehicleDescription() {
    return remote::vehicleDescription();
}

std::string vehicleProblem() {
    return remote::problem();
}

}  // namespace service
}  // namespace sensor_sim
