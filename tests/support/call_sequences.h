// Random call sequences on both facades against the scripted simulator, with faults injected into the
// platform's answers: the driver behind the call-sequence fuzz target and the scripted soak. Each step
// checks that the library answered one of its documented codes; finish() releases what the sequence
// still holds, de-initialises, and checks that no frame stays held beyond the raw frames that pairing
// keeps queued or whose release an injected fault refused.
#ifndef SIPC_TESTS_CALL_SEQUENCES_H
#define SIPC_TESTS_CALL_SEQUENCES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "camera_ipc_client.h"
#include "sensor_ipc_client.h"
#include "sensor_sim/buffers.h"
#include "sensor_sim/streams.h"

namespace sipc_test {

// Where the sequence's choices come from: a fuzzer's bytes or a seeded generator.
class Choices {
public:
    virtual ~Choices() = default;
    // A value below bound (bound > 0).
    virtual uint32_t next(uint32_t bound) = 0;
    virtual bool exhausted() const = 0;
};

class ByteChoices : public Choices {
public:
    ByteChoices(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    uint32_t next(uint32_t bound) override {
        uint32_t v = 0;
        for (uint32_t range = 1; range < bound && m_pos < m_size; range <<= 8) v = (v << 8) | m_data[m_pos++];
        return v % bound;
    }
    bool exhausted() const override { return m_pos >= m_size; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

class RandomChoices : public Choices {
public:
    explicit RandomChoices(uint64_t seed) : m_engine(seed) {}
    uint32_t next(uint32_t bound) override { return static_cast<uint32_t>(m_engine() % bound); }
    bool exhausted() const override { return false; }

private:
    std::mt19937_64 m_engine;
};

struct SequenceCounts {
    uint64_t steps = 0;
    uint64_t framesTaken = 0;     // gets that returned 0, both APIs
    uint64_t framesReleased = 0;  // releases that returned 0
    uint64_t pairedFrames = 0;    // legacy frames that came with their raw frame
    uint64_t cpuCopies = 0;
    uint64_t dumps = 0;
    uint64_t statistics = 0;
    uint64_t faults = 0;  // platform calls told to fail
    uint64_t initCycles = 0;
    // Held at the end, after the sequence released what it had and de-initialised:
    uint64_t rawKept = 0;      // raw frames that pairing keeps queued (or whose release a fault refused)
    uint64_t givenUp = 0;      // frames the library gave up when an injected fault refused its release
    uint64_t unexplained = 0;  // anything else: a fault
};

class CallSequence {
public:
    // Dumps land in `scratchDir` (the working directory is changed to it for the sequence's lifetime and
    // restored afterwards); each dump file is removed once written.
    explicit CallSequence(const std::string& scratchDir);
    ~CallSequence();
    CallSequence(const CallSequence&) = delete;
    CallSequence& operator=(const CallSequence&) = delete;

    // One operation; false once a property failed (problem() says which).
    bool step(Choices& choices);
    // Releases everything the sequence holds with faults cleared, de-initialises both clients and
    // checks the frames left held.
    bool finish();

    const std::string& problem() const { return m_problem; }
    const SequenceCounts& counts() const { return m_counts; }

private:
    bool documented(int32_t code, const char* call);
    void pushFrames(Choices& choices);
    void injectFault(Choices& choices);
    void legacyGet(Choices& choices);
    void currentGet(Choices& choices);
    void release(Choices& choices);
    void noteOrphan(uint32_t stream, uint32_t objIndex, uint64_t counter);
    void forgetDroppedFrames();
    void trace(const char* what, int64_t a, int64_t b = 0, int64_t c = 0);
    void fail(std::string problem);
    void removeDumps();

    vexa::cameraipcclient::CCameraIpcClient m_legacy;
    vexa::sensor_access::SensorIpcClient m_current;
    std::vector<vexa::cameraipcclient::BufFrameObj> m_legacyHeld;
    std::vector<vexa::cameraipcclient::FrameBufObj> m_currentHeld;
    std::vector<std::shared_ptr<sensor_sim::Buffer>> m_buffers;
    std::shared_ptr<vexa::vexalog::Logger> m_logger;
    uint64_t m_counters[22] = {};
    uint64_t m_releaseFaults = 0;
    bool m_legacyUp = false;  // the last init and start both succeeded, and no de-init since
    bool m_currentUp = false;
    // Frames whose release by the library itself an injected fault refused.
    std::vector<sensor_sim::streams::Held> m_orphans;
    std::string m_scratch;
    std::string m_previousDir;
    std::string m_problem;
    SequenceCounts m_counts;
    // The last steps, for the report of a failed property.
    struct TraceEntry {
        const char* what;
        int64_t a, b, c;
    };
    static constexpr size_t kTraceLength = 48;
    TraceEntry m_trace[kTraceLength] = {};
    size_t m_traced = 0;
};

}  // namespace sipc_test

#endif  // SIPC_TESTS_CALL_SEQUENCES_H
