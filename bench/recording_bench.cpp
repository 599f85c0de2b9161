// MCAP recording: our writer against plain fwrite of the same frame bytes (each frame one message and one
// chunk, CRCs included), its compressions, and sensorctl record of the whole default vehicle at its nominal
// rates: the frames it loses. Throughput is bytes per second of wall time: the writer checks and
// compresses chunks on its workers beside the thread that hands it frames; the CPU column is the whole
// process's, every thread's time together.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "ratio_reporter.h"
#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

namespace {

namespace fs = std::filesystem;
using namespace sensor_recording;

constexpr uint32_t kWidth = 1920, kHeight = 1080, kPitch = 1984;
constexpr int kFramesPerFile = 64;  // a file is ended (timed) and another begun after this many frames
constexpr int kFiles = 10;          // files of a timed run
constexpr unsigned kWorkers = 2;    // the writer's threads, as sensorctl record has them on two processors

// A frame like the vehicle's: NV12 with pitch padding, a moving gradient and some noise (so that the
// compressions have work to do).
const std::vector<uint8_t>& frame() {
    static const std::vector<uint8_t> bytes = [] {
        std::vector<uint8_t> b(size_t(kPitch) * kHeight * 3 / 2);
        std::mt19937 rng(7);
        for (size_t i = 0; i < b.size(); ++i) b[i] = uint8_t((i % kPitch) / 8 + (rng() & 7));
        return b;
    }();
    return bytes;
}

std::string scratchFile(const char* name) {
    return (fs::temp_directory_path() / (std::string(name) + "-" + std::to_string(getpid()))).string();
}

void BM_Fwrite(benchmark::State& state) {
    const std::string path = scratchFile("baseline.bin");
    const auto& bytes = frame();
    FILE* file = nullptr;
    int n = 0;
    for (auto _ : state) {
        if (file == nullptr) {
            state.PauseTiming();
            file = std::fopen(path.c_str(), "wb");
            state.ResumeTiming();
        }
        if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
            state.SkipWithError("write failed");
            break;
        }
        if (++n % kFramesPerFile == 0) {
            std::fclose(file);
            file = nullptr;
        }
    }
    if (file != nullptr) std::fclose(file);
    std::remove(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame().size()));
}

// Each frame goes to the writer as an owned message, as sensorctl record's copies do. The writer hands
// each record back once it is in the file, and the record goes again as the next frame (its bytes are
// those of the frame already), so that no copy is timed; ending each file is.
void record(benchmark::State& state, Compression compression) {
    const std::string path = scratchFile("recording.mcap");
    auto geometry = *makeGeometry(ImageFormat::Nv12, kWidth, kHeight, {kPitch, kPitch});
    std::vector<uint8_t> record(OwnedMessage::kMessageHeadroom);
    const auto head = encodeImageHead(ImageHeader{0, "wide", geometry});
    record.insert(record.end(), head.begin(), head.end());
    record.insert(record.end(), frame().begin(), frame().end());
    std::mutex freeMutex;
    std::vector<std::vector<uint8_t>> free(2 * kWorkers + 3, record);
    std::unique_ptr<McapWriter> writer;
    uint16_t channel = 0;
    int n = 0;
    for (auto _ : state) {
        if (!writer) {
            state.PauseTiming();
            writer = std::make_unique<McapWriter>();
            writer->setRecycler([&](std::vector<uint8_t>&& r) {
                std::lock_guard<std::mutex> lock(freeMutex);
                free.push_back(std::move(r));
            });
            WriterOptions options;
            options.compression = compression;
            options.workers = kWorkers;
            writer->open(path, options);
            channel = writer->addChannel(writer->addSchema(kImageSchemaName, kImageSchemaEncoding, imageSchemaText()),
                                         "/wide/image", kImageMessageEncoding, {});
            state.ResumeTiming();
        }
        OwnedMessage m{channel, uint32_t(n), uint64_t(n), uint64_t(n), {}};
        {
            std::lock_guard<std::mutex> lock(freeMutex);
            if (!free.empty()) {
                m.record = std::move(free.back());
                free.pop_back();
            }
        }
        if (m.record.empty()) m.record = record;  // all in flight (never, with this many)
        if (!writer->write(std::move(m))) {
            state.SkipWithError(writer->error().c_str());
            break;
        }
        if (++n % kFramesPerFile == 0) {
            if (!writer->close()) {
                state.SkipWithError(writer->error().c_str());
                break;
            }
            writer.reset();
        }
    }
    if (writer) writer->close();
    std::remove(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame().size()));
}

void BM_RecordNone(benchmark::State& state) {
    record(state, Compression::None);
}
void BM_RecordZstd(benchmark::State& state) {
    record(state, Compression::Zstd);
}
void BM_RecordLz4(benchmark::State& state) {
    record(state, Compression::Lz4);
}

// sensorctl record of the whole default vehicle for 10 s with zstd: frames recorded and lost per second.
void BM_RecordDefaultRig(benchmark::State& state) {
    const std::string path = scratchFile("rig.mcap");
    nlohmann::json doc;
    for (auto _ : state) {
        const std::string command = std::string("'") + SIPC_SENSORCTL_BIN + "' record -o '" + path +
                                    "' --duration 10 --json 2>/dev/null";
        FILE* pipe = popen(command.c_str(), "r");
        std::string out;
        char buf[4096];
        size_t got = 0;
        while (pipe != nullptr && (got = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, got);
        if (pipe == nullptr || pclose(pipe) != 0) {
            state.SkipWithError("sensorctl record failed");
            break;
        }
        doc = nlohmann::json::parse(out, nullptr, false);
    }
    std::remove(path.c_str());
    if (doc.is_discarded() || !doc.contains("sensors")) return;
    double recorded = 0, lost = 0, gaps = 0;
    for (const auto& s : doc["sensors"]) {
        recorded += s.at("recorded").get<double>();
        lost += s.at("lost").get<double>();
        gaps += s.at("gaps").get<double>();
    }
    state.counters["recorded"] = recorded;
    state.counters["lost"] = lost;
    state.counters["gaps"] = gaps;  // frames the consumer threads missed before the queue
    state.counters["MBps"] = doc.at("bytes").get<double>() / 1e6 / doc.at("seconds").get<double>();
}

// Whole files only, so that every file's end is timed; wall time for throughput, the process's CPU beside it.
#define SIPC_FILE_BENCHMARK(name) \
    BENCHMARK(name)->Iterations(kFramesPerFile * kFiles)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)
SIPC_FILE_BENCHMARK(BM_Fwrite);
SIPC_FILE_BENCHMARK(BM_RecordNone);
SIPC_FILE_BENCHMARK(BM_RecordZstd);
SIPC_FILE_BENCHMARK(BM_RecordLz4);
BENCHMARK(BM_RecordDefaultRig)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    // Uncompressed recording at least 0.9 x fwrite's throughput (at most 1.11 x its time); no frame lost.
    const std::string files = "/iterations:" + std::to_string(kFramesPerFile * kFiles) + "/process_time/real_time";
    return sipc_bench::runWithRatios(argc, argv, "BM_Fwrite",
                                     {{"BM_RecordNone" + files, "", 1.0 / 0.9},
                                      {"BM_RecordDefaultRig/iterations:1/real_time", "lost", 0}});
}
