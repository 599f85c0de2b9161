// Our MCAP writer and reader together: every compression round-trips messages, metadata and channels;
// a damaged, cut-short or foreign file is refused with the offset and the cause; image messages carry
// their geometry.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

namespace {

namespace fs = std::filesystem;
using namespace sensor_recording;

struct Written {
    std::vector<uint8_t> bytes;
    std::vector<std::vector<uint8_t>> payloads;
};

// A small file: two channels, metadata, messages of several sizes over several chunks.
Written writeSample(const fs::path& path, Compression compression, unsigned workers = 0) {
    McapWriter w;
    WriterOptions o;
    o.compression = compression;
    o.chunkBytes = 4096;
    o.workers = workers;
    o.library = "test";
    std::atomic<int> recycled{0};
    w.setRecycler([&](std::vector<uint8_t>&&) { ++recycled; });
    EXPECT_TRUE(w.open(path.string(), o)) << w.error();
    const uint16_t schema = w.addSchema(kImageSchemaName, kImageSchemaEncoding, imageSchemaText());
    const uint16_t a = w.addChannel(schema, "/a/image", kImageMessageEncoding, {{"sensor_id", "2"}});
    const uint16_t b = w.addChannel(schema, "/a/raw", kImageMessageEncoding, {});
    EXPECT_TRUE(w.addMetadata("rig", {{"vehicle", "test"}}));
    Written out;
    for (uint32_t i = 0; i < 40; ++i) {
        std::vector<uint8_t> p(100 + i * 120);  // the largest fill a chunk alone
        for (size_t k = 0; k < p.size(); ++k) p[k] = uint8_t(k * 7 + i);
        const McapWriter::Part part{p.data(), p.size()};
        EXPECT_TRUE(w.write(i % 2 == 0 ? a : b, i, 1000 + i, 900 + i, &part, 1));
        out.payloads.push_back(std::move(p));
    }
    EXPECT_TRUE(w.close()) << w.error();
    EXPECT_EQ(recycled.load(), 40);  // every record handed back once, after its chunk
    std::ifstream in(path, std::ios::binary);
    out.bytes.assign(std::istreambuf_iterator<char>(in), {});
    return out;
}

// A compression, and the writer's workers (0: chunks made in the caller's thread).
class McapRoundTrip : public ::testing::TestWithParam<std::pair<Compression, unsigned>> {};

// Would catch a chunk, index, CRC or summary that our reader (and so any reader) cannot follow, or
// messages that come back changed, reordered (workers finishing out of turn) or on the wrong channel.
TEST_P(McapRoundTrip, MessagesMetadataAndSummaryComeBack) {
    const fs::path path = fs::current_path() / ("roundtrip-" + std::to_string(getpid()) + ".mcap");
    const Written w = writeSample(path, GetParam().first, GetParam().second);
    fs::remove(path);
    auto r = McapReader::fromMemory(w.bytes.data(), w.bytes.size());
    size_t n = 0;
    ASSERT_TRUE(r->read([&](const Message& m) {
        EXPECT_EQ(m.sequence, n);
        EXPECT_EQ(m.channelId, n % 2);
        EXPECT_EQ(m.logTimeNs, 1000 + n);
        EXPECT_EQ(std::vector<uint8_t>(m.data, m.data + m.size), w.payloads[n]);
        ++n;
        return true;
    })) << r->error();
    EXPECT_EQ(n, 40u);
    EXPECT_TRUE(r->complete());
    EXPECT_GT(r->chunks(), 3u);
    EXPECT_EQ(r->channels().at(0).topic, "/a/image");
    EXPECT_EQ(r->channels().at(0).metadata.at("sensor_id"), "2");
    ASSERT_EQ(r->metadata().size(), 1u);
    EXPECT_EQ(r->metadata()[0].values.at("vehicle"), "test");
    EXPECT_EQ(r->summaryCounts().at(1), 20u);
}

INSTANTIATE_TEST_SUITE_P(Compressions, McapRoundTrip,
                         ::testing::Values(std::pair{Compression::None, 0u}, std::pair{Compression::Zstd, 0u},
                                           std::pair{Compression::Lz4, 0u}, std::pair{Compression::None, 3u},
                                           std::pair{Compression::Zstd, 2u}),
                         [](const auto& info) {
                             return std::string(compressionName(info.param.first)) + "_" +
                                    std::to_string(info.param.second) + "_workers";
                         });

struct Damage {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> apply;
    const char* cause;  // part of the error
};

// Would catch a reader that crashes, hangs or accepts bad data silently instead of naming offset and cause.
TEST(McapReaderRefuses, DamagedAndForeignFiles) {
    const fs::path path = fs::current_path() / ("damaged-" + std::to_string(getpid()) + ".mcap");
    const Written w = writeSample(path, Compression::None);
    fs::remove(path);
    const std::vector<Damage> cases = {
        {"foreign", [](auto& b) { b.assign({'P', 'K', 3, 4, 0, 0, 0, 0, 0, 0}); }, "not an MCAP file"},
        {"empty", [](auto& b) { b.clear(); }, "too short"},
        {"chunk byte", [](auto& b) { b[b.size() / 3] ^= 0x40; }, "CRC mismatch"},
        {"summary CRC", [](auto& b) { b[b.size() - 10] ^= 0x01; }, "summary CRC mismatch"},
        {"huge length", [](auto& b) { b[9 + 6] = 0xff; }, "offset 8"},
    };
    for (const Damage& c : cases) {
        std::vector<uint8_t> b = w.bytes;
        c.apply(b);
        auto r = McapReader::fromMemory(b.data(), b.size());
        const bool ok = r->read([](const Message&) { return true; });
        // A length running past the end reads as a cut-short file; anything else must fail.
        if (std::string(c.name) == "huge length") {
            EXPECT_TRUE(!ok || !r->complete()) << c.name;
            if (ok) {
                EXPECT_EQ(r->truncatedAt().value_or(0), 8u);
            }
            continue;
        }
        EXPECT_FALSE(ok) << c.name;
        EXPECT_NE(r->error().find(c.cause), std::string::npos) << c.name << ": " << r->error();
        EXPECT_NE(r->error().find("offset"), std::string::npos) << c.name << ": " << r->error();
    }
}

// Would catch a cut-short recording (a failed write) that loses the complete chunks before the cut.
TEST(McapReaderRefuses, CutShortFileReadsUpToItsLastWholeRecord) {
    const fs::path path = fs::current_path() / ("cut-" + std::to_string(getpid()) + ".mcap");
    const Written w = writeSample(path, Compression::Zstd);
    fs::remove(path);
    for (size_t keep : {w.bytes.size() / 2, w.bytes.size() - 30}) {
        auto r = McapReader::fromMemory(w.bytes.data(), keep);
        size_t n = 0;
        ASSERT_TRUE(r->read([&](const Message&) { return ++n, true; })) << r->error();
        EXPECT_FALSE(r->complete());
        EXPECT_GT(n, 0u);
        if (keep < w.bytes.size() / 2 + 1) {
            EXPECT_TRUE(r->truncatedAt().has_value());
        }
    }
}

// Would catch image messages whose geometry (pitches, a second plane's own pitch) or data length is lost.
TEST(FrameMessage, GeometryAndDataRoundTripThroughCdr) {
    for (uint32_t pitch1 : {2048u, 2112u}) {
        auto g = makeGeometry(ImageFormat::Nv12, 1920, 1080, {2048, pitch1});
        ASSERT_TRUE(g);
        ImageHeader h{1234567890123ull, "wide", *g};
        std::vector<uint8_t> msg = encodeImageHead(h);
        msg.resize(msg.size() + g->dataBytes(), 0x5a);
        DecodedImage d;
        std::string error;
        ASSERT_TRUE(decodeImage(msg.data(), msg.size(), d, error)) << error;
        EXPECT_EQ(d.header.frameId, "wide");
        EXPECT_EQ(d.header.stampNs, 1234567890123ull);
        EXPECT_EQ(d.header.geometry.planes[1].pitch, pitch1);
        EXPECT_EQ(d.encoding, pitch1 == 2048 ? "nv12" : "nv12:pitch1=2112");
        EXPECT_EQ(d.size, g->dataBytes());
        msg.pop_back();  // one byte short of its geometry
        EXPECT_FALSE(decodeImage(msg.data(), msg.size(), d, error));
    }
    EXPECT_FALSE(makeGeometry(ImageFormat::Mono16, 100, 10, {199}));  // a pitch below the line
}

}  // namespace
