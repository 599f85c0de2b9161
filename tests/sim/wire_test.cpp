// sensor-simd's message decoder and control-page ring: what no honest peer sends is refused, whatever
// it claims, and a message that has only partly arrived waits for the rest.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sensor_sim/internal/wire.h"

namespace {

namespace msg = sensor_sim::msg;
using sensor_sim::codec::Decoded;

template <typename M>
std::vector<uint8_t> bytesOf(const M& m) {
    return msg::Requests::encode(m);
}

struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    Decoded expected;
};

// Catches a decoder that trusts a peer's lengths, types, counts or ranges (each one a way to crash or
// confuse the service), and one that gives up on a message that has only partly arrived.
TEST(WireDecode, RefusesWhatNoHonestPeerSends) {
    auto withLength = [](std::vector<uint8_t> b, uint32_t length) {
        std::memcpy(b.data(), &length, 4);
        return b;
    };
    auto withType = [](std::vector<uint8_t> b, uint16_t type) {
        std::memcpy(b.data() + 4, &type, 2);
        return b;
    };
    const auto getFrame = bytesOf(msg::GetFrame{2, 1, false});
    msg::RegStream manyConfigs{2, false, std::vector<sensor_sim::streams::Config>(65, {"s", 0, 2, 16, 100, 0})};
    auto countPastEnd = bytesOf(msg::WriteI2c{2, 0x50, {1, 2, 3}, 3});
    countPastEnd[8 + 4 + 2] = 200;  // the byte vector's count
    const std::vector<Case> cases = {
        {"a whole request", getFrame, Decoded::Complete},
        {"half a header", std::vector<uint8_t>(getFrame.begin(), getFrame.begin() + 4), Decoded::Incomplete},
        {"half a body", std::vector<uint8_t>(getFrame.begin(), getFrame.end() - 3), Decoded::Incomplete},
        {"unknown type", withType(getFrame, 999), Decoded::Malformed},
        {"an answer's type sent as a request", withType(getFrame, 128), Decoded::Malformed},
        {"length beyond the type's bound, before any body", withLength(getFrame, 1u << 30), Decoded::Malformed},
        {"length that cuts a field", withLength(getFrame, 5), Decoded::Malformed},
        {"bytes left over", withLength(getFrame, 7), Decoded::Incomplete},
        {"output other than 0 and 1", bytesOf(msg::GetFrame{2, 2, false}), Decoded::Malformed},
        {"unknown protocol version", bytesOf(msg::Hello{99, 1}), Decoded::Malformed},
        {"registration of no config", bytesOf(msg::RegStream{2, false, {}}), Decoded::Malformed},
        {"registration of 65 configs", bytesOf(manyConfigs), Decoded::Malformed},
        {"an empty application name", bytesOf(msg::InitConsumer{4, "", "nvipc-demo-camera"}), Decoded::Malformed},
        {"a NUL in a channel name", bytesOf(msg::InitConsumer{4, "SDEMO", std::string("a\0b", 3)}),
         Decoded::Malformed},
        {"a count past the message's end", countPastEnd, Decoded::Malformed},
    };
    for (const Case& c : cases) {
        msg::Request m;
        size_t used = 0;
        EXPECT_EQ(msg::Requests::decode(c.bytes.data(), c.bytes.size(), &m, &used), c.expected) << c.what;
    }
    auto extra = withLength(getFrame, 7);
    extra.push_back(0);
    msg::Request m;
    size_t used = 0;
    EXPECT_EQ(msg::Requests::decode(extra.data(), extra.size(), &m, &used), Decoded::Malformed) << "a byte over";
}

// Catches buffer descriptions whose geometry does not make the announced size, or could overflow it.
TEST(WireDecode, BufferDescriptionsMustMakeTheirSize) {
    const sensor_sim::Buffer real(sensor_sim::BufferSpec::yuv420(64, 32));
    msg::BufferAnswer a = msg::describeBuffer(7, real);
    sensor_sim::BufferSpec spec;
    EXPECT_TRUE(msg::bufferSpecOf(a, &spec));
    EXPECT_EQ(sensor_sim::bufferBytes(spec), real.size());
    msg::BufferAnswer wrongSize = a;
    wrongSize.size += 1;
    msg::BufferAnswer huge = a;
    huge.planes[0].width = 1u << 30;
    for (const auto& bad : {wrongSize, huge}) EXPECT_FALSE(msg::bufferSpecOf(bad, &spec));
}

// Catches a service that trusts the release ring a client writes into its control page: a head that
// runs ahead of the ring, or an entry out of range, must refuse the ring, not reach the stream model.
TEST(WireDecode, ReleaseRingRefusesWhatNoHonestClientWrites) {
    using sensor_sim::wire::ControlPage;
    using sensor_sim::wire::ReleaseEntry;
    struct RingCase {
        const char* what;
        uint32_t head;
        uint64_t output;
        int expected;
    };
    for (const RingCase& c : {RingCase{"two honest releases", 2, 1, 2}, RingCase{"nothing queued", 0, 1, 0},
                              RingCase{"a head past the ring", sensor_sim::wire::kReleaseSlots + 1, 1, -1},
                              RingCase{"a head behind the tail", 0xFFFFFFFFu, 1, -1},
                              RingCase{"an output other than 0 and 1", 2, 2, -1}}) {
        auto page = std::make_unique<ControlPage>();
        for (uint32_t i = 0; i < 2; ++i)
            ASSERT_TRUE(sensor_sim::wire::putRelease(*page, {2, 1, 7, 100u + i}));
        page->releases[1][1] = c.output;
        page->releaseHead = c.head;
        uint32_t tail = 0;
        std::array<ReleaseEntry, sensor_sim::wire::kReleaseSlots> out;
        EXPECT_EQ(sensor_sim::wire::takeReleases(*page, &tail, &out), c.expected) << c.what;
        if (c.expected == 2) {
            EXPECT_EQ(out[1].counter, 101u);
        }
        EXPECT_EQ(tail, c.expected < 0 ? 0u : c.head) << c.what;
    }
}

}  // namespace
