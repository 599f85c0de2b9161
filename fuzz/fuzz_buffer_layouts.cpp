// Buffers of any layout the NvSciBuf substitute can be made to describe (plane counts that differ from
// the real planes, any sizes, pitches, formats, absent attributes), read through the attribute model,
// then CPU-copied and dumped. Every result is one the operations document, and no byte outside the
// buffer or the destination is touched (AddressSanitizer watches both: they are heap blocks).
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "buffer_attrs.h"
#include "clogger.h"
#include "fuzz_input.h"
#include "fuzz_scratch.h"
#include "sensor_ipcclient_impl.h"
#include "sensor_sim/control.h"
#include "write_to_file.h"

namespace {

using sipc_fuzz::Bytes;
using sipc_fuzz::check;

// The formats the client knows, and one it does not.
constexpr uint32_t kFormats[] = {sensor_sim::kColorY8,
                                 sensor_sim::kColorY8U8V8,
                                 85,
                                 86,
                                 87,
                                 sensor_sim::kColorBayer16,
                                 sensor_sim::kColorA8,
                                 sensor_sim::kColorA16,
                                 sensor_sim::kColorUYVY,
                                 97,
                                 sensor_sim::kColorRaw8Packed,
                                 0,
                                 149};
constexpr uint32_t kBits[] = {0, 1, 8, 10, 12, 16, 24, 32, 64, 255};

sensor_sim::BufferSpec specFrom(Bytes& in) {
    sensor_sim::BufferSpec spec;
    const uint32_t planes = in.u8() % 5;
    for (uint32_t i = 0; i < planes; ++i) {
        sensor_sim::PlaneSpec p;
        p.width = in.u8() % 2 ? in.u8() : in.u16() % 1100;
        p.height = in.u8() % 40;
        p.bitsPerPixel = kBits[in.u8() % (sizeof(kBits) / sizeof(kBits[0]))];
        p.colorFormat = kFormats[in.u8() % (sizeof(kFormats) / sizeof(kFormats[0]))];
        p.pitch = in.u8() % 3 == 0 ? in.u16() % 3000 : 0;
        p.alignedHeight = in.u8() % 4 == 0 ? in.u8() % 48 : 0;
        p.channelCount = static_cast<uint8_t>(1 + in.u8() % 2);
        spec.planes.push_back(p);
    }
    spec.layout = in.u8() % 4 == 0 ? 0 : sensor_sim::kLayoutPitchLinear;
    spec.needSwCacheCoherency = in.u8() & 1;
    if (in.u8() % 3 == 0) spec.claimedPlaneCount = in.u8() % 6;
    const uint32_t absent = in.u16();
    for (uint32_t a = 0; a < static_cast<uint32_t>(sensor_sim::Attr::Count); ++a)
        if (absent & (1u << a) && a % 2 == in.u8() % 2)
            spec.absent.push_back(static_cast<sensor_sim::Attr>(a));
    return spec;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace vexa::sensor_access;
    static const std::string dumpPath = [] {
        sensor_sim::reset();
        // Memory-backed when the machine has it: a dump per input is most of the work otherwise.
        const std::string dir = sipc_fuzz::makeScratchDir("layouts", true);
        check(!dir.empty());
        return dir + "/frame.yuv";
    }();
    Bytes in(data, size);
    const sensor_sim::BufferSpec spec = specFrom(in);
    auto buffer = sensor_sim::makeBuffer(spec);
    sensor_sim::fillPattern(*buffer);
    const auto handle = reinterpret_cast<NvSciBufObj>(buffer.get());

    BufferAttrs attrs{};
    const int populated = PopulateBufAttr(handle, attrs);
    check(populated == 0 || populated == 10);
    const float* widths = nullptr;
    const float* heights = nullptr;
    uint32_t* bytesPerPixel = nullptr;
    uint32_t bppStorage[3] = {};
    uint32_t surfaces = 0xFFFFFFFFu;
    bool packed = false;
    (void)GetBuffParams(attrs, &widths, &heights, &bytesPerPixel, &surfaces, &packed, bppStorage);

    FrameBufObj frame{};
    frame.bufObj = handle;
    frame.sensorId = 12 + in.u8() % 3;  // few (sensor, object) pairs: each keeps its CPU buffer
    frame.objIndex = in.u8() % 2;
    const int32_t copied =
        SensorIpcClientImpl::getInstance(vexa::cameraipcclient::APP_VIC)->nvBufObjToCpuBuffer(frame);
    check(copied == 0 || copied == -1);

    // Without the buffer's size the writer has nothing to bound the lines by and writes what the layout
    // describes, as it must; a layout that claims more than its storage is then read past. Such dumps
    // are left out: the bound is what this target checks.
    const bool sized =
        std::find(spec.absent.begin(), spec.absent.end(), sensor_sim::Attr::Size) == spec.absent.end();
    if (!sized) return 0;
    WriteToFile writer(dumpPath);
    const int written = writer.WriteBufferToFile(handle);
    check(written == 0 || written == 1);
    std::remove(dumpPath.c_str());
    return 0;
}
