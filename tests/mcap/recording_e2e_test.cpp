// sensorctl record run as its own process against the in-process vehicle, its files read back by the
// official MCAP reader from npm (check_mcap.mjs) and by our own reader. Every run has a time limit.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "child_process.h"
#include "wait_for.h"
#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using sipc_test::ChildOptions;
using sipc_test::ChildRun;

const std::string kTool = SENSORCTL_PATH;
const std::string kSimd = SENSOR_SIMD_PATH;
const std::string kCheckDir = MCAP_CHECK_DIR;

fs::path scratchDir(const std::string& name) {
    fs::path dir = fs::current_path() / ("record-" + name + "-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

// A scratch directory removed when the test ends.
struct Scratch {
    explicit Scratch(const std::string& name) : dir(scratchDir(name)) {}
    ~Scratch() { fs::remove_all(dir); }
    fs::path dir;
};

ChildRun runTool(std::vector<std::string> args, ChildOptions options = {}) {
    args.insert(args.begin(), kTool);
    const ChildRun run = sipc_test::runChild(args, options);
    EXPECT_LT(run.status, 128) << "sensorctl died of a signal; stderr:\n" << run.err;
    for (const char* bad : {"AddressSanitizer", "LeakSanitizer", "runtime error:"})
        EXPECT_EQ(run.err.find(bad), std::string::npos) << run.err;
    return run;
}

// The npm reader's account of a file (check_mcap.mjs); `scan` for a file that may lack its end.
json npmCheck(const fs::path& file, bool scan = false) {
    if (!fs::exists(kCheckDir + "/node_modules/@mcap/core")) {
        ADD_FAILURE() << "the npm tools of tests/mcap are not installed: run scripts/setup";
        return json();
    }
    std::vector<std::string> argv = {NODE_PATH, kCheckDir + "/check_mcap.mjs", file.string()};
    if (scan) argv.push_back("--scan");
    ChildOptions options;
    options.limit = std::chrono::seconds(180);
    const ChildRun run = sipc_test::runChild(argv, options);
    EXPECT_EQ(run.status, 0) << "the npm reader refused " << file << ":\n" << run.err;
    json doc = json::parse(run.out, nullptr, false);
    EXPECT_FALSE(doc.is_discarded()) << run.out << run.err;
    return doc.is_discarded() ? json() : doc;
}

// Our reader over the whole file: messages per topic.
std::map<std::string, uint64_t> ownCounts(const fs::path& file, bool complete) {
    std::string error;
    auto r = sensor_recording::McapReader::openFile(file.string(), &error);
    EXPECT_TRUE(r) << error;
    std::map<std::string, uint64_t> counts;
    if (!r) return counts;
    EXPECT_TRUE(r->read([&](const sensor_recording::Message& m) {
        ++counts[r->channels().at(m.channelId).topic];
        return true;
    })) << r->error();
    EXPECT_EQ(r->complete(), complete);
    return counts;
}

// Would catch a recording that the field's reader cannot open, a CRC or index it rejects, a channel whose
// message count differs from what the tool recorded, raw frames that lose their pairing, or image
// messages whose size, pitches or counter differ from the frame the library hands out.
TEST(SensorctlRecord, DefaultVehicleFiveSecondsReadsBackInTheNpmReader) {
    Scratch s("default");
    const fs::path file = s.dir / "drive.mcap";
    ChildOptions options;
    options.limit = std::chrono::seconds(60);
    const ChildRun run = runTool({"record", "-o", file.string(), "-d", "5", "--json"}, options);
    ASSERT_EQ(run.status, 0) << run.err;
    const json rec = json::parse(run.out);
    EXPECT_EQ(rec.at("end"), "duration reached");
    ASSERT_EQ(rec.at("sensors").size(), 21u);  // every sensor with a stream

    const json doc = npmCheck(file);
    ASSERT_TRUE(doc.is_object());
    EXPECT_TRUE(doc.at("complete").get<bool>());
    EXPECT_TRUE(doc.at("dataCrcOk").get<bool>());
    EXPECT_EQ(doc["summary"].at("indexedMessages"), doc.at("messages"));
    EXPECT_EQ(doc["summary"].at("messageCount"), doc.at("messages"));
    EXPECT_EQ(doc["summary"].at("chunkIndexes"), doc.at("chunks"));
    EXPECT_EQ(doc.at("metadata").size(), 3u);
    const auto own = ownCounts(file, true);
    for (const json& sensor : rec.at("sensors")) {
        const std::string name = sensor.at("name");
        const uint64_t recorded = sensor.at("recorded");
        EXPECT_GT(recorded, 0u) << name;
        std::vector<std::string> topics = {"/" + name + "/image"};
        if (name == "wide" || name == "narrow") topics.push_back("/" + name + "/raw");
        for (const std::string& topic : topics) {
            ASSERT_TRUE(doc["channels"].contains(topic)) << topic;
            const json& c = doc["channels"][topic];
            EXPECT_EQ(c.at("count"), recorded) << topic;
            EXPECT_EQ(doc["summary"]["channelCounts"].at(topic), recorded) << topic;
            EXPECT_EQ(own.at(topic), recorded) << topic;
            EXPECT_EQ(c.at("outOfOrder"), 0) << topic;
            EXPECT_EQ(c["first"].at("frameId"), name);
        }
    }

    // sensorctl info counts what the npm reader counts, gaps by counter included.
    const ChildRun info = runTool({"info", file.string(), "--json"});
    ASSERT_EQ(info.status, 0) << info.err;
    const json summary = json::parse(info.out);
    EXPECT_TRUE(summary.at("complete").get<bool>());
    EXPECT_EQ(summary.at("messages"), doc.at("messages"));
    for (const json& c : summary.at("channels")) {
        EXPECT_EQ(c.at("messages"), doc["channels"][c.at("topic").get<std::string>()].at("count")) << c;
        EXPECT_EQ(c.at("gaps"), doc["channels"][c.at("topic").get<std::string>()].at("gaps")) << c;
    }

    // The geometry the library itself dumps for frame 1 of the wide camera (processed and raw).
    const ChildRun dump = runTool({"dump", "-s", "wide", "--json", "--dir", (s.dir / "dump").string()});
    ASSERT_EQ(dump.status, 0) << dump.err;
    const json files = json::parse(dump.out).at("files");
    for (const json& f : files) {
        const std::string topic = f.at("kind") == "raw" ? "/wide/raw" : "/wide/image";
        const json& first = doc["channels"][topic]["first"];
        EXPECT_EQ(first.at("width"), f["planes"][0].at("width")) << topic;
        EXPECT_EQ(first.at("height"), f["planes"][0].at("height")) << topic;
        EXPECT_EQ(first.at("step"), f["planes"][0].at("pitch")) << topic;
        EXPECT_EQ(first.at("encoding"), f.at("format") == "nv12" ? "nv12" : "bayer_rggb16") << topic;
        EXPECT_GE(first.at("sequence").get<uint32_t>(), 1u) << topic;
    }
    // The raw frame with a message's counter is the processed one's: both channels carry the same sequences.
    EXPECT_EQ(doc["channels"]["/wide/raw"]["first"].at("sequence"), doc["channels"]["/wide/image"]["first"].at("sequence"));
}

// Would catch a Ctrl-C that leaves a file without its summary, a full disk that crashes the tool, exits
// 0, hides the cause, or leaves a file that no reader opens, or a foreign file that info does not refuse.
TEST(SensorctlRecord, InterruptAndFullDiskLeaveReadableFiles) {
    Scratch s("endings");
    const fs::path interrupted = s.dir / "interrupted.mcap";
    ChildOptions options;
    options.limit = std::chrono::seconds(60);
    options.interruptAfter = std::chrono::milliseconds(2500);
    const ChildRun run = runTool({"record", "-o", interrupted.string(), "-s", "wide,narrow,frontslave"}, options);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_FALSE(run.timedOut);
    const json doc = npmCheck(interrupted);
    ASSERT_TRUE(doc.is_object());
    EXPECT_TRUE(doc.at("complete").get<bool>());
    EXPECT_GT(doc.at("messages").get<uint64_t>(), 0u);

    // A disk that fills: a 24 MiB tmpfs in a mount namespace of its own, mounted in the scratch directory.
    const fs::path mount = s.dir / "small";
    fs::create_directories(mount);
    const fs::path full = s.dir / "full.mcap";
    const std::string script = "mount -t tmpfs -o size=24m tmpfs '" + mount.string() + "' || exit 90; '" + kTool +
                               "' record -o '" + (mount / "full.mcap").string() +
                               "' -s wide,narrow,frontslave --compression none -d 20; status=$?; cp '" +
                               (mount / "full.mcap").string() + "' '" + full.string() + "'; exit $status";
    ChildOptions fullOptions;
    fullOptions.limit = std::chrono::seconds(60);
    const ChildRun filled = sipc_test::runChild({"/usr/bin/unshare", "-m", "sh", "-c", script}, fullOptions);
    ASSERT_NE(filled.status, 90) << "cannot mount a small tmpfs here (needs root and unshare -m): " << filled.err;
    EXPECT_EQ(filled.status, 3) << filled.err;
    EXPECT_NE(filled.err.find("No space left on device"), std::string::npos) << filled.err;
    EXPECT_NE(filled.out.find("write failed"), std::string::npos) << filled.out;
    // Whatever reached the disk before the failure reads back, in both readers, with the same counts.
    const json scanned = npmCheck(full, true);
    ASSERT_TRUE(scanned.is_object());
    EXPECT_GT(scanned.at("messages").get<uint64_t>(), 0u);
    std::string error;
    auto own = sensor_recording::McapReader::openFile(full.string(), &error);
    ASSERT_TRUE(own) << error;
    uint64_t n = 0;
    EXPECT_TRUE(own->read([&](const sensor_recording::Message&) { return ++n, true; })) << own->error();
    EXPECT_EQ(n, scanned.at("messages").get<uint64_t>());
    // A foreign file: an error naming the offset and the cause, exit 3.
    std::ofstream(s.dir / "foreign.mcap") << "PK\x03\x04 not a recording";
    const ChildRun foreign = runTool({"info", (s.dir / "foreign.mcap").string()});
    EXPECT_EQ(foreign.status, 3);
    EXPECT_NE(foreign.err.find("at offset 0: not an MCAP file"), std::string::npos) << foreign.err;
}

// Per topic and counter, a checksum of each frame's visible bytes (the lines without their padding).
std::map<std::string, std::map<uint32_t, uint64_t>> frameSums(const fs::path& file) {
    std::map<std::string, std::map<uint32_t, uint64_t>> sums;
    std::string error;
    auto r = sensor_recording::McapReader::openFile(file.string(), &error);
    EXPECT_TRUE(r) << error;
    if (!r) return sums;
    EXPECT_TRUE(r->read([&](const sensor_recording::Message& m) {
        sensor_recording::DecodedImage image;
        std::string why;
        EXPECT_TRUE(sensor_recording::decodeImage(m.data, m.size, image, why)) << why;
        uint64_t h = 1469598103934665603ull;  // FNV-1a
        const uint8_t* p = image.data;
        for (const auto& plane : image.header.geometry.planes) {
            for (uint32_t y = 0; y < plane.lines; ++y)
                for (uint32_t x = 0; x < plane.lineBytes; ++x) h = (h ^ p[uint64_t(y) * plane.pitch + x]) * 1099511628211ull;
            p += uint64_t(plane.pitch) * plane.lines;
        }
        sums[r->channels().at(m.channelId).topic][m.sequence] = h;
        return true;
    })) << r->error();
    return sums;
}

// Would catch a replay (sensor-simd --replay, or a rig file's [replay]) that renumbers frames, changes
// their bytes, breaks the pairing of cameras 2 and 3, plays sensors the user asked to be absent or drops
// those to keep their patterns, or loses most frames.
TEST(SensorSimdReplay, RecordedFramesComeBackWithTheirCountersAndBytes) {
    Scratch s("replay");
    fs::permissions(s.dir, fs::perms::owner_all, fs::perm_options::replace);  // the service wants it private
    const fs::path original = s.dir / "original.mcap";
    ChildOptions options;
    options.limit = std::chrono::seconds(60);
    const ChildRun first = runTool({"record", "-o", original.string(), "-s", "wide,narrow,frontslave", "-d", "3"}, options);
    ASSERT_EQ(first.status, 0) << first.err;

    const std::string socket = (s.dir / "simd.sock").string();
    const pid_t simd = sipc_test::startChild({kSimd, "--socket", socket, "--replay", original.string(), "--missing", "absent"},
                                             {}, (s.dir / "simd.out").string(), (s.dir / "simd.err").string());
    ASSERT_GT(simd, 0);
    const bool listening = sipc_test::waitFor([&] { return fs::exists(socket); });
    const fs::path replayed = s.dir / "replayed.mcap";
    ChildRun second;
    if (listening) second = runTool({"--service", socket, "record", "-o", replayed.string(), "-d", "5", "--json"}, options);
    EXPECT_EQ(sipc_test::endChild(simd, SIGTERM, std::chrono::seconds(10)), 0);
    ASSERT_TRUE(listening) << "sensor-simd did not listen";
    ASSERT_EQ(second.status, 0) << second.err;
    // Only the recorded sensors are present: the others are absent, as asked.
    EXPECT_EQ(json::parse(second.out).at("sensors").size(), 3u) << second.out;

    const auto before = frameSums(original);
    const auto after = frameSums(replayed);
    for (const char* topic : {"/wide/image", "/wide/raw", "/narrow/image", "/narrow/raw", "/frontslave/image"}) {
        ASSERT_TRUE(after.count(topic)) << topic;
        const auto& a = after.at(topic);
        const auto& b = before.at(topic);
        size_t same = 0;
        for (const auto& [counter, sum] : a) {
            ASSERT_TRUE(b.count(counter)) << topic << ": counter " << counter << " was never recorded";
            EXPECT_EQ(sum, b.at(counter)) << topic << ": frame " << counter << " differs";
            same += sum == b.at(counter);
        }
        // Most recorded frames come back: a consumer on a loaded machine (or under a sanitizer) misses some,
        // which is its loss, not the replay's.
        std::printf("%s: %zu of %zu recorded frames came back identical\n", topic, same, b.size());
        EXPECT_GE(same * 2, b.size()) << topic << ": " << same << " of " << b.size();
    }
    // Raw pairing survives: every processed frame of cameras 2 and 3 came with its raw frame.
    for (const char* name : {"wide", "narrow"}) {
        const auto& image = after.at(std::string("/") + name + "/image");
        const auto& raw = after.at(std::string("/") + name + "/raw");
        EXPECT_EQ(image.size(), raw.size()) << name;
        for (const auto& [counter, sum] : image) EXPECT_TRUE(raw.count(counter)) << name << " " << counter;
    }

    // The same recording as a rig file's [replay] for the in-process vehicle: the sensors it lacks keep
    // their patterns.
    std::ofstream(s.dir / "rig.toml") << "[rig]\nbase = \"default\"\n[replay]\nrecording = \"original.mcap\"\n";
    const fs::path local = s.dir / "local.mcap";
    const ChildRun third = runTool(
        {"--rig", (s.dir / "rig.toml").string(), "record", "-o", local.string(), "-s", "frontslave,rear", "-d", "2"},
        options);
    ASSERT_EQ(third.status, 0) << third.err;
    const auto sums = frameSums(local);
    ASSERT_TRUE(sums.count("/rear/image"));
    ASSERT_TRUE(sums.count("/frontslave/image"));
    for (const auto& [counter, sum] : sums.at("/frontslave/image")) {
        ASSERT_TRUE(before.at("/frontslave/image").count(counter)) << counter;
        EXPECT_EQ(sum, before.at("/frontslave/image").at(counter)) << counter;
    }
}

}  // namespace
