// sensor-simd's message decoder: any byte stream is cut into requests (or answers) or refused, never a
// crash, and a message that decodes encodes back to the same bytes. The same bytes, laid over a control
// page, feed the service's reader of the release ring a client writes.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <variant>
#include <vector>

#include "fuzz_input.h"
#include "sensor_sim/internal/wire.h"

namespace msg = sensor_sim::msg;
namespace wire = sensor_sim::wire;

namespace {

template <typename Set, typename Variant>
void roundTrips(const uint8_t* data, size_t size) {
    size_t at = 0, used = 0;
    Variant m;
    while (at < size && Set::decode(data + at, size - at, &m, &used) == sensor_sim::codec::Decoded::Complete) {
        sipc_fuzz::check(used > 0 && used <= size - at);
        const std::vector<uint8_t> again = std::visit([](const auto& x) { return Set::encode(x); }, m);
        sipc_fuzz::check(again.size() == used && std::memcmp(again.data(), data + at, used) == 0);
        if constexpr (std::is_same_v<Variant, msg::Answer>) {
            // A buffer description that passes must make a buffer of exactly the announced size (checked on
            // the smaller ones, which the fuzzer can afford to allocate).
            sensor_sim::BufferSpec spec;
            if (auto* b = std::get_if<msg::BufferAnswer>(&m); b != nullptr && msg::bufferSpecOf(*b, &spec) &&
                                                               b->size <= (8u << 20))
                sipc_fuzz::check(sensor_sim::Buffer(spec).size() == b->size);
        }
        at += used;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    roundTrips<msg::Requests, msg::Request>(data, size);
    roundTrips<msg::Answers, msg::Answer>(data, size);
    auto page = std::make_unique<wire::ControlPage>();
    std::memcpy(static_cast<void*>(page.get()), data, std::min(size, sizeof(wire::ControlPage)));
    msg::FrameAnswer frame;
    wire::takeAnswer(*page, &frame);
    uint32_t tail = 0;
    if (size >= sizeof(wire::ControlPage) + sizeof tail) std::memcpy(&tail, data + sizeof(wire::ControlPage), 4);
    const uint32_t head = page->releaseHead.load();
    std::array<wire::ReleaseEntry, wire::kReleaseSlots> releases;
    const int count = wire::takeReleases(*page, &tail, &releases);
    sipc_fuzz::check(count >= -1 && count <= static_cast<int>(wire::kReleaseSlots));
    sipc_fuzz::check(count < 0 || tail == head);
    for (int i = 0; i < count; ++i) sipc_fuzz::check(releases[static_cast<size_t>(i)].output <= 1);
    return 0;
}
