// The call-sequence driver: operations drawn from the choices, documented codes checked after each.
#include "call_sequences.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "sensor_sim/control.h"
#include "vexa_log.h"

namespace sipc_test {

namespace {

using namespace vexa::cameraipcclient;

constexpr uint32_t kProcessed = 1;
constexpr uint32_t kCapture = 0;
constexpr AppType kLegacyApp = APP_CAMERA_DEMO;
constexpr AppType kCurrentApp = APP_SENSOR_DEMO;
constexpr uint32_t kUnfilled = 0xFFFFFFFFu;  // a frame counter the tests never reach
constexpr uint32_t kRadarsAndLidars[] = {12, 13, 14, 16, 17, 18, 19, 20, 21};

// Platform calls a fault may hit, and statuses they may answer. getStreamState is left out: a state
// that never decides keeps start waiting, by design.
const char* const kFaultable[] = {"getFrame",
                                  "releaseFrame",
                                  "initConsumer",
                                  "regConsumerStream",
                                  "initConsumerDone",
                                  "detectAllSensors",
                                  "NvSciBufObjGetAttrList",
                                  "NvSciBufAttrListGetAttrs",
                                  "NvSciBufObjGetPixels",
                                  "NvSciBufObjGetConstCpuPtr",
                                  "get_image_Brightnessdata_C"};
constexpr int64_t kFaultStatuses[] = {1, 2, 3, 5, 9, 10, -1, 0x10000};

uint8_t* roiArea() {
    static std::vector<uint8_t> area(65536);
    return area.data();
}

uint32_t outputOf(uint32_t stream) {
    return stream <= 7 ? kProcessed : kCapture;
}

}  // namespace

CallSequence::CallSequence(const std::string& scratchDir)
    : m_legacy(kLegacyApp), m_current(kCurrentApp), m_scratch(scratchDir) {
    // Nothing reads the journal of platform calls here, and building it would be most of the work.
    sensor_sim::setJournal(false);
    // Warnings and failures only: the records of every frame would be most of the work.
    vexa::vexalog::CtxFileInfo ctx{0, "%l [%m]%n"};
    m_logger = vexa::vexalog::createLogger("SEQ", "con.SEQ", vexa::vexalog::LogLevel::kWarn, ctx);
    char previous[4096];
    if (getcwd(previous, sizeof(previous)) != nullptr) m_previousDir = previous;
    if (chdir(m_scratch.c_str()) != 0) m_problem = "cannot enter " + m_scratch;
    // The frames' buffers and the statistics area are made once per process: sequences are short.
    static const std::vector<std::shared_ptr<sensor_sim::Buffer>> buffers = [] {
        std::vector<std::shared_ptr<sensor_sim::Buffer>> made = {
            sensor_sim::makeBuffer(sensor_sim::BufferSpec::yuv420(64, 32)),
            sensor_sim::makeBuffer(sensor_sim::BufferSpec::single(64, 8, 16, sensor_sim::kColorBayer16)),
            sensor_sim::makeBuffer(sensor_sim::BufferSpec::single(48, 4, 8, sensor_sim::kColorA8)),
            sensor_sim::makeBuffer(sensor_sim::BufferSpec::single(40, 6, 16, sensor_sim::kColorA16)),
            nullptr};
        for (auto& b : made)
            if (b) sensor_sim::fillPattern(*b);
        return made;
    }();
    m_buffers = buffers;
}

CallSequence::~CallSequence() {
    if (!m_previousDir.empty() && chdir(m_previousDir.c_str()) != 0) std::perror("chdir");
}

void CallSequence::trace(const char* what, int64_t a, int64_t b, int64_t c) {
    m_trace[m_traced++ % kTraceLength] = TraceEntry{what, a, b, c};
}

void CallSequence::fail(std::string problem) {
    if (!m_problem.empty()) return;
    m_problem = std::move(problem) + "; last steps:";
    for (size_t i = m_traced > kTraceLength ? m_traced - kTraceLength : 0; i < m_traced; ++i) {
        const TraceEntry& t = m_trace[i % kTraceLength];
        m_problem += "\n  " + std::string(t.what) + " " + std::to_string(t.a) + " " + std::to_string(t.b) +
                     " " + std::to_string(t.c);
    }
}

bool CallSequence::documented(int32_t code, const char* call) {
    static const std::set<int32_t> kCodes = {RESULT_OK,
                                             RESULT_FAILED,
                                             RESULT_ERROR,
                                             RESULT_BAD_PARAM,
                                             RESULT_ACCESS_FAILED,
                                             RESULT_STREAM_CODE_9,
                                             RESULT_STREAM_CODE_10,
                                             RESULT_NOT_INIT,
                                             RESULT_BUFFER_TOO_SMALL,
                                             RESULT_SERVICE_FAILED};
    if (kCodes.count(code) != 0) return true;
    fail(std::string(call) + " answered " + std::to_string(code));
    return false;
}

void CallSequence::pushFrames(Choices& choices) {
    // Mostly the paired cameras and the radars and lidars, which the clients register by default.
    const uint32_t pick = choices.next(4);
    const uint32_t stream = pick < 2    ? 2 + choices.next(2)
                            : pick == 2 ? kRadarsAndLidars[choices.next(9)]
                                        : choices.next(12);
    // Counters mostly advance by one; sometimes frames are lost or a counter comes again.
    const uint32_t move = choices.next(10);
    uint64_t& counter = m_counters[stream];
    counter = move < 7   ? counter + 1
              : move < 9 ? counter + 2 + choices.next(4)
                         : counter - std::min<uint64_t>(counter, 1);
    sensor_sim::streams::FrameSpec frame;
    frame.counter = counter;
    frame.objIndex = static_cast<uint16_t>(choices.next(9));
    frame.buffer = m_buffers[stream >= 12 ? 2 + choices.next(2) : choices.next(8) == 0 ? 4 : 0];
    sensor_sim::streams::push(stream, outputOf(stream), frame);
    trace("push", stream, frame.objIndex, static_cast<int64_t>(counter));
    if (stream == 2 || stream == 3) {
        // The raw frame of the same exposure: usually the same counter, sometimes early, late or lost.
        const uint32_t raw = choices.next(10);
        if (raw == 9) return;
        frame.counter = raw < 6 ? counter : raw < 8 ? counter + 1 : counter - std::min<uint64_t>(counter, 1);
        frame.objIndex = static_cast<uint16_t>(choices.next(9));
        frame.buffer = m_buffers[1];
        sensor_sim::streams::push(stream, kCapture, frame);
        trace("push-raw", stream, frame.objIndex, static_cast<int64_t>(frame.counter));
    }
}

void CallSequence::injectFault(Choices& choices) {
    const char* fn = kFaultable[choices.next(sizeof(kFaultable) / sizeof(kFaultable[0]))];
    const int count = 1 + static_cast<int>(choices.next(2));
    const int64_t status = kFaultStatuses[choices.next(sizeof(kFaultStatuses) / sizeof(kFaultStatuses[0]))];
    const int skip = static_cast<int>(choices.next(4));
    sensor_sim::injectStatus(fn, status, count, skip);
    m_counts.faults += static_cast<uint64_t>(count);
    if (std::string(fn) == "releaseFrame") m_releaseFaults += static_cast<uint64_t>(count);
    trace(fn, status, count, skip);
}

// A get that took a frame and then failed (no raw frame to pair it with, a failed CPU copy) releases the
// frame at once; when an injected fault refuses that release the frame stays held with nobody to return
// it. Such frames are remembered as explained.
void CallSequence::noteOrphan(uint32_t stream, uint32_t objIndex, uint64_t counter) {
    if (m_releaseFaults == 0) return;
    for (const auto& held : sensor_sim::streams::held()) {
        if (held.streamId == stream && held.output == outputOf(stream) && held.objIndex == objIndex &&
            held.counter == counter) {
            m_orphans.push_back(held);
            return;
        }
    }
}

void CallSequence::legacyGet(Choices& choices) {
    BufFrameObj obj{};
    obj.frameCnt = kUnfilled;
    const auto name = static_cast<SensorName>(choices.next(3) != 0 ? 2 + choices.next(2) : choices.next(12));
    const int32_t result = m_legacy.GetFrame(name, &obj);
    trace("GetFrame", name, result, obj.frameCnt);
    if (!documented(result, "GetFrame")) return;
    if (result != RESULT_OK && obj.frameCnt != kUnfilled)
        noteOrphan(obj.sensorId, obj.objIndex, obj.frameCnt);
    if (result != RESULT_OK) return;
    ++m_counts.framesTaken;
    if (obj.rawBufObj != nullptr) ++m_counts.pairedFrames;
    m_legacyHeld.push_back(obj);
}

void CallSequence::currentGet(Choices& choices) {
    FrameBufObj frame{};
    frame.frameCnt = kUnfilled;
    const bool toCpu = choices.next(2) != 0;
    const SensorType type = static_cast<SensorType>(kRadarsAndLidars[choices.next(9)]);
    const int32_t result = m_current.getFrame(type, frame, toCpu);
    trace(toCpu ? "getFrame(cpu)" : "getFrame", type, result, frame.frameCnt);
    if (!documented(result, "getFrame")) return;
    if (result != RESULT_OK && frame.frameCnt != kUnfilled)
        noteOrphan(frame.sensorId, frame.objIndex, frame.frameCnt);
    if (result != RESULT_OK) return;
    ++m_counts.framesTaken;
    if (toCpu) ++m_counts.cpuCopies;
    m_currentHeld.push_back(frame);
}

void CallSequence::removeDumps() {
    DIR* dir = opendir(".");
    if (dir == nullptr) return;
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.find("client_cam_") != std::string::npos) names.push_back(name);
    }
    closedir(dir);
    for (const auto& name : names) std::remove(name.c_str());
}

void CallSequence::release(Choices& choices) {
    // The oldest frame held (or, sometimes, a later one) of either API.
    auto releaseOne = [&](auto& held, auto releaseFrame, const char* call) {
        const size_t i = choices.next(4) == 0 ? choices.next(static_cast<uint32_t>(held.size())) : 0;
        const int32_t result = releaseFrame(held[i]);
        trace(call, held[i].sensorId, result, held[i].frameCnt);
        if (documented(result, call) && result == RESULT_OK) {
            ++m_counts.framesReleased;
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
        }
    };
    if (!m_legacyHeld.empty() && (m_currentHeld.empty() || choices.next(2) == 0)) {
        releaseOne(
            m_legacyHeld, [this](BufFrameObj& o) { return m_legacy.ReleaseFrame(&o); }, "ReleaseFrame");
    } else if (!m_currentHeld.empty()) {
        releaseOne(
            m_currentHeld, [this](FrameBufObj& f) { return m_current.releaseFrame(f); }, "releaseFrame");
    }
}

// An init that got as far as a new consumer dropped the old consumer's frames with it: forget the frames
// the platform no longer counts as held, so that later releases go to frames that exist.
void CallSequence::forgetDroppedFrames() {
    std::vector<sensor_sim::streams::Held> held = sensor_sim::streams::held();
    auto stillHeld = [&held](uint32_t stream, uint32_t objIndex, uint64_t counter) {
        auto it = std::find_if(held.begin(), held.end(), [&](const sensor_sim::streams::Held& h) {
            return h.streamId == stream && h.output == outputOf(stream) && h.objIndex == objIndex &&
                   h.counter == counter;
        });
        if (it == held.end()) return false;
        held.erase(it);
        return true;
    };
    auto keepHeld = [&](auto& frames) {
        frames.erase(
            std::remove_if(frames.begin(), frames.end(),
                           [&](const auto& f) { return !stillHeld(f.sensorId, f.objIndex, f.frameCnt); }),
            frames.end());
    };
    keepHeld(m_legacyHeld);
    keepHeld(m_currentHeld);
}

bool CallSequence::step(Choices& choices) {
    ++m_counts.steps;
    const uint32_t op = choices.next(100);
    if (op < 30) {
        pushFrames(choices);
    } else if (op < 50) {
        legacyGet(choices);
    } else if (op < 63) {
        currentGet(choices);
    } else if (op < 82) {
        release(choices);
    } else if (op < 86) {
        injectFault(choices);
    } else if (op < 89) {
        if (!m_legacyHeld.empty()) {
            BufFrameObj& obj = m_legacyHeld[choices.next(static_cast<uint32_t>(m_legacyHeld.size()))];
            CameraFrameRoiStatsData stats{};
            stats.roiData = choices.next(8) == 0 ? nullptr : roiArea();
            if (choices.next(2) == 0) sensor_sim::stats::publish(obj.sensorId, obj.frameCnt, {});
            documented(m_legacy.GetFrameRoiStatsData(&obj, &stats), "GetFrameRoiStatsData");
            ++m_counts.statistics;
        }
    } else if (op < 90) {
        // Rare: each processed-image dump keeps its writer on purpose, and files cost time.
        if (!m_legacyHeld.empty() && choices.next(8) == 0) {
            BufFrameObj& obj = m_legacyHeld[choices.next(static_cast<uint32_t>(m_legacyHeld.size()))];
            const int32_t result =
                choices.next(2) == 0 ? m_legacy.WriteImageToFile(&obj) : m_legacy.WriteRawImageToFile(&obj);
            documented(result, "WriteImageToFile");
            ++m_counts.dumps;
            removeDumps();
        }
    } else if (op < 94) {
        // A client that runs is re-initialised only now and then; one that does not, at once.
        if (!m_legacyUp || choices.next(8) == 0) {
            unsigned short mask =
                static_cast<unsigned short>(choices.next(4) == 0 ? choices.next(4096) : 0x0C);
            const int32_t init = m_legacy.Init(mask, choices.next(4) != 0);
            const int32_t start = m_legacy.Start();
            trace("Init+Start", mask, init, start);
            m_legacyUp = documented(init, "Init") && documented(start, "Start") && init == RESULT_OK &&
                         start == RESULT_OK;
            forgetDroppedFrames();
            ++m_counts.initCycles;
        }
    } else if (op < 98) {
        if (!m_currentUp || choices.next(8) == 0) {
            unsigned int mask = 0;
            for (uint32_t id : kRadarsAndLidars)
                if (choices.next(3) != 0) mask |= 1u << id;
            const int32_t init = m_current.init(mask, choices.next(3) * 10, m_logger);
            const int32_t start = m_current.start();
            trace("init+start", mask, init, start);
            m_currentUp = documented(init, "init") && documented(start, "start") && init == RESULT_OK &&
                          start == RESULT_OK;
            forgetDroppedFrames();
            ++m_counts.initCycles;
        }
    } else if (op < 99) {
        m_legacy.Stop();
        m_legacy.DeInit();
        m_legacyUp = false;
        trace("DeInit", 0);
    } else {
        m_current.stop();
        m_current.deInit();
        m_currentUp = false;
        trace("deInit", 0);
    }
    return m_problem.empty();
}

bool CallSequence::finish() {
    sensor_sim::clearInjections();
    auto released = [this](int32_t result, const char* call) {
        if (documented(result, call) && result == RESULT_OK) ++m_counts.framesReleased;
    };
    for (auto& obj : m_legacyHeld) released(m_legacy.ReleaseFrame(&obj), "ReleaseFrame");
    for (auto& frame : m_currentHeld) released(m_current.releaseFrame(frame), "releaseFrame");
    m_legacyHeld.clear();
    m_currentHeld.clear();
    m_legacy.DeInit();
    m_current.deInit();
    removeDumps();
    // Beyond the raw frames that pairing queued or whose release a fault refused, nothing stays held.
    for (const auto& held : sensor_sim::streams::held()) {
        if ((held.streamId == 2 || held.streamId == 3) && held.output == kCapture) {
            ++m_counts.rawKept;
            continue;
        }
        auto orphan =
            std::find_if(m_orphans.begin(), m_orphans.end(), [&](const sensor_sim::streams::Held& o) {
                return o.streamId == held.streamId && o.output == held.output &&
                       o.objIndex == held.objIndex && o.counter == held.counter;
            });
        if (orphan != m_orphans.end()) {
            m_orphans.erase(orphan);
            ++m_counts.givenUp;
            continue;
        }
        ++m_counts.unexplained;
        fail("frame " + std::to_string(held.counter) + " of stream " + std::to_string(held.streamId) +
             " is still held");
    }
    if (m_counts.rawKept > 2 + m_releaseFaults)
        fail(std::to_string(m_counts.rawKept) + " raw frames held after " + std::to_string(m_releaseFaults) +
             " refused releases");
    return m_problem.empty();
}

}  // namespace sipc_test
