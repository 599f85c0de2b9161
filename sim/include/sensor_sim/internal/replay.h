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
#include <memory>
#include <string>

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

}  // namespace replay
}  // namespace sensor_sim

#endif  // SENSOR_SIM_INTERNAL_REPLAY_H
