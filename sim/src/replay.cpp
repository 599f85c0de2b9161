// Dump files played back into the live streams: name parsing, a read-only mapping, frame copies.
#include "sensor_sim/internal/replay.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <regex>

#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

namespace sensor_sim {
namespace replay {

namespace {

constexpr uint32_t kMaxSide = 16384;

bool toU32(const std::string& digits, uint32_t* out) {
    if (digits.empty() || digits.size() > 10) return false;
    const unsigned long long v = std::stoull(digits);
    if (v > std::numeric_limits<uint32_t>::max()) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

bool parseDumpName(const std::string& path, DumpName* out, std::string* why) {
    const size_t slash = path.find_last_of('/');
    const std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
    static const std::regex kName(R"(^(?:([A-Za-z0-9]+)_)?client_cam_(\d+)_(\d+)_(\d+)_X_(\d+)\.(yuv|raw)$)");
    std::smatch m;
    if (!std::regex_match(file, m, kName)) {
        *why = "'" + file +
               "' is not a dump file name ([<APP>_]client_cam_<sensor>_<frame>_<width>_X_<height>" +
               ".yuv or .raw)";
        return false;
    }
    DumpName n;
    n.app = m[1].str();
    if (!toU32(m[2].str(), &n.sensorId) || !toU32(m[3].str(), &n.frame) || !toU32(m[4].str(), &n.width) ||
        !toU32(m[5].str(), &n.height)) {
        *why = "'" + file + "': a number in the name does not fit 32 bits";
        return false;
    }
    n.format = m[6].str() == "yuv" ? pattern::Format::Yuv420 : pattern::Format::Bayer16;
    if (n.width == 0 || n.height == 0 || n.width > kMaxSide || n.height > kMaxSide) {
        *why = "'" + file + "': size " + std::to_string(n.width) + "x" + std::to_string(n.height) +
               " is not in 1.." + std::to_string(kMaxSide);
        return false;
    }
    if (n.format == pattern::Format::Yuv420 && (n.width % 2 != 0 || n.height % 2 != 0)) {
        *why = "'" + file + "': a 4:2:0 frame needs an even width and height";
        return false;
    }
    *out = n;
    return true;
}

std::shared_ptr<const Source> Source::open(const std::string& path, std::string* error) {
    std::shared_ptr<Source> s(new Source);
    s->m_path = path;
    if (!parseDumpName(path, &s->m_name, error)) return nullptr;
    s->m_frameBytes = pattern::frameBytes(s->m_name.format, s->m_name.width, s->m_name.height);
    // Non-blocking: opening a named pipe must not wait for a writer; fstat then refuses it.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = "cannot open replay file '" + path + "': " + std::strerror(errno);
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        *error = "replay file '" + path + "' is not a regular file";
        return nullptr;
    }
    s->m_size = static_cast<uint64_t>(st.st_size);
    s->m_frames = s->m_size / s->m_frameBytes;
    if (s->m_frames == 0) {
        ::close(fd);
        *error = "replay file '" + path + "' holds " + std::to_string(s->m_size) + " bytes, less than one " +
                 std::to_string(s->m_name.width) + "x" + std::to_string(s->m_name.height) + " frame (" +
                 std::to_string(s->m_frameBytes) + " bytes)";
        return nullptr;
    }
    void* map = ::mmap(nullptr, s->m_size, PROT_READ, MAP_PRIVATE, fd, 0);
    ::close(fd);
    if (map == MAP_FAILED) {
        *error = "cannot map replay file '" + path + "': " + std::strerror(errno);
        return nullptr;
    }
    s->m_data = static_cast<const uint8_t*>(map);
    return s;
}

Source::~Source() {
    if (m_data != nullptr) ::munmap(const_cast<uint8_t*>(m_data), m_size);
}

void Source::copyFrame(uint64_t index, Buffer& buffer) const {
    const uint8_t* src = m_data + (index % m_frames) * m_frameBytes;
    const uint32_t w = m_name.width, h = m_name.height;
    const size_t planes = buffer.spec().planes.size();
    // Luma (or the Bayer plane) first, then for 4:2:0 the chroma lines, each w bytes (w/2 U/V pairs).
    const uint32_t mainLine = m_name.format == pattern::Format::Yuv420 ? w : w * 2;
    if (planes > 0) {
        const uint32_t line = std::min(mainLine, buffer.lineBytes(0));
        for (uint32_t y = 0; y < std::min(h, buffer.spec().planes[0].height); ++y)
            std::memcpy(buffer.line(0, y), src + uint64_t(y) * mainLine, line);
    }
    if (m_name.format == pattern::Format::Yuv420 && planes > 1) {
        const uint8_t* chroma = src + uint64_t(w) * h;
        const uint32_t line = std::min(w, buffer.lineBytes(1));
        for (uint32_t y = 0; y < std::min(h / 2, buffer.spec().planes[1].height); ++y)
            std::memcpy(buffer.line(1, y), chroma + uint64_t(y) * w, line);
    }
}

}  // namespace replay
}  // namespace sensor_sim

// --- MCAP recordings ------------------------------------------------------------------------------------

namespace sensor_sim {
namespace replay {

namespace {

constexpr size_t kCachedChunks = 24;

bool formatOf(sensor_recording::ImageFormat f, pattern::Format* out) {
    switch (f) {
        case sensor_recording::ImageFormat::Nv12:
            *out = pattern::Format::Yuv420;
            return true;
        case sensor_recording::ImageFormat::Rggb16:
            *out = pattern::Format::Bayer16;
            return true;
        case sensor_recording::ImageFormat::Mono8:
            *out = pattern::Format::Grey8;
            return true;
        case sensor_recording::ImageFormat::Mono16:
            *out = pattern::Format::Grey16;
            return true;
        case sensor_recording::ImageFormat::Nv21:
            break;
    }
    return false;
}

}  // namespace

std::shared_ptr<const Recording> Recording::open(const std::string& path, std::string* error) {
    std::string why;
    std::shared_ptr<sensor_recording::McapReader> reader = sensor_recording::McapReader::openFile(path, &why);
    if (!reader) {
        *error = "cannot use recording: " + why;
        return nullptr;
    }
    std::shared_ptr<Recording> r(new Recording);
    r->m_path = path;
    uint64_t first = UINT64_MAX, last = 0;
    std::string problem;
    const bool ok = reader->read([&](const sensor_recording::Message& m) {
        const sensor_recording::Channel& c = reader->channels().at(m.channelId);
        auto id = c.metadata.find("sensor_id");
        auto stream = c.metadata.find("stream");
        if (id == c.metadata.end() || stream == c.metadata.end()) return true;  // not a frame channel
        uint32_t sensor = 0;
        if (!toU32(id->second, &sensor) || sensor >= 64) {
            problem = "channel '" + c.topic + "' names sensor '" + id->second + "'";
            return false;
        }
        // The frames of sensors 0 to 7 come from their processed output, the others' from their capture
        // output, and the raw frames of cameras 2 and 3 from theirs.
        const uint32_t output = stream->second == "raw" || sensor >= 8 ? 0 : 1;
        sensor_recording::DecodedImage image;
        std::string bad;
        if (!sensor_recording::decodeImage(m.data, m.size, image, bad)) {
            problem = "a message of '" + c.topic + "' (counter " + std::to_string(m.sequence) + "): " + bad;
            return false;
        }
        pattern::Format format;
        if (!formatOf(image.header.geometry.format, &format)) {
            problem = "'" + c.topic + "' holds " + image.encoding + " frames, which the vehicle does not make";
            return false;
        }
        Track& t = r->m_tracks[{sensor, output}];
        if (t.frames.empty()) {
            t.format = format;
            t.width = image.header.geometry.width;
            t.height = image.header.geometry.height;
        } else if (t.format != format || t.width != image.header.geometry.width ||
                   t.height != image.header.geometry.height) {
            problem = "'" + c.topic + "' changes its frame size or format at counter " + std::to_string(m.sequence);
            return false;
        }
        t.frames.push_back(Frame{m.sequence, m.logTimeNs, m.chunkOffset, m.dataOffset, m.size});
        first = std::min(first, m.logTimeNs);
        last = std::max(last, m.logTimeNs);
        return true;
    });
    if (!ok || !problem.empty()) {
        *error = "cannot use recording '" + path + "': " + (problem.empty() ? reader->error() : problem);
        return nullptr;
    }
    if (r->m_tracks.empty()) {
        *error = "recording '" + path + "' holds no frames of any sensor";
        return nullptr;
    }
    for (auto& [key, t] : r->m_tracks)
        for (Frame& f : t.frames) f.timeNs -= first;
    r->m_spanNs = last - first;
    r->m_reader = reader;
    return r;
}

const Recording::Track* Recording::track(uint32_t sensorId, uint32_t output) const {
    auto it = m_tracks.find({sensorId, output});
    return it == m_tracks.end() ? nullptr : &it->second;
}

bool Recording::copyFrame(const Frame& frame, Buffer& buffer) const {
    const auto* reader = static_cast<const sensor_recording::McapReader*>(m_reader.get());
    std::shared_ptr<const std::vector<uint8_t>> chunk;
    const uint8_t* base = reader->data();
    if (frame.chunkOffset != 0) {
        {
            std::lock_guard<std::mutex> lock(m_cacheMutex);
            for (const auto& [offset, records] : m_cache)
                if (offset == frame.chunkOffset) chunk = records;
        }
        if (!chunk) {
            auto records = std::make_shared<std::vector<uint8_t>>();
            std::string error;
            if (!reader->chunkRecords(frame.chunkOffset, *records, error)) return false;
            chunk = records;
            std::lock_guard<std::mutex> lock(m_cacheMutex);
            if (m_cache.size() >= kCachedChunks) m_cache.erase(m_cache.begin());
            m_cache.emplace_back(frame.chunkOffset, chunk);
        }
        base = chunk->data();
        if (frame.dataOffset + frame.size > chunk->size()) return false;
    } else if (frame.dataOffset + frame.size > reader->size()) {
        return false;
    }
    sensor_recording::DecodedImage image;
    std::string error;
    if (!sensor_recording::decodeImage(base + frame.dataOffset, frame.size, image, error)) return false;
    const uint8_t* src = image.data;
    const auto& planes = image.header.geometry.planes;
    for (size_t p = 0; p < planes.size() && p < buffer.spec().planes.size(); ++p) {
        const uint32_t line = std::min(planes[p].lineBytes, buffer.lineBytes(p));
        for (uint32_t y = 0; y < std::min(planes[p].lines, buffer.spec().planes[p].height); ++y)
            std::memcpy(buffer.line(p, y), src + uint64_t(y) * planes[p].pitch, line);
        src += uint64_t(planes[p].pitch) * planes[p].lines;
    }
    return true;
}

}  // namespace replay
}  // namespace sensor_sim
