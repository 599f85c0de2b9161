// The readers of dump files: sensorctl convert's file names, sidecars and frame conversion, and the
// simulator's replay of a dump into a stream buffer of any geometry. Nothing may read outside the file's
// bytes or the buffer, and every refusal is a message, never a crash.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dump_geometry.h"
#include "errors.h"
#include "fuzz_input.h"
#include "fuzz_scratch.h"
#include "image.h"
#include "sensor_sim/buffers.h"
#include "sensor_sim/internal/replay.h"

namespace {

using sipc_fuzz::Bytes;
using sipc_fuzz::check;

void nameAndSidecar(const std::string& text) {
    // A name may state an empty image (convert then says so); the two readers must agree on names.
    const sensorctl::Geometry fromName = sensorctl::fromName(text);
    check(fromName.source.empty() == !sensorctl::parseDumpName(text).has_value());
    try {
        const sensorctl::Geometry g = sensorctl::parseSidecar(text, "sidecar.json");
        check(g.width && g.height && g.source == "sidecar.json");
    } catch (const sensorctl::IoError&) {
    }
    sensor_sim::replay::DumpName replayName;
    std::string why;
    if (!sensor_sim::replay::parseDumpName(text, &replayName, &why)) check(!why.empty());
}

void convert(Bytes& in) {
    const auto format = static_cast<sensorctl::PixelFormat>(in.u8() % 5);
    const uint32_t width = in.u8() % 80, height = in.u8() % 80, bayerBits = 8 + in.u8() % 9;
    const auto range = in.u8() & 1 ? sensorctl::YuvRange::Full : sensorctl::YuvRange::Limited;
    uint64_t bytes = 0;
    try {
        bytes = sensorctl::frameBytes(format, width, height);
    } catch (const sensorctl::UsageError&) {
        return;
    }
    std::string rest = in.rest();
    rest.resize(bytes);  // exactly one frame, on the heap, so that a read past it is caught
    const std::vector<uint8_t> frame(rest.begin(), rest.end());
    const sensorctl::Image image =
        sensorctl::convertFrame(frame.data(), format, width, height, range, bayerBits);
    check(image.width == width && image.height == height);
    check(image.pixels.size() == uint64_t(width) * height * image.channels * (image.sixteenBit ? 2 : 1));
}

void replay(Bytes& in) {
    static const std::string dir = [] {
        const std::string made = sipc_fuzz::makeScratchDir("replay");
        check(!made.empty());
        return made;
    }();
    const bool raw = in.u8() & 1;
    const uint32_t width = 1 + in.u8() % 48, height = 1 + in.u8() % 48;
    const uint32_t bufferWidth = 2 + 2 * (in.u8() % 32), bufferHeight = 2 + 2 * (in.u8() % 32);
    const uint32_t padding = in.u8() % 3 * 32;
    const uint64_t index = in.u16();
    const std::string path = dir + "/client_cam_2_1_" + std::to_string(width) + "_X_" +
                             std::to_string(height) + (raw ? ".raw" : ".yuv");
    const std::string content = in.rest();
    FILE* file = std::fopen(path.c_str(), "wb");
    check(file != nullptr);
    check(std::fwrite(content.data(), 1, content.size(), file) == content.size());
    std::fclose(file);
    std::string error;
    auto source = sensor_sim::replay::Source::open(path, &error);
    std::remove(path.c_str());
    if (!source) {
        check(!error.empty());
        return;
    }
    const auto spec = raw ? sensor_sim::BufferSpec::single(bufferWidth, bufferHeight, 16,
                                                           sensor_sim::kColorBayer16, padding)
                          : sensor_sim::BufferSpec::yuv420(bufferWidth, bufferHeight, padding);
    auto buffer = sensor_sim::makeBuffer(spec);
    source->copyFrame(index, *buffer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    switch (in.u8() % 3) {
        case 0:
            nameAndSidecar(in.rest());
            break;
        case 1:
            convert(in);
            break;
        default:
            replay(in);
            break;
    }
    return 0;
}
