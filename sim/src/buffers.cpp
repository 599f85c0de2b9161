// Image buffers of the simulated platform: plane layout, the attribute list the NvSciBuf substitute
// serves, the test pattern and the registry through which handles are validated.
//
// Layout rules: the planes lie one after another. A plane's pitch is its PlaneSpec's pitch, or, when
// that is 0, its visible line bytes (width * bits / 8) rounded up to 64; a pitch below the visible line
// bytes is raised to them, so a line never runs into the next one. The aligned height is the PlaneSpec's,
// or the height when that is 0 or smaller. A plane occupies pitch * aligned height bytes; the buffer's
// size is the sum. The BufferSpec helpers give every plane pitch = roundup(line bytes, 64) + pitchPadding.
#include "sensor_sim/buffers.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <unordered_set>

namespace sensor_sim {
namespace {

constexpr uint64_t kPitchAlignment = 64;

uint64_t roundUp(uint64_t value, uint64_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

uint64_t visibleLineBytes(const PlaneSpec& plane) {
    return uint64_t(plane.width) * plane.bitsPerPixel / 8;
}

uint32_t helperPitch(uint32_t width, uint32_t bitsPerPixel, uint32_t pitchPadding) {
    uint64_t pitch = roundUp(uint64_t(width) * bitsPerPixel / 8, kPitchAlignment) + pitchPadding;
    if (pitch > std::numeric_limits<uint32_t>::max())
        throw std::invalid_argument("plane pitch exceeds 32 bits");
    return static_cast<uint32_t>(pitch);
}

PlaneSpec plane(uint32_t width, uint32_t height, uint32_t bitsPerPixel, uint32_t colorFormat,
                uint8_t channels, uint32_t pitchPadding) {
    PlaneSpec p;
    p.width = width;
    p.height = height;
    p.bitsPerPixel = bitsPerPixel;
    p.colorFormat = colorFormat;
    p.channelCount = channels;
    p.pitch = helperPitch(width, bitsPerPixel, pitchPadding);
    return p;
}

BufferSpec twoPlaneYuv(uint32_t width, uint32_t height, uint32_t chromaWidth, uint32_t chromaHeight,
                       uint32_t pitchPadding) {
    BufferSpec spec;
    spec.planes.push_back(plane(width, height, 8, kColorY8U8V8, 1, pitchPadding));
    spec.planes.push_back(plane(chromaWidth, chromaHeight, 16, kColorY8U8V8, 2, pitchPadding));
    return spec;
}

// Live buffers by address. Never destroyed: buffers held by static objects may die after it otherwise.
// Every NvSciBuf call looks its handle up here, from every stream's thread, so look-ups share the lock;
// only the creation and destruction of a buffer take it exclusively.
struct Registry {
    std::shared_mutex mutex;
    std::unordered_set<const void*> live;
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

template <typename T>
const void* arrayValue(const std::vector<T>& values, size_t* len) {
    if (len != nullptr) *len = values.size() * sizeof(T);
    return values.empty() ? nullptr : values.data();
}

}  // namespace

BufferSpec BufferSpec::yuv420(uint32_t width, uint32_t height, uint32_t pitchPadding) {
    return twoPlaneYuv(width, height, width / 2, height / 2, pitchPadding);
}

BufferSpec BufferSpec::yuv444(uint32_t width, uint32_t height, uint32_t pitchPadding) {
    return twoPlaneYuv(width, height, width, height, pitchPadding);
}

BufferSpec BufferSpec::yuv422(uint32_t width, uint32_t height, uint32_t pitchPadding) {
    return twoPlaneYuv(width, height, width / 2, height, pitchPadding);
}

BufferSpec BufferSpec::single(uint32_t width, uint32_t height, uint32_t bitsPerPixel, uint32_t colorFormat,
                              uint32_t pitchPadding) {
    BufferSpec spec;
    spec.planes.push_back(plane(width, height, bitsPerPixel, colorFormat, 1, pitchPadding));
    return spec;
}

Buffer::Buffer(const BufferSpec& spec) : m_spec(spec) {
    layOut();
    m_memory.assign(m_size, 0);
    m_data = m_memory.data();
    enlist();
}

std::shared_ptr<Buffer> Buffer::createShared(const BufferSpec& spec, std::string& error) {
    std::shared_ptr<Buffer> buffer(new Buffer(spec, error));
    return error.empty() ? buffer : nullptr;
}

Buffer::Buffer(const BufferSpec& spec, std::string& error) : m_spec(spec) {
    layOut();
    const size_t length = std::max<uint64_t>(m_size, 1);  // mmap refuses zero lengths
    // What is made before a failure is undone by the destructor.
    auto fail = [&error](const char* what) {
        const int code = errno;
        error = std::string(what) + ": " + std::strerror(code);
    };
    m_fd = ::memfd_create("sensor-sim-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (m_fd < 0) {
        fail("memfd_create");
        return;
    }
    if (::ftruncate(m_fd, static_cast<off_t>(length)) != 0) {
        fail("ftruncate");
        return;
    }
    void* map = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (map == MAP_FAILED) {
        fail("mmap");
        return;
    }
    m_map = map;
    // Sealed after the one writable mapping: nobody who receives the descriptor can map it writable, nor
    // shrink it under a reader. Unsealed, it is not handed out.
    if (::fcntl(m_fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) != 0) {
        fail("sealing a shared buffer");
        return;
    }
    m_data = static_cast<uint8_t*>(m_map);
    enlist();
}

Buffer::Buffer(const BufferSpec& spec, int sharedFd) : m_spec(spec) {
    layOut();
    const size_t length = std::max<uint64_t>(m_size, 1);  // mmap refuses zero lengths
    m_fd = sharedFd;
    struct stat st {};
    if (::fstat(m_fd, &st) != 0 || static_cast<uint64_t>(st.st_size) < length) {
        ::close(m_fd);
        throw std::runtime_error("shared buffer smaller than its geometry");
    }
    m_map = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, m_fd, 0);
    if (m_map == MAP_FAILED) {
        const int error = errno;
        ::close(m_fd);
        throw std::runtime_error(std::string("mmap: ") + std::strerror(error));
    }
    m_data = static_cast<uint8_t*>(m_map);
    enlist();
}

void Buffer::enlist() {
    static std::atomic<uint64_t> serials{1};
    m_serial = serials.fetch_add(1);
    Registry& r = registry();
    std::lock_guard<std::shared_mutex> lock(r.mutex);
    r.live.insert(this);
}

uint64_t bufferBytes(const BufferSpec& spec) {
    uint64_t size = 0;
    for (const PlaneSpec& p : spec.planes) {
        const uint64_t line = visibleLineBytes(p);
        const uint64_t pitch = std::max(p.pitch != 0 ? p.pitch : roundUp(line, kPitchAlignment), line);
        size += pitch * std::max(p.alignedHeight, p.height);
    }
    return size;
}

void Buffer::layOut() {
    const size_t real = m_spec.planes.size();
    m_planeCount = m_spec.claimedPlaneCount.value_or(static_cast<uint32_t>(real));
    // Arrays cover every plane either side mentions, so a list claiming more planes than exist still
    // answers with (zero) entries for them.
    const size_t entries = std::max<size_t>(real, m_planeCount);
    m_widths.assign(entries, 0);
    m_heights.assign(entries, 0);
    m_pitches.assign(entries, 0);
    m_bpp.assign(entries, 0);
    m_alignedHeights.assign(entries, 0);
    m_formats.assign(entries, 0);
    m_alignedSizes.assign(entries, 0);
    m_offsets.assign(entries, 0);
    m_top.assign(entries, 0);
    m_bottom.assign(entries, 0);
    m_channels.assign(entries, 0);

    uint64_t offset = 0;
    for (size_t i = 0; i < real; ++i) {
        const PlaneSpec& p = m_spec.planes[i];
        const uint64_t line = visibleLineBytes(p);
        uint64_t pitch = p.pitch != 0 ? p.pitch : roundUp(line, kPitchAlignment);
        pitch = std::max(pitch, line);
        if (pitch > std::numeric_limits<uint32_t>::max())
            throw std::invalid_argument("plane pitch exceeds 32 bits");
        const uint32_t alignedHeight = std::max(p.alignedHeight, p.height);
        m_widths[i] = p.width;
        m_heights[i] = p.height;
        m_pitches[i] = static_cast<uint32_t>(pitch);
        m_bpp[i] = p.bitsPerPixel;
        m_alignedHeights[i] = alignedHeight;
        m_formats[i] = p.colorFormat;
        m_alignedSizes[i] = pitch * alignedHeight;
        m_offsets[i] = offset;
        m_top[i] = p.topPadding;
        m_bottom[i] = p.bottomPadding;
        m_channels[i] = p.channelCount;
        offset += m_alignedSizes[i];
    }
    m_size = offset;
    m_layout = m_spec.layout;
    m_swCache = m_spec.needSwCacheCoherency;
}

Buffer::~Buffer() {
    {
        Registry& r = registry();
        std::lock_guard<std::shared_mutex> lock(r.mutex);
        r.live.erase(this);
    }
    if (m_map != nullptr) ::munmap(m_map, std::max<uint64_t>(m_size, 1));
    if (m_fd >= 0) ::close(m_fd);
}

uint32_t Buffer::pitch(size_t plane) const {
    return plane < m_spec.planes.size() ? m_pitches[plane] : 0;
}

uint64_t Buffer::offset(size_t plane) const {
    return plane < m_spec.planes.size() ? m_offsets[plane] : 0;
}

uint32_t Buffer::lineBytes(size_t plane) const {
    return plane < m_spec.planes.size() ? static_cast<uint32_t>(visibleLineBytes(m_spec.planes[plane])) : 0;
}

const void* Buffer::attrValue(Attr attr, size_t* len) const {
    if (len != nullptr) *len = 0;
    if (std::find(m_spec.absent.begin(), m_spec.absent.end(), attr) != m_spec.absent.end()) return nullptr;
    auto scalar = [len](const auto& value) -> const void* {
        if (len != nullptr) *len = sizeof(value);
        return &value;
    };
    switch (attr) {
        case Attr::Size:
            return scalar(m_size);
        case Attr::Layout:
            return scalar(m_layout);
        case Attr::PlaneCount:
            return scalar(m_planeCount);
        case Attr::NeedSwCacheCoherency:
            return scalar(m_swCache);
        case Attr::PlaneWidth:
            return arrayValue(m_widths, len);
        case Attr::PlaneHeight:
            return arrayValue(m_heights, len);
        case Attr::PlanePitch:
            return arrayValue(m_pitches, len);
        case Attr::PlaneBitsPerPixel:
            return arrayValue(m_bpp, len);
        case Attr::PlaneAlignedHeight:
            return arrayValue(m_alignedHeights, len);
        case Attr::PlaneAlignedSize:
            return arrayValue(m_alignedSizes, len);
        case Attr::PlaneChannelCount:
            return arrayValue(m_channels, len);
        case Attr::PlaneOffset:
            return arrayValue(m_offsets, len);
        case Attr::PlaneColorFormat:
            return arrayValue(m_formats, len);
        case Attr::TopPadding:
            return arrayValue(m_top, len);
        case Attr::BottomPadding:
            return arrayValue(m_bottom, len);
        case Attr::Count:
            break;
    }
    return nullptr;
}

std::shared_ptr<Buffer> makeBuffer(const BufferSpec& spec) {
    return std::make_shared<Buffer>(spec);
}

void fillPattern(Buffer& buffer) {
    if (buffer.size() == 0) return;
    std::memset(buffer.data(), 0xEE, buffer.size());
    for (size_t p = 0; p < buffer.spec().planes.size(); ++p) {
        const uint32_t bytes = buffer.lineBytes(p);
        for (uint32_t y = 0; y < buffer.spec().planes[p].height; ++y) {
            uint8_t* line = buffer.line(p, y);
            for (uint32_t x = 0; x < bytes; ++x) line[x] = static_cast<uint8_t>((p * 31 + y * 7 + x) & 0xFF);
        }
    }
}

Buffer* findBuffer(const void* handle) {
    if (handle == nullptr) return nullptr;
    Registry& r = registry();
    std::shared_lock<std::shared_mutex> lock(r.mutex);
    auto it = r.live.find(handle);
    // The set holds only addresses of live Buffers; the cast recovers the object at that address.
    return it == r.live.end() ? nullptr : static_cast<Buffer*>(const_cast<void*>(*it));
}

}  // namespace sensor_sim
