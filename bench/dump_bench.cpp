// The image dump of a 1920x1080 two-plane 4:2:0 frame through the legacy facade against one fwrite of the
// same 3110400 bytes into a new file of the same directory, the baseline: what writing line by line from
// the padded buffer, the attribute look-ups and the file name cost on top. Both write into a temporary
// directory under the working directory (so the same file system), and each file is removed, outside
// the timed region, after every write.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "camera_ipc_client.h"
#include "ratio_reporter.h"
#include "sensor_sim/control.h"

namespace {

namespace fs = std::filesystem;
using namespace vexa::cameraipcclient;

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;
constexpr size_t kDumpBytes = size_t(kWidth) * kHeight * 3 / 2;  // the visible lines of both planes

// A scratch directory that the program enters for the dumps and removes at exit.
class Scratch {
public:
    Scratch() {
        std::string pattern = (fs::current_path() / "dump_bench.XXXXXX").string();
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) == nullptr) return;
        m_dir = name.data();
        m_previous = fs::current_path();
        fs::current_path(m_dir);
    }
    ~Scratch() {
        if (m_dir.empty()) return;
        std::error_code ec;
        fs::current_path(m_previous, ec);
        fs::remove_all(m_dir, ec);
    }
    bool ok() const { return !m_dir.empty(); }

private:
    fs::path m_dir;
    fs::path m_previous;
};

Scratch& scratch() {
    static Scratch s;
    return s;
}

// Baseline: the same bytes in one block, through the same C stream calls a dump uses.
void BM_Fwrite(benchmark::State& state) {
    if (!scratch().ok()) return state.SkipWithError("no scratch directory");
    std::vector<uint8_t> bytes(kDumpBytes, 0x5A);
    for (auto _ : state) {
        FILE* file = std::fopen("baseline.yuv", "ab+");
        if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
            if (file != nullptr) std::fclose(file);
            state.SkipWithError("write failed");
            break;
        }
        std::fclose(file);
        state.PauseTiming();
        std::remove("baseline.yuv");
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kDumpBytes));
}

void BM_WriteImageToFile(benchmark::State& state) {
    if (!scratch().ok()) return state.SkipWithError("no scratch directory");
    auto buffer = sensor_sim::makeBuffer(sensor_sim::BufferSpec::yuv420(kWidth, kHeight));
    CCameraIpcClient client(APP_CAMERA_IRC);
    BufFrameObj frame{};
    frame.sensorId = CAM_WIDE;
    frame.frameCnt = 1534;
    frame.bufObj = reinterpret_cast<NvSciBufObj>(buffer.get());
    const std::string name = "CIRC_client_cam_2_1534_1920_X_1080.yuv";
    for (auto _ : state) {
        if (client.WriteImageToFile(&frame) != RESULT_OK) {
            state.SkipWithError("dump failed");
            break;
        }
        state.PauseTiming();
        if (state.iterations() == 0 && fs::file_size(name) != kDumpBytes) state.SkipWithError("wrong size");
        std::remove(name.c_str());
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kDumpBytes));
}

BENCHMARK(BM_Fwrite)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WriteImageToFile)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    // Scripted mode without the journal: the NvSciBuf calls cost what they cost a live application.
    sensor_sim::reset();
    sensor_sim::setJournal(false);
    // At least 0.8 x the baseline's throughput: at most 1.25 x its time.
    return sipc_bench::runWithRatios(argc, argv, "BM_Fwrite", {{"BM_WriteImageToFile", "", 1.25}});
}
