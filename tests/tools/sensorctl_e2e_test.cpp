// sensorctl run as its own process against the simulated vehicle: its JSON, its files, its exit statuses
// and messages. Every run has a time limit; a run that overstays it is killed and fails the test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "png_picture.h"
#include "wait_for.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using sipc_test::ChildOptions;
using sipc_test::ChildRun;
using sipc_test::readPng;

const std::string kTool = SENSORCTL_PATH;
// A cross build runs the tool under the same emulator as the tests: "<emulator>|<argument>|..." (the
// emulator's absolute path first), because the tests' own emulator does not follow an exec of a
// foreign binary.
#ifdef SENSORCTL_LAUNCHER
const std::string kLauncher = SENSORCTL_LAUNCHER;
#else
const std::string kLauncher;
#endif
const std::string kData = SENSORCTL_TEST_DATA;
#ifdef SENSOR_SIMD_PATH
const std::string kSimd = SENSOR_SIMD_PATH;
#endif

// Runs sensorctl with `args`; kills it when it overstays the limit.
ChildRun runTool(const std::vector<std::string>& args, const ChildOptions& options = {}) {
    std::vector<std::string> argv;
    std::istringstream words(kLauncher);
    for (std::string word; std::getline(words, word, '|');) argv.push_back(word);
    argv.push_back(kTool);
    argv.insert(argv.end(), args.begin(), args.end());
    const ChildRun run = sipc_test::runChild(argv, options);
    // Whatever the command, the tool must neither crash nor trip a sanitizer.
    EXPECT_LT(run.status, 128) << "sensorctl died of a signal; stderr:\n" << run.err;
    for (const char* bad : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
        EXPECT_EQ(run.err.find(bad), std::string::npos) << run.err;
    }
    return run;
}

json parseJson(const ChildRun& run) {
    json doc = json::parse(run.out, nullptr, false);
    EXPECT_FALSE(doc.is_discarded()) << "stdout is not JSON:\n" << run.out << "\nstderr:\n" << run.err;
    return doc;
}

// A run that must succeed and print JSON: its document (null, with a failure, otherwise).
json runJson(const std::vector<std::string>& args, const ChildOptions& options = {}) {
    const ChildRun run = runTool(args, options);
    EXPECT_EQ(run.status, 0) << run.err;
    return run.status == 0 ? parseJson(run) : json();
}

// A fresh directory under the tests' scratch directory (the working directory of every test).
fs::path scratchDir(const std::string& name) {
    fs::path dir = fs::current_path() / ("sensorctl-" + name + "-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

const json* sensorById(const json& list, uint32_t id) {
    for (const auto& s : list) {
        if (s.at("id") == id) return &s;
    }
    return nullptr;
}

// Would catch a table that misses or repeats a sensor, loses the service's records, or misreports presence.
TEST(SensorctlSensors, JsonListsEveryIdWithThePresenceOfTheRig) {
    const json doc = runJson({"sensors", "--json"});
    ASSERT_EQ(doc.at("sensors").size(), 22u);
    for (uint32_t id = 0; id < 22; ++id) {
        const json& s = doc["sensors"][id];
        EXPECT_EQ(s.at("id"), id);
        EXPECT_TRUE(s.at("present").get<bool>()) << "sensor " << id;
        EXPECT_EQ(s.at("info").size(), 6u);
        EXPECT_FALSE(s.at("version0").empty());
        EXPECT_TRUE(s.at("link").get<bool>());
    }
    EXPECT_EQ(doc["sensors"][2].at("name"), "wide");
    EXPECT_EQ(doc["sensors"][14].at("kind"), "lidar");

    const json rig = runJson({"--rig", kData + "/faulty_rig.toml", "sensors", "--json"});
    EXPECT_FALSE(rig["sensors"][13].at("present").get<bool>());
    EXPECT_TRUE(rig["sensors"][12].at("present").get<bool>());
}

// Would catch a sensor that never yields frames through its API, raw pairing that fails on a healthy
// vehicle, or errors where there are none.
TEST(SensorctlStream, EveryDefaultSensorGivesFramesAndCamerasTwoAndThreePair) {
    const json doc = runJson({"stream", "--json", "--duration", "3"});
    EXPECT_EQ(doc.at("end"), "duration");
    std::vector<uint32_t> expected;
    for (uint32_t id = 0; id < 22; ++id) {
        if (id != 15) expected.push_back(id);
    }
    ASSERT_EQ(doc.at("sensors").size(), expected.size());
    for (uint32_t id : expected) {
        const json* s = sensorById(doc["sensors"], id);
        ASSERT_NE(s, nullptr) << "sensor " << id;
        EXPECT_GT(s->at("frames").get<uint64_t>(), 0u) << "sensor " << id;
        EXPECT_TRUE(s->at("errors").empty()) << s->dump();
        EXPECT_EQ(s->at("api"), id < 12 ? "legacy" : "current");
    }
    for (uint32_t id : {2u, 3u}) {
        const json& s = *sensorById(doc["sensors"], id);
        const double paired = s.at("paired").get<double>();
        const double tries = paired + s.at("pairFailures").get<double>();
        ASSERT_GT(tries, 0.0);
        EXPECT_GE(paired / tries, 0.95) << s.dump();
    }
}

// Would catch lost raw frames reported as clean pairing, dropped frames not counted as gaps, an absent
// sensor that stops the run instead of being skipped, and a client whose connection fails taking the
// healthy client down with it, or the failure going unreported.
TEST(SensorctlStream, FaultyRigShowsGapsPairingFailuresAbsentSensorAndFailedClient) {
    const ChildRun run = runTool({"--rig", kData + "/faulty_rig.toml", "stream", "--json", "--duration", "3",
                                  "--sensors", "0,2,5,13,21"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("start failed: RESULT_ERROR (-2)"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("sensor 13 (frontmaster) is not present"), std::string::npos) << run.err;
    const json doc = parseJson(run);
    EXPECT_EQ(doc.at("failures"), json::array({"start failed: RESULT_ERROR (-2)"}));
    EXPECT_EQ(doc.at("notPresent"), json::array({13}));
    EXPECT_GT(sensorById(doc.at("sensors"), 0)->at("frames").get<uint64_t>(), 0u);
    EXPECT_EQ(sensorById(doc.at("sensors"), 21)->at("frames"), 0);
    const json& wide = *sensorById(doc["sensors"], 2);
    EXPECT_GT(wide.at("frames").get<uint64_t>(), 0u);
    EXPECT_GT(wide.at("pairFailures").get<uint64_t>(), 0u) << wide.dump();
    EXPECT_GT(wide.at("gaps").get<uint64_t>(), 0u) << wide.dump();
    const json& side = *sensorById(doc["sensors"], 5);
    EXPECT_GT(side.at("gaps").get<uint64_t>(), 0u) << side.dump();
    EXPECT_EQ(side.at("pairFailures"), 0);
}

// Would catch a run that stalls or fails when a sensor disappears while streaming, and the plain-text
// live lines and summary (the path a terminal user sees) going missing.
TEST(SensorctlStream, LostSensorStopsItsFramesWhileTheRunGoesOn) {
    const ChildRun run = runTool({"--scenario", kData + "/radar_lost.toml", "stream", "--duration", "3",
                                  "--sensors", "frontslave,frontleft", "--no-raw"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("s] 12 frontslave"), std::string::npos) << run.out;
    const size_t summary = run.out.find("streamed ");
    ASSERT_NE(summary, std::string::npos) << run.out;
    std::istringstream rows(run.out.substr(summary));
    std::map<int, uint64_t> frames;
    for (std::string line; std::getline(rows, line);) {
        std::istringstream fields(line);
        int id;
        std::string name, api;
        uint64_t n;
        if (fields >> id >> name >> api >> n) frames[id] = n;
    }
    ASSERT_EQ(frames.size(), 2u) << run.out;
    EXPECT_GT(frames[16], 30u) << run.out;  // 20 frames a second throughout
    EXPECT_LT(frames[12], 20u) << run.out;  // only until it was lost
}

// Would catch a run that ignores its frame target (hangs or stops early) or a CPU copy that fails.
TEST(SensorctlStream, FrameTargetEndsTheRunWithExactlyThatManyFrames) {
    const json doc =
        runJson({"stream", "--json", "--frames", "5", "--api", "current", "--sensors", "12,14", "--cpu"});
    EXPECT_EQ(doc.at("end"), "complete");
    for (const json& s : doc.at("sensors")) {
        EXPECT_EQ(s.at("frames"), 5) << s.dump();
        EXPECT_TRUE(s.at("errors").empty()) << s.dump();
    }
}

// Would catch Ctrl-C killing the tool mid-frame instead of ending the run with a summary.
TEST(SensorctlStream, InterruptEndsTheRunWithASummary) {
    ChildOptions options;
    options.interruptAfter = std::chrono::milliseconds(2000);
    const json doc = runJson({"stream", "--json", "--sensors", "0,12"}, options);
    EXPECT_EQ(doc.at("end"), "interrupted");
    EXPECT_GT(doc["sensors"][0].at("frames").get<uint64_t>(), 0u);
}

// Would catch dumps written under other names or sizes than their sidecars say, wrong formats in the
// sidecars, and conversions that get the size, the colour order (a processed and a raw image of the same
// exposure must look alike) or the bit depth wrong.
TEST(SensorctlDumpConvert, DumpedFramesConvertToPngsOfTheirSize) {
    const fs::path dir = scratchDir("dump");
    const json doc =
        runJson({"dump", "--json", "--sensors", "2,12,14", "--count", "2", "--dir", dir.string()});
    ASSERT_EQ(doc.at("files").size(), 8u) << doc.dump(2);  // camera 2: two processed and two raw
    std::map<std::string, int> kinds;
    for (const json& f : doc["files"]) {
        const fs::path file = dir / f.at("file").get<std::string>();
        ASSERT_TRUE(fs::exists(file)) << file;
        EXPECT_EQ(fs::file_size(file), f.at("frameBytes").get<uint64_t>()) << file;
        EXPECT_TRUE(fs::exists(file.string() + ".json")) << file;
        ++kinds[f.at("format").get<std::string>()];
        EXPECT_NE(f.at("view").get<std::string>().find("ffplay -f rawvideo"), std::string::npos);
    }
    EXPECT_EQ(kinds, (std::map<std::string, int>{{"nv12", 2}, {"rggb16", 2}, {"gray8", 2}, {"gray16", 2}}));
    const json noRaw =
        runJson({"dump", "--json", "--sensors", "3", "--no-raw", "--dir", (dir / "noraw").string()});
    ASSERT_EQ(noRaw.at("files").size(), 1u);
    EXPECT_EQ(noRaw["files"][0].at("kind"), "processed");

    std::vector<std::string> args = {"convert"};
    for (const json& f : doc["files"]) args.push_back((dir / f.at("file").get<std::string>()).string());
    const ChildRun convert = runTool(args);
    ASSERT_EQ(convert.status, 0) << convert.err;
    std::map<std::string, sipc_test::Picture> pngs;
    for (const json& f : doc["files"]) {
        const std::string name = f.at("file").get<std::string>();
        auto png = readPng(dir / (name + ".png"));
        ASSERT_TRUE(png) << name;
        EXPECT_EQ(png->width, f["planes"][0].at("width").get<uint32_t>()) << name;
        EXPECT_EQ(png->height, f["planes"][0].at("height").get<uint32_t>()) << name;
        const std::string format = f.at("format");
        EXPECT_EQ((png->format & PNG_FORMAT_FLAG_COLOR) != 0, format == "nv12" || format == "rggb16") << name;
        EXPECT_EQ((png->format & PNG_FORMAT_FLAG_LINEAR) != 0, format == "gray16") << name;
        if (f.at("sensor").at("id") == 2) pngs[f.at("kind")] = std::move(*png);
    }
    // The last processed and raw images of camera 2 are the same exposure (the pair shares a counter).
    ASSERT_EQ(pngs.size(), 2u);
    const auto& a = pngs["processed"].rgb;
    const auto& b = pngs["raw"].rgb;
    ASSERT_EQ(a.size(), b.size());
    double diff[3] = {0, 0, 0};
    for (size_t i = 0; i < a.size(); ++i) diff[i % 3] += std::abs(int(a[i]) - int(b[i]));
    for (double d : diff) EXPECT_LT(d / double(a.size() / 3), 16.0);
}

// Would catch a dump appended to the file of an earlier run (the library appends; names repeat across
// runs) and --frame reading from the wrong offset.
TEST(SensorctlDumpConvert, RepeatedDumpReplacesAndFrameSelectsTheRightFrame) {
    const fs::path dir = scratchDir("frames");
    // Leftovers under every name the first frames of a run can have (counters start near 1).
    for (int cnt = 0; cnt <= 30; ++cnt) {
        std::ofstream(dir / ("SDEMO_client_cam_12_" + std::to_string(cnt) + "_1024_X_64.yuv")) << "leftover";
    }
    const ChildRun dump =
        runTool({"dump", "--json", "--sensors", "12", "--count", "2", "--dir", dir.string()});
    ASSERT_EQ(dump.status, 0) << dump.err;
    EXPECT_NE(dump.err.find("replaced the earlier"), std::string::npos) << dump.err;
    const json files = parseJson(dump).at("files");
    ASSERT_EQ(files.size(), 2u);
    for (const json& f : files) {
        EXPECT_EQ(fs::file_size(dir / f.at("file").get<std::string>()), f.at("frameBytes").get<uint64_t>());
    }

    // Two frames in one file, as an application that dumps the same name twice leaves it.
    const fs::path both = dir / "SDEMO_client_cam_12_99_1024_X_64.yuv";
    {
        std::ofstream out(both, std::ios::binary);
        for (const json& f : files)
            out << std::ifstream(dir / f.at("file").get<std::string>(), std::ios::binary).rdbuf();
    }
    const std::string second = (dir / files[1].at("file").get<std::string>()).string();
    ASSERT_EQ(runTool({"convert", both.string(), "--frame", "1", "-o", (dir / "picked.png").string()}).status,
              0);
    ASSERT_EQ(runTool({"convert", second, "-o", (dir / "direct.png").string()}).status, 0);
    const auto picked = readPng(dir / "picked.png");
    const auto direct = readPng(dir / "direct.png");
    ASSERT_TRUE(picked && direct);
    EXPECT_EQ(picked->rgb, direct->rgb);
}

// Would catch a convert that reads past a short file, guesses a geometry it cannot know, or crashes.
TEST(SensorctlDumpConvert, ShortFilesAndUnknownGeometryAreRefused) {
    const fs::path dir = scratchDir("convert");
    const fs::path shortFile = dir / "client_cam_0_7_4_X_2.yuv";  // 4x2 4:2:0 needs 12 bytes
    std::ofstream(shortFile) << "12345";
    ChildRun run = runTool({"convert", shortFile.string()});
    EXPECT_EQ(run.status, 3);
    EXPECT_NE(run.err.find("is too short"), std::string::npos) << run.err;

    const fs::path oneFrame = dir / "client_cam_12_7_4_X_2.yuv";  // 8-bit radar plane: 8 bytes a frame
    std::ofstream(oneFrame) << "abcdefgh";
    run = runTool({"convert", oneFrame.string(), "--frame", "1"});
    EXPECT_EQ(run.status, 3);
    run = runTool({"convert", oneFrame.string(), "-o", (dir / "radar.png").string()});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(readPng(dir / "radar.png"));

    const fs::path unnamed = dir / "capture.bin";
    std::ofstream(unnamed) << "abcdefgh";
    run = runTool({"convert", unnamed.string()});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("give --width, --height and --format"), std::string::npos) << run.err;
    run = runTool({"convert", unnamed.string(), "--width", "4", "--height", "2", "--format", "gray8"});
    EXPECT_EQ(run.status, 0) << run.err;
}

// Would catch commands whose answers lose the service's values or whose JSON changes shape.
TEST(SensorctlControl, QueriesAnswerInJson) {
    json doc = runJson({"diag", "--json"});
    EXPECT_EQ(doc.at("radarInnerState"), 0);
    EXPECT_EQ(doc.at("radarLevel2Faults").at("count"), 0);
    doc = runJson({"i2c", "read", "--sensor", "narrow", "--addr", "0x50", "--len", "8", "--json"});
    EXPECT_EQ(doc.at("data").size(), 8u);
    doc = runJson({"reg", "read", "--sensor", "midlidar", "--reg", "0x10", "--width", "16", "--json"});
    EXPECT_EQ(doc.at("width"), 16);
    doc = runJson({"stats", "--sensor", "wide", "--json"});
    EXPECT_EQ(doc.at("valid"), 1);
    EXPECT_EQ(doc.at("roiCount"), 4);
    EXPECT_EQ(doc.at("frameId"), doc.at("frameCnt"));
    EXPECT_GT(doc.at("roiDataSize").get<uint64_t>(), 0u);
}

// Would catch an explicit choice that cannot be honoured answered with another vehicle: a rig or
// scenario file that does not parse, or a replay file that is a named pipe (which must not block).
TEST(SensorctlSimulatorFiles, UnusableFilesAreUsageErrorsNamingFileAndCause) {
    // A rig for the in-process vehicle and a service: one of them would be ignored.
    ChildRun run =
        runTool({"--rig", kData + "/faulty_rig.toml", "--service", "/nonexistent/service.sock", "sensors"});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("give one or the other"), std::string::npos) << run.err;
#ifndef SENSORCTL_SIMULATOR
    GTEST_SKIP() << "built for the vehicle, sensorctl does not ask the simulator about its files";
#endif
    run = runTool({"--rig", kData + "/broken_rig.toml", "sensors", "--json"});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("broken_rig.toml:3:6: 'id' = 99 is out of range"), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;  // no table of another vehicle

    run = runTool({"--scenario", kData + "/broken_scenario.toml", "sensors"});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("broken_scenario.toml:"), std::string::npos) << run.err;

    const fs::path dir = scratchDir("fifo");
    const fs::path pipe = dir / "client_cam_3_1_64_X_32.yuv";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    std::ofstream(dir / "rig.toml") << "[[stream]]\nid = 3\n[stream.processed]\nreplay = \""
                                    << pipe.filename().string() << "\"\n";
    run = runTool({"--rig", (dir / "rig.toml").string(), "sensors"}, {std::chrono::seconds(20)});
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find(pipe.string() + "' is not a regular file"), std::string::npos) << run.err;
}

// Would catch a dump or a conversion into a directory that cannot take files reported as anything but
// an I/O error naming it, and a dump on a full file system that leaves its partial file behind or does
// not say why it failed. The full file system is a 1 MiB tmpfs in a mount namespace of its own.
TEST(SensorctlDumpConvert, FailedWritesNameTheFileAndLeaveNothing) {
    ChildRun run = runTool({"dump", "--sensors", "wide", "--dir", "/proc/sensorctl-test"});
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_NE(run.err.find("cannot create /proc/sensorctl-test"), std::string::npos) << run.err;
    const fs::path radar = scratchDir("unwritable") / "client_cam_12_7_4_X_2.yuv";  // one 4x2 8-bit frame
    std::ofstream(radar) << "abcdefgh";
    run = runTool({"convert", radar.string(), "-o", "/proc/sensorctl-test.png"});
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_NE(run.err.find("cannot write /proc/sensorctl-test.png: "), std::string::npos) << run.err;

    if (!kLauncher.empty()) GTEST_SKIP() << "the emulated tool does not run in a mount namespace here";
    const fs::path dir = scratchDir("full");
    const std::string script =
        "mount -t tmpfs -o size=1m sensorctl-full \"$1\" || exit 77\n"
        "\"$2\" dump --sensors wide --count 1 --dir \"$1\"\n"
        "rc=$?\n"
        "echo \"LEFT:$(ls -A \"$1\")\"\n"
        "exit $rc\n";
    // As root a mount namespace is enough; otherwise a user namespace gives the right to mount in it.
    std::vector<std::string> argv = {"/usr/bin/unshare", "--mount"};
    if (::geteuid() != 0) argv.push_back("--map-root-user");
    argv.insert(argv.end(), {"/bin/sh", "-c", script, "sh", dir.string(), kTool});
    run = sipc_test::runChild(argv, {std::chrono::seconds(60)});
    if (run.status == 77 || run.err.find("unshare:") != std::string::npos)
        GTEST_SKIP() << "no tmpfs in a mount namespace here: " << run.err;
    EXPECT_EQ(run.status, 3) << run.out << run.err;
    EXPECT_NE(run.err.find("No space left on device"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("client_cam_2_"), std::string::npos) << run.err;
    EXPECT_NE(run.out.find("LEFT:\n"), std::string::npos) << "a partial file is left:\n" << run.out;
}

#ifdef SENSOR_SIMD_PATH
// Would catch a consumer that goes on (counting errors, and ending with status 0) after its service
// died, or one that hangs on it.
TEST(SensorctlService, StreamStopsWithinTwoSecondsOfItsServiceBeingKilled) {
    const fs::path dir = scratchDir("lost");
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace);  // the service wants it private
    const std::string socket = (dir / "service.sock").string();
    const pid_t simd = sipc_test::startChild({kSimd, "--socket", socket}, {}, (dir / "simd.out").string(),
                                             (dir / "simd.err").string());
    ASSERT_GT(simd, 0);
    const bool listening = sipc_test::waitFor([&] { return fs::exists(socket); });
    const pid_t ctl =
        sipc_test::startChild({kTool, "--service", socket, "stream", "--sensors", "wide", "--duration", "60"},
                              {}, (dir / "ctl.out").string(), (dir / "ctl.err").string());
    auto read = [&](const char* name) {
        std::ifstream in(dir / name);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const bool streaming =
        listening && sipc_test::waitFor([&] { return read("ctl.out").find("frames") != std::string::npos; },
                                        std::chrono::seconds(20));
    ::kill(simd, SIGKILL);
    ::waitpid(simd, nullptr, 0);
    const auto killed = std::chrono::steady_clock::now();
    int wstatus = 0;
    const bool ended = sipc_test::waitFor([&] { return ::waitpid(ctl, &wstatus, WNOHANG) == ctl; },
                                          std::chrono::seconds(10));
    const auto took = std::chrono::steady_clock::now() - killed;
    if (!ended) sipc_test::endChild(ctl, SIGKILL, std::chrono::seconds(5));
    ASSERT_TRUE(streaming) << read("ctl.err") << read("simd.err");
    ASSERT_TRUE(ended) << "sensorctl stream outlived its service by 10 s";
    EXPECT_LT(took, std::chrono::seconds(2));
    EXPECT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(WEXITSTATUS(wstatus), 5) << read("ctl.err");
    EXPECT_NE(read("ctl.err").find("the service went away: sensor-simd at " + socket), std::string::npos)
        << read("ctl.err");
}
#endif

// Would catch a version that is not the project's, or a missing protocol version.
TEST(SensorctlVersion, PrintsProjectAndProtocolVersions) {
    const ChildRun run = runTool({"--version"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.rfind(std::string("sensorctl ") + SENSOR_IPC_VERSION + "\n", 0), 0u) << run.out;
#ifdef SENSORCTL_SIMULATOR
    EXPECT_NE(run.out.find("sensor-simd protocol "), std::string::npos) << run.out;
#endif
}

struct StatusCase {
    std::string name;
    std::vector<std::string> args;
    int status;
    std::string message;  // expected in stdout or stderr
    ChildOptions options = {};
};

void PrintTo(const StatusCase& c, std::ostream* os) {
    *os << c.name;
}

class SensorctlExitStatus : public ::testing::TestWithParam<StatusCase> {};

// Would catch a bad command line that reaches the library or crashes, a library failure reported without
// its code's name and number, help that is not a success, a start that waits for a connection without a
// bound, or output lost without notice when standard output cannot take it (a full disk).
TEST_P(SensorctlExitStatus, EndsWithItsStatusAndMessage) {
    const StatusCase& c = GetParam();
    const ChildRun run = runTool(c.args, c.options);
    EXPECT_EQ(run.status, c.status) << run.out << run.err;
    EXPECT_NE((run.out + run.err).find(c.message), std::string::npos) << run.out << run.err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SensorctlExitStatus,
    ::testing::Values(
        StatusCase{"Help", {"--help"}, 0, "Exit status:"},
        StatusCase{"CommandHelp", {"stream", "--help"}, 0, "--duration"},
        StatusCase{"NoCommand", {}, 2, "A subcommand is required"},
        StatusCase{"UnknownOption", {"stream", "--bogus"}, 2, "--bogus"},
        StatusCase{"SensorIdOutOfRange",
                   {"reg", "read", "--sensor", "22", "--reg", "1"},
                   2,
                   "sensor id 22 is out of range"},
        StatusCase{"UnknownSensorName",
                   {"reg", "read", "--sensor", "nosuch", "--reg", "1"},
                   2,
                   "unknown sensor 'nosuch'"},
        StatusCase{"ValueWiderThanRegister",
                   {"reg", "write", "--sensor", "1", "--reg", "1", "--value", "0x100"},
                   2,
                   "does not fit 8 bits"},
        StatusCase{"FramesWithDuration", {"stream", "--frames", "3", "--duration", "1"}, 2, "excludes"},
        StatusCase{"SensorOfOtherApi",
                   {"stream", "--api", "legacy", "--sensors", "12"},
                   2,
                   "no stream through --api legacy"},
        StatusCase{"BadHexBytes", {"i2c", "write", "-s", "3", "-a", "1", "-d", "zz"}, 2, "not hexadecimal"},
        StatusCase{
            "MissingRigFile", {"--rig", "/nonexistent/rig.toml", "sensors"}, 2, "/nonexistent/rig.toml"},
#ifdef SENSORCTL_SIMULATOR
        StatusCase{"NoServiceToShow",
                   {"--service", "/nonexistent/service.sock", "service"},
                   5,
                   "sensor-simd at /nonexistent/service.sock does not answer: No such file or directory"},
        // A named service that does not answer is an error: no private vehicle stands in unnoticed.
        StatusCase{"NamedServiceUnreachable",
                   {"--service", "/nonexistent/service.sock", "reg", "read", "--sensor", "12", "--reg", "1"},
                   5,
                   "sensor-simd at /nonexistent/service.sock does not answer: No such file or directory"},
#else
        // Built for the vehicle, sensorctl knows no simulator; the substitutes under it still fail the calls.
        StatusCase{"NoServiceToShow",
                   {"--service", "/nonexistent/service.sock", "service"},
                   2,
                   "only the host platform has a simulated vehicle"},
        StatusCase{"NamedServiceUnreachable",
                   {"--service", "/nonexistent/service.sock", "reg", "read", "--sensor", "12", "--reg", "1"},
                   1,
                   "SENSOR_SIM_SERVICE: /nonexistent/service.sock"},
#endif
        StatusCase{
            "FailedRegisterRead",
            {"--scenario", kData + "/register_fault.toml", "reg", "read", "--sensor", "12", "--reg", "1"},
            1,
            "sensorctl: readSensorRegUint8 failed: RESULT_ACCESS_FAILED (-6)"},
        StatusCase{"UnregisteredApplication",
                   {"stream", "--api", "legacy", "--camera-app", "13", "--frames", "1"},
                   1,
                   "Init failed: RESULT_BAD_PARAM (-5)"},
        StatusCase{"UnknownSyncGroup",
                   {"fsync", "set", "--group", "99", "--delta-ms", "1"},
                   1,
                   "setFsyncDeltaMs failed: RESULT_SERVICE_FAILED (-101)"},
        StatusCase{"ConnectionNeverComes",
                   {"--rig", kData + "/slow_connect_rig.toml", "stream", "--sensors", "12", "--duration", "1",
                    "--connect-timeout", "0.5"},
                   4,
                   "connection was not made within 500 ms",
                   {std::chrono::seconds(20)}},
        StatusCase{"FailedWriteIsAnIoError",
                   {"sensors"},
                   3,
                   "cannot write to standard output",
                   {std::chrono::seconds(60), std::nullopt, "/dev/full"}}),
    [](const ::testing::TestParamInfo<StatusCase>& info) { return info.param.name; });

}  // namespace
