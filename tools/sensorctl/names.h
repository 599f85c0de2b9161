// sensorctl's sensor and application names, list syntax and facade choice: the consumer library's,
// which every front end shares.
#ifndef SENSORCTL_NAMES_H
#define SENSORCTL_NAMES_H

#include "sensor_consumer/names.h"

namespace sensorctl {
using namespace sensor_consumer;
}  // namespace sensorctl

#endif  // SENSORCTL_NAMES_H
