// Image buffers of the simulated platform: pixel memory with line padding and an attribute list in which
// any attribute can be absent. The NvSciBuf substitute serves these; a buffer's address is its handle.
#ifndef SENSOR_SIM_BUFFERS_H
#define SENSOR_SIM_BUFFERS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sensor_sim {

// The attributes of a buffer, one per NvSciBuf key the client reads.
enum class Attr : uint32_t {
    Size,
    Layout,
    PlaneCount,
    PlaneWidth,
    PlaneHeight,
    PlanePitch,
    PlaneBitsPerPixel,
    PlaneAlignedHeight,
    PlaneAlignedSize,
    PlaneChannelCount,
    PlaneOffset,
    PlaneColorFormat,
    TopPadding,
    BottomPadding,
    NeedSwCacheCoherency,
    Count
};

// Colour-format numbers the simulator produces (the platform header's values).
constexpr uint32_t kColorBayer16 = 16;
constexpr uint32_t kColorA8 = 60;
constexpr uint32_t kColorA16 = 61;
constexpr uint32_t kColorY8 = 64;
constexpr uint32_t kColorY8U8V8 = 84;
constexpr uint32_t kColorUYVY = 96;
constexpr uint32_t kColorRaw8Packed = 113;
constexpr uint32_t kLayoutPitchLinear = 1;

struct PlaneSpec {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bitsPerPixel = 8;
    uint32_t colorFormat = kColorY8;
    uint32_t pitch = 0;          // 0: the line's bytes rounded up to 64
    uint32_t alignedHeight = 0;  // 0: height
    uint8_t channelCount = 1;
    uint64_t topPadding = 0;
    uint64_t bottomPadding = 0;
};

struct BufferSpec {
    std::vector<PlaneSpec> planes;
    uint32_t layout = kLayoutPitchLinear;
    bool needSwCacheCoherency = false;
    // The plane count the attribute list claims, when it should differ from planes.size(); the per-plane
    // attribute arrays then hold max(claimed, real) entries, the extra ones zero.
    std::optional<uint32_t> claimedPlaneCount;
    std::vector<Attr> absent;  // attributes the list does not hold (length 0)

    // Two planes: 8-bit luma w x h, interleaved 16-bit chroma w/2 x h/2 (format 84).
    static BufferSpec yuv420(uint32_t width, uint32_t height, uint32_t pitchPadding = 64);
    // Two planes: luma w x h, chroma w x h (4:4:4) or w/2 x h (4:2:2).
    static BufferSpec yuv444(uint32_t width, uint32_t height, uint32_t pitchPadding = 64);
    static BufferSpec yuv422(uint32_t width, uint32_t height, uint32_t pitchPadding = 64);
    // One plane of the given format and bit depth.
    static BufferSpec single(uint32_t width, uint32_t height, uint32_t bitsPerPixel, uint32_t colorFormat,
                             uint32_t pitchPadding = 64);
};

class Buffer {
public:
    explicit Buffer(const BufferSpec& spec);
    // A buffer of sensor-simd's pools: a new sealed memfd mapped writable, which consumers map read-only.
    // Null with the system's reason in `error` when the memory cannot be had: running out of descriptors
    // or memory is expected there (a flood of clients), and costs that exposure, not an exception.
    static std::shared_ptr<Buffer> createShared(const BufferSpec& spec, std::string& error);
    // A consumer's view of a shared buffer: that descriptor mapped read-only (the buffer then owns the
    // descriptor). Throws std::runtime_error when it cannot be mapped or is smaller than the spec.
    Buffer(const BufferSpec& spec, int sharedFd);
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    const BufferSpec& spec() const { return m_spec; }
    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    // The shared-memory descriptor, or -1 for a buffer on the heap.
    int sharedFd() const { return m_fd; }
    // A number no other buffer of the process has had.
    uint64_t serial() const { return m_serial; }

    // Geometry of a real plane (index below spec().planes.size()).
    uint32_t pitch(size_t plane) const;
    uint64_t offset(size_t plane) const;
    uint32_t lineBytes(size_t plane) const;  // visible bytes of one line: width * bits / 8
    uint8_t* line(size_t plane, uint32_t y) { return data() + offset(plane) + uint64_t(y) * pitch(plane); }
    const uint8_t* line(size_t plane, uint32_t y) const {
        return data() + offset(plane) + uint64_t(y) * pitch(plane);
    }

    // Attribute storage served by the NvSciBuf substitute: a pointer to the value and its length in bytes
    // (0 when absent). Arrays hold one entry per claimed plane.
    const void* attrValue(Attr attr, size_t* len) const;

    // Counts of CPU cache flushes over this buffer (NvSciBufObjFlushCpuCacheRange).
    uint32_t flushCount() const { return m_flushes.load(); }
    void noteFlush() { m_flushes.fetch_add(1); }

private:
    Buffer(const BufferSpec& spec, std::string& error);  // createShared's
    void layOut();
    void enlist();
    BufferSpec m_spec;
    std::vector<uint8_t> m_memory;
    uint8_t* m_data = nullptr;
    int m_fd = -1;
    void* m_map = nullptr;
    uint64_t m_serial = 0;
    uint64_t m_size = 0;
    uint32_t m_layout = 0;
    uint32_t m_planeCount = 0;
    bool m_swCache = false;
    std::vector<uint32_t> m_widths, m_heights, m_pitches, m_bpp, m_alignedHeights, m_formats;
    std::vector<uint64_t> m_alignedSizes, m_offsets, m_top, m_bottom;
    std::vector<uint8_t> m_channels;
    std::atomic<uint32_t> m_flushes{0};
};

std::shared_ptr<Buffer> makeBuffer(const BufferSpec& spec);
// The bytes a buffer of this spec takes (its planes' pitches times their aligned heights).
uint64_t bufferBytes(const BufferSpec& spec);

// Fills the visible bytes of every plane with (plane * 31 + y * 7 + x) & 0xFF and everything else
// (line padding, aligned rows) with 0xEE, so tests can tell visible bytes from padding.
void fillPattern(Buffer& buffer);

// The live buffer at this address, or null: handles are checked against it before any use.
Buffer* findBuffer(const void* handle);

}  // namespace sensor_sim

#endif  // SENSOR_SIM_BUFFERS_H
