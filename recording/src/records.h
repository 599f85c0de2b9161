// The MCAP record layout shared by the writer and the reader: opcodes, the magic, little-endian fields.
#ifndef SENSOR_RECORDING_RECORDS_H
#define SENSOR_RECORDING_RECORDS_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace sensor_recording {

constexpr uint8_t kMagic[8] = {0x89, 'M', 'C', 'A', 'P', 0x30, '\r', '\n'};

enum Op : uint8_t {
    kHeader = 0x01,
    kFooter = 0x02,
    kSchema = 0x03,
    kChannel = 0x04,
    kMessage = 0x05,
    kChunk = 0x06,
    kMessageIndex = 0x07,
    kChunkIndex = 0x08,
    kAttachment = 0x09,
    kAttachmentIndex = 0x0A,
    kStatistics = 0x0B,
    kMetadata = 0x0C,
    kMetadataIndex = 0x0D,
    kSummaryOffset = 0x0E,
    kDataEnd = 0x0F,
};

// Appends little-endian fields to a byte string.
class Bytes {
public:
    std::vector<uint8_t> b;
    void u8(uint8_t v) { b.push_back(v); }
    void u16(uint16_t v) { le(v, 2); }
    void u32(uint32_t v) { le(v, 4); }
    void u64(uint64_t v) { le(v, 8); }
    void raw(const void* p, size_t n) {
        const auto* c = static_cast<const uint8_t*>(p);
        b.insert(b.end(), c, c + n);
    }
    void str(const std::string& s) {
        u32(static_cast<uint32_t>(s.size()));
        raw(s.data(), s.size());
    }
    // Opens a record; close() fills in its length.
    size_t open(uint8_t op) {
        u8(op);
        u64(0);
        return b.size();
    }
    void close(size_t start) { put64(start - 8, b.size() - start); }
    // A map or array: a 32-bit byte length, then the entries; end() fills the length in.
    size_t begin() {
        u32(0);
        return b.size();
    }
    void end(size_t start) {
        const uint32_t n = static_cast<uint32_t>(b.size() - start);
        for (int i = 0; i < 4; ++i) b[start - 4 + i] = uint8_t(n >> (8 * i));
    }
    void put64(size_t at, uint64_t v) {
        for (int i = 0; i < 8; ++i) b[at + i] = uint8_t(v >> (8 * i));
    }

private:
    void le(uint64_t v, int n) {
        for (int i = 0; i < n; ++i) b.push_back(uint8_t(v >> (8 * i)));
    }
};

inline uint64_t getLe(const uint8_t* p, int n) {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

}  // namespace sensor_recording

#endif  // SENSOR_RECORDING_RECORDS_H
