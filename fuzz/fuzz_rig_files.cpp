// Rig and scenario files: any text is either loaded or refused with a located message, never a crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sensor_sim/control.h"
#include "sensor_sim/rig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool scripted = (sensor_sim::reset(), true);
    (void)scripted;
    // The first byte picks the reader, so one corpus serves both.
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string error =
        data[0] & 1 ? sensor_sim::rig::loadScenario(text, "fuzz") : sensor_sim::rig::load(text, "fuzz");
    // A refusal names its source: "fuzz:<line>:<column>: <problem>".
    if (!error.empty() && error.compare(0, 5, "fuzz:") != 0) std::abort();
    return 0;
}
