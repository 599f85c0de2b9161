// Control API of the simulated camera-access service, for tests: reset, failure injection, delays and
// the journal of platform calls. The per-area controls live in the headers included at the end.
//
// A process that never calls into this API sees the live default vehicle (see rig.h). reset() switches
// to scripted mode: the default rig's sensors still answer the camera-access calls, but no producer runs;
// tests push the frames they want (streams.h).
#ifndef SENSOR_SIM_CONTROL_H
#define SENSOR_SIM_CONTROL_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sensor_sim {

// Back to defaults: scripted mode, the built-in rig's camera-access answers, no frames queued or held,
// no registered consumers' streams, no injected statuses or delays, an empty journal and log capture.
void reset();

// After letting `skip` calls through, the next `count` calls of platform function `fn` answer `status`
// instead of their normal result (count < 0: every call until reset() or clearInjections()). `fn` is the function's name as the
// platform header spells it: "readSensorRegUint8", "NvSciBufObjGetPixels", "getFrame", "initLogging"...
// What an injected status means for each function is documented in the area headers; in short:
// camera-access calls still write their outputs, then answer the status; NvSciBuf and stream calls
// answer the status without doing their work; createLogger answers an empty logger for any status.
void injectStatus(const std::string& fn, int64_t status, int count = 1, int skip = 0);
void clearInjections();

// Every call of `fn` takes at least this long (zero removes the delay).
void setDelay(const std::string& fn, std::chrono::microseconds delay);

// One platform call: its name and its arguments in order, joined by ","; integers in decimal, strings
// as they are, vectors as "[a b c]", null pointers as "null", other pointers as "ptr".
struct Call {
    std::string fn;
    std::string args;
};

// By default the journal records every platform call in scripted mode (after reset()) and nothing in live
// mode, where an application's calls build no journal text and take no journal lock. setJournal() turns
// it on or off whatever the mode (a live test that reads the journal, a benchmark that wants live costs
// over scripted frames); reset() returns to the default.
void setJournal(bool on);

// Calls since the last reset()/clearJournal(), oldest first (the most recent 100000 are kept).
std::vector<Call> journal();
// Arguments of each call of one function, oldest first.
std::vector<std::string> journalOf(const std::string& fn);
size_t callCount(const std::string& fn);
void clearJournal();

}  // namespace sensor_sim

#include "sensor_sim/buffers.h"
#include "sensor_sim/camera.h"
#include "sensor_sim/logs.h"
#include "sensor_sim/rig.h"
#include "sensor_sim/stats.h"
#include "sensor_sim/streams.h"

#endif  // SENSOR_SIM_CONTROL_H
