// sensor_msgs/msg/Image in little-endian CDR: the encapsulation header, then the fields aligned to their
// size from the end of that header.
#include "sensor_recording/frame_message.h"

#include <cstring>

#include "records.h"

namespace sensor_recording {

const char* const kImageSchemaName = "sensor_msgs/msg/Image";
const char* const kImageSchemaEncoding = "ros2msg";
const char* const kImageMessageEncoding = "cdr";

const std::string& imageSchemaText() {
    static const std::string kText =
        "std_msgs/Header header\n"
        "uint32 height\n"
        "uint32 width\n"
        "string encoding\n"
        "uint8 is_bigendian\n"
        "uint32 step\n"
        "uint8[] data\n"
        "================================================================================\n"
        "MSG: std_msgs/Header\n"
        "builtin_interfaces/Time stamp\n"
        "string frame_id\n"
        "================================================================================\n"
        "MSG: builtin_interfaces/Time\n"
        "int32 sec\n"
        "uint32 nanosec\n";
    return kText;
}

namespace {

const char* baseName(ImageFormat format) {
    switch (format) {
        case ImageFormat::Nv12:
            return "nv12";
        case ImageFormat::Nv21:
            return "nv21";
        case ImageFormat::Rggb16:
            return "bayer_rggb16";
        case ImageFormat::Mono8:
            return "mono8";
        case ImageFormat::Mono16:
            return "mono16";
    }
    return "";
}

constexpr ImageFormat kFormats[] = {ImageFormat::Nv12, ImageFormat::Nv21, ImageFormat::Rggb16, ImageFormat::Mono8,
                                    ImageFormat::Mono16};
constexpr uint32_t kMaxSide = 65536;

}  // namespace

uint64_t ImageGeometry::dataBytes() const {
    uint64_t n = 0;
    for (const ImagePlane& p : planes) n += uint64_t(p.pitch) * p.lines;
    return n;
}

std::optional<ImageGeometry> makeGeometry(ImageFormat format, uint32_t width, uint32_t height,
                                          const std::vector<uint32_t>& pitches) {
    if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide) return std::nullopt;
    ImageGeometry g;
    g.format = format;
    g.width = width;
    g.height = height;
    const bool yuv = format == ImageFormat::Nv12 || format == ImageFormat::Nv21;
    if (yuv && (width % 2 != 0 || height % 2 != 0)) return std::nullopt;
    const uint32_t sample = format == ImageFormat::Rggb16 || format == ImageFormat::Mono16 ? 2 : 1;
    const size_t planes = yuv ? 2 : 1;
    if (pitches.size() != planes) return std::nullopt;
    g.planes.push_back(ImagePlane{pitches[0], height, width * sample});
    if (yuv) g.planes.push_back(ImagePlane{pitches[1], height / 2, width});
    for (const ImagePlane& p : g.planes)
        if (p.pitch < p.lineBytes) return std::nullopt;
    return g;
}

std::string encodingOf(const ImageGeometry& g) {
    std::string name = baseName(g.format);
    if (g.planes.size() > 1 && g.planes[1].pitch != g.planes[0].pitch)
        name += ":pitch1=" + std::to_string(g.planes[1].pitch);
    return name;
}

namespace {

class Cdr {
public:
    std::vector<uint8_t> b{0x00, 0x01, 0x00, 0x00};  // CDR, little-endian
    void align(size_t n) {
        while ((b.size() - 4) % n != 0) b.push_back(0);
    }
    void u32(uint32_t v) {
        align(4);
        for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
    }
    void str(const std::string& s) {
        u32(uint32_t(s.size() + 1));
        b.insert(b.end(), s.begin(), s.end());
        b.push_back(0);
    }
};

class CdrIn {
public:
    CdrIn(const uint8_t* p, size_t n) : m_p(p), m_n(n), m_at(4) {}
    bool align(size_t k) {
        while ((m_at - 4) % k != 0) ++m_at;
        return m_at <= m_n;
    }
    bool u32(uint32_t& v) {
        if (!align(4) || m_n - m_at < 4) return false;
        v = uint32_t(getLe(m_p + m_at, 4));
        m_at += 4;
        return true;
    }
    bool u8(uint8_t& v) {
        if (m_at >= m_n) return false;
        v = m_p[m_at++];
        return true;
    }
    bool str(std::string& s) {
        uint32_t n = 0;
        if (!u32(n) || n == 0 || n > m_n - m_at || m_p[m_at + n - 1] != 0) return false;
        s.assign(reinterpret_cast<const char*>(m_p + m_at), n - 1);
        m_at += n;
        return true;
    }
    bool bytes(const uint8_t*& p, size_t& n) {
        uint32_t len = 0;
        if (!u32(len) || len > m_n - m_at) return false;
        p = m_p + m_at;
        n = len;
        m_at += len;
        return true;
    }

private:
    const uint8_t* m_p;
    size_t m_n;
    size_t m_at;
};

}  // namespace

std::vector<uint8_t> encodeImageHead(const ImageHeader& h) {
    Cdr c;
    c.u32(uint32_t(h.stampNs / 1000000000u));
    c.u32(uint32_t(h.stampNs % 1000000000u));
    c.str(h.frameId);
    c.u32(h.geometry.height);
    c.u32(h.geometry.width);
    c.str(encodingOf(h.geometry));
    c.b.push_back(0);  // is_bigendian
    c.u32(h.geometry.planes.empty() ? 0 : h.geometry.planes[0].pitch);
    c.u32(uint32_t(h.geometry.dataBytes()));
    return c.b;
}

bool decodeImage(const uint8_t* bytes, size_t size, DecodedImage& out, std::string& error) {
    if (size < 4 || bytes[0] != 0x00 || bytes[1] != 0x01) {
        error = "not a little-endian CDR message";
        return false;
    }
    CdrIn in(bytes, size);
    uint32_t sec = 0, nsec = 0, height = 0, width = 0;
    uint8_t bigEndian = 0;
    if (!in.u32(sec) || !in.u32(nsec) || !in.str(out.header.frameId) || !in.u32(height) || !in.u32(width) ||
        !in.str(out.encoding) || !in.u8(bigEndian) || !in.u32(out.step) || !in.bytes(out.data, out.size)) {
        error = "the image message is cut short or malformed";
        return false;
    }
    out.header.stampNs = uint64_t(sec) * 1000000000u + nsec;
    const size_t colon = out.encoding.find(':');
    const std::string base = out.encoding.substr(0, colon);
    std::optional<ImageFormat> format;
    for (ImageFormat f : kFormats)
        if (base == baseName(f)) format = f;
    if (!format) {
        error = "unknown image encoding '" + out.encoding + "'";
        return false;
    }
    std::vector<uint32_t> pitches{out.step};
    if (*format == ImageFormat::Nv12 || *format == ImageFormat::Nv21) {
        uint32_t pitch1 = out.step;
        if (colon != std::string::npos) {
            const std::string rest = out.encoding.substr(colon + 1);
            if (rest.rfind("pitch1=", 0) != 0 || rest.size() <= 7 || rest.size() > 17 ||
                rest.find_first_not_of("0123456789", 7) != std::string::npos) {
                error = "unknown image encoding '" + out.encoding + "'";
                return false;
            }
            const unsigned long long v = std::stoull(rest.substr(7));
            if (v > UINT32_MAX) {
                error = "image encoding '" + out.encoding + "' has a pitch beyond 32 bits";
                return false;
            }
            pitch1 = uint32_t(v);
        }
        pitches.push_back(pitch1);
    } else if (colon != std::string::npos) {
        error = "unknown image encoding '" + out.encoding + "'";
        return false;
    }
    auto g = makeGeometry(*format, width, height, pitches);
    if (!g) {
        error = "image " + std::to_string(width) + "x" + std::to_string(height) + " with step " +
                std::to_string(out.step) + " does not suit encoding '" + out.encoding + "'";
        return false;
    }
    if (g->dataBytes() != out.size) {
        error = "image data of " + std::to_string(out.size) + " bytes, its geometry needs " +
                std::to_string(g->dataBytes());
        return false;
    }
    out.header.geometry = *g;
    return true;
}

}  // namespace sensor_recording
