// The buffer descriptions of sensor-simd's messages: a pool buffer as a BufferAnswer, and back.
#include "sensor_sim/internal/messages.h"

#include <algorithm>

namespace sensor_sim {
namespace msg {

BufferAnswer describeBuffer(uint64_t id, const Buffer& buffer) {
    const BufferSpec& spec = buffer.spec();
    BufferAnswer a;
    a.bufferId = id;
    a.size = buffer.size();
    a.layout = spec.layout;
    a.swCache = spec.needSwCacheCoherency;
    a.planes.assign(spec.planes.begin(), spec.planes.begin() + std::min<size_t>(spec.planes.size(), kMaxPlanes));
    return a;
}

bool bufferSpecOf(const BufferAnswer& a, BufferSpec* spec) {
    BufferSpec out;
    out.layout = a.layout;
    out.needSwCacheCoherency = a.swCache;
    for (const PlaneSpec& ps : a.planes) {
        // Bounded so that no product in the size overflows: 64 Ki lines of at most 4 MiB.
        if (ps.width > 65535 || ps.height > 65535 || ps.alignedHeight > 65535 || ps.bitsPerPixel > 64 ||
            ps.pitch > (1u << 20))
            return false;
        out.planes.push_back(ps);
    }
    const uint64_t size = bufferBytes(out);
    if (size != a.size || size == 0 || size > kMaxBufferBytes) return false;
    *spec = std::move(out);
    return true;
}

}  // namespace msg
}  // namespace sensor_sim
