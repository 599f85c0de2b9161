// Replay of the client library's image dumps: a dump file is headerless plane data, frames appended one
// after another, its geometry in its name. Not for tests of the client.
//
//   [<APP>_]client_cam_<sensor>_<frame>_<width>_X_<height>.yuv   two-plane 4:2:0 frames: luma W*H bytes,
//                                                                 then interleaved chroma W*(H/2) bytes
//   [<APP>_]client_cam_<sensor>_<frame>_<width>_X_<height>.raw   single-plane 16-bit Bayer, W*H*2 bytes
//
// A trailing partial frame is ignored. The file is mapped read-only for as long as a rig uses it.
#ifndef SENSOR_SIM_INTERNAL_REPLAY_H
#define SENSOR_SIM_INTERNAL_REPLAY_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sensor_sim/buffers.h"
#include "sensor_sim/internal/pattern.h"

namespace sensor_sim {
namespace replay {

struct DumpName {
    std::string app;  // empty without an application prefix
    uint32_t sensorId = 0;
    uint32_t frame = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    pattern::Format format = pattern::Format::Yuv420;
};

// Parses the file name part of a path; false (and a reason in `why`) when it is not a dump's name.
bool parseDumpName(const std::string& path, DumpName* out, std::string* why);

class Source {
public:
    // Opens and maps a dump; null with a message in `error` when the name or the content is unusable.
    static std::shared_ptr<const Source> open(const std::string& path, std::string* error);
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    const DumpName& name() const { return m_name; }
    const std::string& path() const { return m_path; }
    uint64_t frames() const { return m_frames; }
    // Copies frame `index` modulo frames() into `buffer`, whose planes have the dump's geometry.
    void copyFrame(uint64_t index, Buffer& buffer) const;

private:
    Source() = default;
    std::string m_path;
    DumpName m_name;
    const uint8_t* m_data = nullptr;
    uint64_t m_size = 0;
    uint64_t m_frameBytes = 0;
    uint64_t m_frames = 0;
};

// An MCAP recording of sensorctl record played back into the streams: each sensor's recorded frames come
// out of its outputs (the "image" channel on the processed output, "raw" on the capture output) with
// their recorded counters, at their recorded times from the start of the replay divided by the rate.
class Recording {
public:
    struct Frame {
        uint32_t counter = 0;
        uint64_t timeNs = 0;  // from the recording's first message
        uint64_t chunkOffset = 0;
        uint64_t dataOffset = 0;
        uint64_t size = 0;
    };
    struct Track {
        pattern::Format format = pattern::Format::Yuv420;
        uint32_t width = 0;
        uint32_t height = 0;
        std::vector<Frame> frames;  // in recorded order
    };

    // Reads the whole file (every CRC checked) and indexes its frames; null with `error` otherwise.
    static std::shared_ptr<const Recording> open(const std::string& path, std::string* error);

    const std::string& path() const { return m_path; }
    // The track of a sensor's output (0 capture, 1 processed), or null when the recording has none.
    const Track* track(uint32_t sensorId, uint32_t output) const;
    // Time from the first to the last message.
    uint64_t spanNs() const { return m_spanNs; }
    // Copies a frame's visible lines into `buffer` (whose planes have the track's format and size);
    // false when the file cannot give them (it was checked when opened).
    bool copyFrame(const Frame& frame, Buffer& buffer) const;

private:
    Recording() = default;
    std::string m_path;
    std::map<std::pair<uint32_t, uint32_t>, Track> m_tracks;
    uint64_t m_spanNs = 0;
    std::shared_ptr<const void> m_reader;  // the mapped file
    // The last chunks decompressed: the streams move through the file together, so they share them.
    mutable std::mutex m_cacheMutex;
    mutable std::vector<std::pair<uint64_t, std::shared_ptr<const std::vector<uint8_t>>>> m_cache;
};

}  // namespace replay
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_REPLAY_H
