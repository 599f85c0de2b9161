// The served vehicle: sensor-simd's vehicle behind the vehicle interface. Which vehicle serves a process
// is decided once, at its first platform call: SENSOR_SIM_SERVICE names a socket (or "off"), else the
// default socket is tried, else the in-process vehicle runs. Every call that waits on the service has a
// bound, and a service that is gone or misbehaves makes calls fail with the platform's error statuses.
#ifndef SENSOR_SIM_INTERNAL_SERVED_VEHICLE_H
#define SENSOR_SIM_INTERNAL_SERVED_VEHICLE_H

#include <string>

#include "sensor_sim/internal/vehicle.h"
#include "sensor_sim/service.h"

namespace sensor_sim {
namespace remote {

// Called at the first platform call of a live process; true when this process is now attached (or was
// told to attach and could not: its calls then fail).
bool attachFromEnvironment();
// The served vehicle this process is attached to, or null.
vehicle::Vehicle* attachedVehicle();
// One line for people: which vehicle this process uses.
std::string vehicleDescription();
// Why the named service cannot serve this process ("" when it can, or when it is not attached).
std::string problem();

// Asks the service at `path` for its state; "" or what went wrong.
std::string queryState(const std::string& path, service::State* out);

}  // namespace remote
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_SERVED_VEHICLE_H
