// MCAP recording: our writer against plain fwrite of the same frame bytes (each frame one message of a
// 4 MiB chunk, CRCs included), its compressions, and sensorctl record of the whole default vehicle at its
// nominal rates: the frames it loses.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
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
constexpr int kFramesPerFile = 64;  // a file is started again after this many frames (about 200 MB)

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
        if (n++ % kFramesPerFile == 0) {
            state.PauseTiming();
            if (file != nullptr) std::fclose(file);
            file = std::fopen(path.c_str(), "wb");
            state.ResumeTiming();
        }
        if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
            state.SkipWithError("write failed");
            break;
        }
    }
    if (file != nullptr) std::fclose(file);
    std::remove(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame().size()));
}

void record(benchmark::State& state, Compression compression) {
    const std::string path = scratchFile("recording.mcap");
    const auto& bytes = frame();
    auto geometry = *makeGeometry(ImageFormat::Nv12, kWidth, kHeight, {kPitch, kPitch});
    std::unique_ptr<McapWriter> writer;
    uint16_t channel = 0;
    int n = 0;
    for (auto _ : state) {
        if (n % kFramesPerFile == 0) {
            state.PauseTiming();
            if (writer) writer->close();
            writer = std::make_unique<McapWriter>();
            WriterOptions options;
            options.compression = compression;
            writer->open(path, options);
            channel = writer->addChannel(writer->addSchema(kImageSchemaName, kImageSchemaEncoding, imageSchemaText()),
                                         "/wide/image", kImageMessageEncoding, {});
            state.ResumeTiming();
        }
        const auto head = encodeImageHead(ImageHeader{uint64_t(n) * 33333333u, "wide", geometry});
        const McapWriter::Part parts[2] = {{head.data(), head.size()}, {bytes.data(), bytes.size()}};
        if (!writer->write(channel, uint32_t(n), uint64_t(n), uint64_t(n), parts, 2)) {
            state.SkipWithError(writer->error().c_str());
            break;
        }
        ++n;
    }
    if (writer && !writer->close()) state.SkipWithError(writer->error().c_str());
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

BENCHMARK(BM_Fwrite)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RecordNone)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RecordZstd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RecordLz4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RecordDefaultRig)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    // Uncompressed recording at least 0.9 x fwrite's throughput (at most 1.11 x its time); no frame lost.
    return sipc_bench::runWithRatios(argc, argv, "BM_Fwrite",
                                     {{"BM_RecordNone", "", 1.0 / 0.9}, {"BM_RecordDefaultRig/iterations:1/real_time", "lost", 0}});
}
