// What the logging substitute did: the back-end set-up, every record written, and counters that show
// whether records were built or formatted at all.
#ifndef SENSOR_SIM_LOGS_H
#define SENSOR_SIM_LOGS_H

#include <cstdint>
#include <string>
#include <vector>

namespace sensor_sim {
namespace logs {

// One record as written (the most recent 100000 are kept).
struct Record {
    const void* logger;  // identity of the Logger object; null for an empty logger
    std::string appId;
    std::string ctxId;
    int level;
    std::string file;
    std::string function;
    int line;
    std::string text;   // the message (what was streamed into the record)
    std::string formatted;  // the record as the format string lays it out, without the line end
};

std::vector<Record> records();
void clear();

struct Counters {
    uint64_t filterCalls;  // fiterLog, counted while the journal is on (scripted mode or setJournal)
    uint64_t events;       // LogEvent objects constructed
    uint64_t insertions;   // LogStream insertions
    uint64_t written;      // records written
};
Counters counters();

// The level up to which fiterLog admits records offered with an empty logger; such records go to
// standard error. Default 3 (errors and warnings), or the VEXALOG_LEVEL environment variable at start.
void setEmptyLoggerLevel(int level);

// Path of the file the back end writes to ("" before initLogging, "-" for standard error).
std::string logFilePath();

}  // namespace logs
}  // namespace sensor_sim

#endif  // SENSOR_SIM_LOGS_H
