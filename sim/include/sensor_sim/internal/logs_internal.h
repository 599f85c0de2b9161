// What the logging substitute needs from the simulator: counters, the empty-logger level, the back end
// (the file records go to) and the capture of written records. Not for tests (they use logs.h).
#ifndef SENSOR_SIM_INTERNAL_LOGS_INTERNAL_H
#define SENSOR_SIM_INTERNAL_LOGS_INTERNAL_H

#include <string>

#include "sensor_sim/logs.h"

namespace sensor_sim {
namespace logs {
namespace internal {

// Destinations of the back end, numbered as the logging library's modes.
enum class Mode { kConsole = 1, kFile = 2, kConsoleAndFile = 3 };

void countFilter();
void countEvent();
void countInsertion();

// Level up to which records offered with an empty logger are admitted.
int emptyLoggerLevel();

// Sets up the back end once (until reset): records of real loggers go to "<dir>/<appId>.log", appended,
// or to standard error when that file cannot be opened. A set-up that already happened is kept.
void setUpBackEnd(const std::string& dir, const std::string& appId, int mode);

// Captures the record, counts it as written and writes its formatted text plus a line end to the back
// end, or to standard error when `toBackEnd` is false or no back end is set up.
void write(Record record, bool toBackEnd);

}  // namespace internal
}  // namespace logs
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_LOGS_INTERNAL_H
