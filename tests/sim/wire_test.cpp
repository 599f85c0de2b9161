// Tests of sensor-simd's message decoder: what it must refuse, and what it must wait for.
#include "sensor_sim/internal/wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using sensor_sim::wire::Decoded;
using sensor_sim::wire::Message;
using sensor_sim::wire::Type;

std::vector<uint8_t> bytesOf(Type type, std::vector<uint64_t> words, const std::string& tail = {}) {
    Message m;
    m.type = type;
    for (size_t i = 0; i < words.size(); ++i) m.words[i] = words[i];
    m.tail = tail;
    return sensor_sim::wire::encode(m);
}

struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    Decoded expected;
};

// Catches a decoder that trusts a peer's lengths, types or ranges (each one a way to crash or confuse
// the service), and one that gives up on a message that has only partly arrived.
TEST(WireDecode, RefusesWhatNoHonestPeerSends) {
    auto withLength = [](std::vector<uint8_t> b, uint32_t length) {
        std::memcpy(b.data(), &length, 4);
        return b;
    };
    const auto getFrame = bytesOf(Type::GetFrame, {2, 1});
    const std::vector<Case> cases = {
        {"a whole request", getFrame, Decoded::Complete},
        {"half a header", std::vector<uint8_t>(getFrame.begin(), getFrame.begin() + 4), Decoded::Incomplete},
        {"half a body", std::vector<uint8_t>(getFrame.begin(), getFrame.end() - 3), Decoded::Incomplete},
        {"unknown type", bytesOf(Type::Count, {}), Decoded::Malformed},
        {"length beyond the limit", withLength(getFrame, 1u << 30), Decoded::Malformed},
        {"length that cuts a word", withLength(getFrame, 12), Decoded::Malformed},
        {"tail on a fixed message", withLength(getFrame, 20), Decoded::Malformed},
        {"output other than 0 and 1", bytesOf(Type::GetFrame, {2, 2}), Decoded::Malformed},
        {"object index beyond 16 bits", bytesOf(Type::Release, {2, 1, 70000, 5}), Decoded::Malformed},
        {"unknown protocol version", bytesOf(Type::Hello, {99, 1}), Decoded::Malformed},
        {"registration of no config", bytesOf(Type::RegStream, {2, 0, 0}), Decoded::Malformed},
        {"unknown camera call", bytesOf(Type::Camera, {1000, 0, 0, 0, 0}), Decoded::Malformed},
        {"bytes on a register read", bytesOf(Type::Camera, {5, 2, 0, 0, 0}, "x"), Decoded::Malformed},
        {"more planes than a buffer has", bytesOf(Type::Buffer, {1, 64, 4}), Decoded::Malformed},
    };
    for (const Case& c : cases) {
        Message m;
        size_t used = 0;
        EXPECT_EQ(sensor_sim::wire::decode(c.bytes.data(), c.bytes.size(), &m, &used), c.expected) << c.what;
    }
}

// Catches tails whose declared lengths run past their end, or that leave bytes over.
TEST(WireDecode, StructuredTailsMustBeExact) {
    std::vector<sensor_sim::streams::Config> configs;
    const std::string one = sensor_sim::wire::encodeConfigs({{"ipc-camera-wide", 0, 2, 16, 100, 0}});
    EXPECT_TRUE(sensor_sim::wire::decodeConfigs(one, 1, &configs));
    EXPECT_FALSE(sensor_sim::wire::decodeConfigs(one, 2, &configs));
    EXPECT_FALSE(sensor_sim::wire::decodeConfigs(one + "x", 1, &configs));
    EXPECT_FALSE(sensor_sim::wire::decodeConfigs(one.substr(0, one.size() - 1), 1, &configs));
    std::string app, channel;
    EXPECT_TRUE(sensor_sim::wire::decodeNames(std::string("APP\0chan", 8), &app, &channel));
    for (const std::string& bad :
         {std::string("APP"), std::string("\0chan", 5), std::string("APP\0", 4), std::string("A\0b\0c", 5)})
        EXPECT_FALSE(sensor_sim::wire::decodeNames(bad, &app, &channel)) << bad;
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
