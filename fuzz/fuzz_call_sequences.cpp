// Call sequences on both facades against the scripted simulator, the platform's answers and the frame
// counters chosen by the fuzzer: every result is a documented code and nothing stays held at the end.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "call_sequences.h"
#include "fuzz_scratch.h"
#include "sensor_sim/control.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string scratch = [] {
        const std::string made = sipc_fuzz::makeScratchDir("calls");
        if (made.empty()) std::abort();
        setenv("VEXALOG_DIR", made.c_str(), 1);
        return made;
    }();
    sensor_sim::reset();
    sipc_test::ByteChoices choices(data, size);
    sipc_test::CallSequence sequence(scratch);
    for (int i = 0; i < 400 && !choices.exhausted() && sequence.step(choices); ++i) {
    }
    if (!sequence.finish()) {
        std::fprintf(stderr, "call sequence: %s\n", sequence.problem().c_str());
        std::abort();
    }
    return 0;
}
