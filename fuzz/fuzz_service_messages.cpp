// sensor-simd's message decoder: any byte stream is cut into messages or refused, never a crash, and a
// message that decodes encodes back to the same bytes; the structured tails parse or are refused. The same
// bytes, laid over a control page, feed the service's reader of the release ring a client writes.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "sensor_sim/internal/wire.h"

namespace wire = sensor_sim::wire;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t at = 0;
    wire::Message m;
    size_t used = 0;
    while (at < size && wire::decode(data + at, size - at, &m, &used) == wire::Decoded::Complete) {
        sipc_fuzz::check(used > 0 && used <= size - at);
        const std::vector<uint8_t> again = wire::encode(m);
        sipc_fuzz::check(again.size() == used && std::memcmp(again.data(), data + at, used) == 0);
        std::vector<sensor_sim::streams::Config> configs;
        std::string app, channel;
        sensor_sim::BufferSpec spec;
        wire::ServiceState state;
        switch (m.type) {
            case wire::Type::RegStream:
                if (wire::decodeConfigs(m.tail, m.words[2], &configs))
                    sipc_fuzz::check(wire::encodeConfigs(configs) == m.tail);
                break;
            case wire::Type::InitConsumer:
                if (wire::decodeNames(m.tail, &app, &channel))
                    sipc_fuzz::check(app + '\0' + channel == m.tail);
                break;
            case wire::Type::Buffer:
                // A spec that passes must make a buffer of exactly the announced size (checked on the
                // smaller ones, which the fuzzer can afford to allocate).
                if (wire::bufferSpecOf(m, &spec) && m.words[1] <= (8u << 20))
                    sipc_fuzz::check(sensor_sim::Buffer(spec).size() == m.words[1]);
                break;
            case wire::Type::ServiceStateAnswer:
                if (wire::decodeState(m, &state)) sipc_fuzz::check(wire::encodeState(state).tail == m.tail);
                break;
            default:
                break;
        }
        at += used;
    }
    auto page = std::make_unique<wire::ControlPage>();
    std::memcpy(static_cast<void*>(page.get()), data, std::min(size, sizeof(wire::ControlPage)));
    uint32_t tail = 0;
    if (size >= sizeof(wire::ControlPage) + sizeof tail)
        std::memcpy(&tail, data + sizeof(wire::ControlPage), 4);
    const uint32_t head = page->releaseHead.load();
    std::array<wire::ReleaseEntry, wire::kReleaseSlots> releases;
    const int count = wire::takeReleases(*page, &tail, &releases);
    sipc_fuzz::check(count >= -1 && count <= static_cast<int>(wire::kReleaseSlots));
    sipc_fuzz::check(count < 0 || tail == head);
    for (int i = 0; i < count; ++i) sipc_fuzz::check(releases[static_cast<size_t>(i)].output <= 1);
    return 0;
}
