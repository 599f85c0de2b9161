// dump: writes frames with the library's own dump operations (the processed image, and the raw image of
// cameras 2 and 3 when pairing is on), each with a JSON sidecar that describes its layout.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "buffer_info.h"
#include "command.h"
#include "errors.h"
#include "interrupt.h"
#include "names.h"
#include "sessions.h"

namespace sensorctl {
namespace {

namespace fs = std::filesystem;
using vexa::cameraipcclient::BufFrameObj;
using vexa::cameraipcclient::CCameraIpcClient;
using vexa::cameraipcclient::FrameBufObj;
using vexa::cameraipcclient::RESULT_FAILED;
using vexa::cameraipcclient::RESULT_STREAM_CODE_9;

// Gives a held frame back if a dump step fails half-way.
template <typename Release>
class FrameGuard {
public:
    explicit FrameGuard(Release release) : m_release(std::move(release)) {}
    ~FrameGuard() {
        if (m_armed) m_release();
    }
    FrameGuard(const FrameGuard&) = delete;
    FrameGuard& operator=(const FrameGuard&) = delete;
    int32_t release() {
        m_armed = false;
        return m_release();
    }

private:
    Release m_release;
    bool m_armed = true;
};

class DumpCommand : public Command {
public:
    CLI::App* configure(CLI::App& parent) override {
        CLI::App* cmd = parent.add_subcommand(
            "dump",
            "Write frames to files with the library's dump operations, each with a JSON sidecar "
            "and a raw-video viewer command");
        addSensorListOption(*cmd, m_sensors, m_sensorsGiven);
        addNumberOption(*cmd, "-c,--count", m_count, 10000, "Frames per sensor (default 1)", 1);
        cmd->add_option("--dir", m_dir,
                        "Directory of the files (created if missing; default the current one)")
            ->type_name("DIR");
        addSwitch(*cmd, "raw", m_raw, "Pair and dump the raw frames of cameras 2 and 3 (the default)",
                  "Dump only their processed frames");
        addSecondsOption(*cmd, "--timeout", m_timeout, 86400.0,
                         "Give up after SECONDS without all frames (exit 4); default 10");
        addNumberOption(*cmd, "--frame-timeout", m_frameTimeoutMs, 10000,
                        "Frame time-out of the current API's streams in ms (default 5)", 1);
        addSecondsOption(*cmd, "--connect-timeout", m_connectTimeout, 3600.0,
                         "Give up connecting after SECONDS (default 10)");
        addAppOption(*cmd, "--camera-app", m_cameraApp, "legacy (camera) client");
        addAppOption(*cmd, "--sensor-app", m_sensorApp, "current (radar/lidar) client");
        cmd->add_flag("--json", m_json, "Print the sidecars of the written files as one JSON document");
        return cmd;
    }

    int run(Output& io) override {
        Selection selection = selectSensors(m_sensors, m_sensorsGiven, true, true, m_sensorApp);
        enterDirectory();
        checkWritable();

        std::vector<uint32_t> absent;
        std::unique_ptr<CameraSession> cameras;
        std::unique_ptr<SensorSession> others;
        if (!selection.cameras.empty()) {
            cameras = std::make_unique<CameraSession>(m_cameraApp);
            selection.cameras =
                keepPresent(selection.cameras, cameras->init(selection.cameras, m_raw), absent);
        }
        if (!selection.others.empty()) {
            others = std::make_unique<SensorSession>(m_sensorApp);
            selection.others =
                keepPresent(selection.others, others->init(selection.others, m_frameTimeoutMs), absent);
        }
        for (uint32_t id : absent)
            io.err.print("sensorctl: sensor {} ({}) is not present; skipped\n", id, sensorEntry(id).name);
        if (selection.cameras.empty() && selection.others.empty())
            throw UsageError("none of the chosen sensors is present");
        const auto limit = std::chrono::milliseconds(static_cast<int64_t>(m_connectTimeout * 1000));
        if (cameras) cameras->start(limit);
        if (others) others->start(limit);

        std::map<uint32_t, uint32_t> done;
        for (uint32_t id : selection.cameras) done[id] = 0;
        for (uint32_t id : selection.others) done[id] = 0;
        const uint64_t deadline = steadyUs() + static_cast<uint64_t>(m_timeout * 1e6);
        size_t remaining = done.size();
        while (remaining > 0) {
            if (interrupted()) throw InterruptedError();
            if (steadyUs() >= deadline) break;
            for (auto& [id, count] : done) {
                if (count >= m_count) continue;
                const bool got =
                    servedByLegacy(id) ? dumpCameraFrame(io, *cameras, id) : dumpSensorFrame(io, *others, id);
                if (got && ++count == m_count) --remaining;
            }
        }
        if (m_json) {
            io.out.write(nlohmann::ordered_json({{"dir", fs::current_path().string()},
                                                 {"files", m_written},
                                                 {"pairFailures", m_pairFailures}})
                             .dump(2) +
                         "\n");
        } else {
            io.out.print("{} files in {}\n", m_written.size(), fs::current_path().string());
        }
        if (remaining > 0) {
            std::string shortOf;
            for (const auto& [id, count] : done) {
                if (count < m_count)
                    shortOf +=
                        fmt::format("{}{} ({} of {})", shortOf.empty() ? "" : ", ", id, count, m_count);
            }
            throw TimeoutError(fmt::format("frames missing after {} s: sensors {}", m_timeout, shortOf));
        }
        return kExitOk;
    }

private:
    void enterDirectory() {
        if (m_dir.empty()) return;
        std::error_code ec;
        fs::create_directories(m_dir, ec);
        if (ec) throw IoError(fmt::format("cannot create {}: {}", m_dir, ec.message()));
        if (::chdir(m_dir.c_str()) != 0)
            throw IoError(fmt::format("cannot enter {}: {}", m_dir, std::strerror(errno)));
    }

    // Refuses a directory that cannot take the files before any frame is taken.
    static void checkWritable() {
        if (::access(".", W_OK) != 0)
            throw IoError(
                fmt::format("cannot write in {}: {}", fs::current_path().string(), std::strerror(errno)));
    }

    // One get of a camera; true when a frame was dumped.
    bool dumpCameraFrame(Output& io, CameraSession& session, uint32_t id) {
        BufFrameObj frame{};
        const int32_t result = session.get(id, frame);
        if (result == RESULT_STREAM_CODE_9) return false;
        const bool raw = session.raw() && sensorEntry(id).hasRaw;
        if (result == RESULT_FAILED && raw) {
            ++m_pairFailures[std::to_string(id)];
            io.err.print("sensorctl: camera {} ({}): raw pairing failed: {} ({}); taking the next frame\n",
                         id, sensorEntry(id).name, vexa::cameraipcclient::resultCodeName(result), result);
            return false;
        }
        if (result != 0) throw LibraryError("GetFrame", result, sensorLabel(id));
        FrameGuard guard([&] { return session.release(frame); });
        dumpFile(io, session.client(), m_cameraApp, frame, false);
        if (raw) dumpFile(io, session.client(), m_cameraApp, frame, true);
        const int32_t released = guard.release();
        if (released != 0) throw LibraryError("ReleaseFrame", released, sensorLabel(id));
        return true;
    }

    // Frames of the current API go through the legacy dump of the sensor application's client, which reads
    // only the sensor id, the frame counter and the buffer of the record.
    bool dumpSensorFrame(Output& io, SensorSession& session, uint32_t id) {
        FrameBufObj frame{};
        const int32_t result = session.get(id, frame, false);
        if (result == RESULT_STREAM_CODE_9) return false;
        if (result != 0) throw LibraryError("getFrame", result, sensorLabel(id));
        FrameGuard guard([&] { return session.release(frame); });
        BufFrameObj record{};
        record.sensorId = frame.sensorId;
        record.frameCnt = frame.frameCnt;
        record.timestampMs = frame.timestampMs;
        record.bufObj = frame.bufObj;
        CCameraIpcClient writer(static_cast<vexa::cameraipcclient::AppType>(m_sensorApp));
        dumpFile(io, writer, m_sensorApp, record, false);
        const int32_t released = guard.release();
        if (released != 0) throw LibraryError("releaseFrame", released, sensorLabel(id));
        return true;
    }

    void dumpFile(Output& io, CCameraIpcClient& writer, uint32_t app, BufFrameObj& frame, bool raw) {
        // The client has initialised, so its application is a registered one.
        const AppEntry* appEntry = findApp(app);
        if (appEntry == nullptr) throw UsageError(fmt::format("application {} has no registration", app));
        const BufferInfo info = readBufferInfo(raw ? frame.rawBufObj : frame.bufObj);
        const uint32_t width = info.planes.empty() ? 0 : info.planes[0].width;
        const uint32_t height = info.planes.empty() ? 0 : info.planes[0].height;
        // The library's names: processed images carry the application's short name, raw images do not.
        const std::string name =
            raw ? fmt::format("client_cam_{}_{}_{}_X_{}.raw", frame.sensorId, frame.frameCnt, width, height)
                : fmt::format("{}_client_cam_{}_{}_{}_X_{}.yuv", appEntry->shortName, frame.sensorId,
                              frame.frameCnt, width, height);
        // The library appends; a file left by an earlier run would hold two frames.
        std::error_code ec;
        if (fs::remove(name, ec)) io.err.print("sensorctl: replaced the earlier {}\n", name);
        const char* call = raw ? "WriteRawImageToFile" : "WriteImageToFile";
        errno = 0;
        const int32_t result = raw ? writer.WriteRawImageToFile(&frame) : writer.WriteImageToFile(&frame);
        const int writeErrno = errno;
        if (result != 0) {
            // A write that failed half-way (a full disk) leaves no partial file behind.
            const bool partial = fs::remove(name, ec);
            if (writeErrno != 0 || partial) {
                throw IoError(fmt::format(
                    "cannot write {}: {} ({} answered {} ({}) for {})", fs::absolute(name).string(),
                    writeErrno != 0 ? std::strerror(writeErrno) : "write failed", call,
                    vexa::cameraipcclient::resultCodeName(result), result, sensorLabel(frame.sensorId)));
            }
            throw LibraryError(call, result, sensorLabel(frame.sensorId));
        }
        const uint64_t size = fs::file_size(name, ec);
        if (ec)
            throw IoError(fmt::format("the dump of {} did not create {}: {}", sensorLabel(frame.sensorId),
                                      name, ec.message()));
        if (size != info.dumpBytes()) {
            io.err.print("sensorctl: {} holds {} bytes; its buffer describes {}\n", name, size,
                         info.dumpBytes());
        }
        nlohmann::ordered_json sidecar;
        sidecar["file"] = name;
        sidecar["kind"] = raw ? "raw" : "processed";
        sidecar["sensor"] = {{"id", frame.sensorId}, {"name", sensorName(frame.sensorId)}};
        sidecar["app"] = {{"value", app}, {"name", appEntry->enumerator}};
        sidecar["frameCnt"] = frame.frameCnt;
        sidecar["timestampMs"] = frame.timestampMs;
        sidecar["fileBytes"] = size;
        sidecar.update(bufferJson(info));
        const std::string view = viewerCommand(name, info);
        sidecar["view"] = view.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(view);
        const std::string convert = converterCommand(name, info);
        sidecar["convert"] =
            convert.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(convert);
        writeFile(name + ".json", sidecar.dump(2) + "\n");
        if (!m_json) {
            const auto format = info.pixelFormat();
            io.out.print("{}  {} {}x{}  {} frame {}\n", name,
                         format ? pixelFormatName(*format) : "unknown-format", width, height,
                         sensorLabel(frame.sensorId), frame.frameCnt);
            if (!view.empty()) io.out.print("    {}\n", view);
        }
        m_written.push_back(std::move(sidecar));
    }

    static std::string sensorLabel(uint32_t id) { return fmt::format("sensor {} ({})", id, sensorName(id)); }

    std::vector<uint32_t> m_sensors;
    bool m_sensorsGiven = false;
    uint32_t m_count = 1;
    std::string m_dir;
    bool m_raw = true;
    double m_timeout = 10;
    uint32_t m_frameTimeoutMs = 5;
    double m_connectTimeout = 10;
    uint32_t m_cameraApp = vexa::cameraipcclient::APP_CAMERA_DEMO;
    uint32_t m_sensorApp = vexa::cameraipcclient::APP_SENSOR_DEMO;
    bool m_json = false;
    nlohmann::ordered_json m_written = nlohmann::ordered_json::array();
    std::map<std::string, uint64_t> m_pairFailures;
};

}  // namespace

std::unique_ptr<Command> makeDumpCommand() {
    return std::make_unique<DumpCommand>();
}

}  // namespace sensorctl
