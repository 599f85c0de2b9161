// The MCAP reader: one pass from the magic to the footer, every length checked against what is left,
// chunks decompressed and their CRCs compared, the data section's and the summary's CRCs too.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <libdeflate.h>

#include <cerrno>
#include <cstring>

#include "compression.h"
#include "records.h"
#include "sensor_recording/mcap.h"

namespace sensor_recording {

namespace {

// libdeflate's CRC32 (the one of zlib and MCAP) uses the processor's carry-less multiply: several times
// zlib's speed, which matters for frames of megabytes.
uint32_t crcOf(uint32_t crc, const void* data, size_t size) {
    return libdeflate_crc32(crc, data, size);
}

std::string hex(uint64_t v) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%02llx", static_cast<unsigned long long>(v));
    return text;
}

// Reads the fields of one record; any field that runs past the record's end sets `bad`.
class Fields {
public:
    Fields(const uint8_t* p, size_t n) : m_p(p), m_n(n) {}
    uint64_t u(int bytes) {
        if (!need(size_t(bytes))) return 0;
        const uint64_t v = getLe(m_p + m_at, bytes);
        m_at += size_t(bytes);
        return v;
    }
    std::string str() {
        const uint64_t n = u(4);
        if (!need(n)) return {};
        std::string s(reinterpret_cast<const char*>(m_p + m_at), size_t(n));
        m_at += size_t(n);
        return s;
    }
    StringMap map() {
        StringMap out;
        const uint64_t n = u(4);
        if (!need(n)) return out;
        const size_t end = m_at + size_t(n);
        while (!bad && m_at < end) {
            std::string k = str();
            std::string v = str();
            if (m_at > end) bad = true;
            out[k] = v;
        }
        return out;
    }
    // The bytes of a field with a length of `lengthBytes`.
    std::pair<const uint8_t*, size_t> bytes(int lengthBytes) {
        const uint64_t n = u(lengthBytes);
        if (!need(n)) return {nullptr, 0};
        const uint8_t* p = m_p + m_at;
        m_at += size_t(n);
        return {p, size_t(n)};
    }
    std::pair<const uint8_t*, size_t> rest() {
        const auto r = std::make_pair(m_p + m_at, m_n - m_at);
        m_at = m_n;
        return r;
    }
    bool bad = false;

private:
    bool need(uint64_t n) {
        if (bad || n > m_n - m_at) {
            bad = true;
            return false;
        }
        return true;
    }
    const uint8_t* m_p;
    size_t m_n;
    size_t m_at = 0;
};

}  // namespace

std::unique_ptr<McapReader> McapReader::openFile(const std::string& path, std::string* error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = "cannot open '" + path + "': " + std::strerror(errno);
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        *error = "'" + path + "' is not a regular file";
        return nullptr;
    }
    std::unique_ptr<McapReader> r(new McapReader);
    r->m_size = size_t(st.st_size);
    if (r->m_size > 0) {
        void* map = ::mmap(nullptr, r->m_size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (map == MAP_FAILED) {
            *error = "cannot map '" + path + "': " + std::strerror(errno);
            ::close(fd);
            return nullptr;
        }
        r->m_map = map;
        r->m_data = static_cast<const uint8_t*>(map);
    }
    ::close(fd);
    return r;
}

std::unique_ptr<McapReader> McapReader::fromMemory(const uint8_t* data, size_t size) {
    std::unique_ptr<McapReader> r(new McapReader);
    r->m_data = data;
    r->m_size = size;
    return r;
}

McapReader::~McapReader() {
    if (m_map != nullptr) ::munmap(m_map, m_size);
}

bool McapReader::fail(uint64_t offset, const std::string& cause) {
    m_error = "at offset " + std::to_string(offset) + ": " + cause;
    return false;
}

bool McapReader::read(const std::function<bool(const Message&)>& onMessage, const ReaderLimits& limits) {
    m_error.clear();
    m_complete = false;
    m_sawDataEnd = false;
    m_truncatedAt.reset();
    m_chunks = 0;
    m_schemas.clear();
    m_channels.clear();
    m_metadata.clear();
    m_summaryCounts.clear();
    if (m_size < sizeof kMagic || std::memcmp(m_data, kMagic, sizeof kMagic) != 0) {
        return fail(0, m_size < sizeof kMagic ? "too short for an MCAP file (" + std::to_string(m_size) + " bytes)"
                                              : "not an MCAP file (no MCAP magic)");
    }
    bool stop = false;
    m_dataCrc = crcOf(0, m_data, sizeof kMagic);
    return readRecords(m_data + sizeof kMagic, m_size - sizeof kMagic, sizeof kMagic, 0, onMessage, limits, &stop);
}

bool McapReader::readRecords(const uint8_t* data, size_t size, uint64_t base, uint64_t chunkOffset,
                             const std::function<bool(const Message&)>& onMessage, const ReaderLimits& limits,
                             bool* stop) {
    const bool inChunk = chunkOffset != 0;
    size_t at = 0;
    bool first = !inChunk;
    while (at < size && !*stop) {
        const uint64_t offset = base + at;
        if (size - at < 9) {
            if (inChunk) return fail(offset, "a record inside a chunk is cut short");
            m_truncatedAt = offset;
            return true;
        }
        const uint8_t op = data[at];
        const uint64_t len = getLe(data + at + 1, 8);
        if (len > size - at - 9) {
            if (inChunk) return fail(offset, "record " + hex(op) + " of " + std::to_string(len) +
                                                 " bytes runs past the end of its chunk");
            // A recording cut short ends in a part of a record: what came before is still good.
            m_truncatedAt = offset;
            return true;
        }
        const uint8_t* body = data + at + 9;
        Fields f(body, size_t(len));
        if (first && op != kHeader) return fail(offset, "the file does not begin with a header record");
        first = false;
        switch (op) {
            case kHeader:
                if (inChunk) return fail(offset, "a header record inside a chunk");
                m_profile = f.str();
                m_library = f.str();
                break;
            case kSchema: {
                Schema s;
                s.id = uint16_t(f.u(2));
                s.name = f.str();
                s.encoding = f.str();
                auto [p, n] = f.bytes(4);
                if (!f.bad) s.data.assign(reinterpret_cast<const char*>(p), n);
                if (!f.bad && s.id == 0) return fail(offset, "schema id 0 is reserved");
                if (!f.bad) m_schemas[s.id] = s;
                break;
            }
            case kChannel: {
                Channel c;
                c.id = uint16_t(f.u(2));
                c.schemaId = uint16_t(f.u(2));
                c.topic = f.str();
                c.messageEncoding = f.str();
                c.metadata = f.map();
                if (!f.bad && c.schemaId != 0 && m_schemas.count(c.schemaId) == 0)
                    return fail(offset, "channel " + std::to_string(c.id) + " names schema " +
                                            std::to_string(c.schemaId) + ", which no record declared");
                if (!f.bad) m_channels[c.id] = c;
                break;
            }
            case kMessage: {
                Message m;
                m.channelId = uint16_t(f.u(2));
                m.sequence = uint32_t(f.u(4));
                m.logTimeNs = f.u(8);
                m.publishTimeNs = f.u(8);
                auto [p, n] = f.rest();
                m.data = p;
                m.size = n;
                m.chunkOffset = chunkOffset;
                m.dataOffset = inChunk ? uint64_t(p - data) : base + uint64_t(p - data);
                if (f.bad) break;
                if (m_channels.count(m.channelId) == 0)
                    return fail(offset, "message of channel " + std::to_string(m.channelId) +
                                            ", which no record declared");
                if (onMessage && !onMessage(m)) *stop = true;
                break;
            }
            case kChunk: {
                if (inChunk) return fail(offset, "a chunk inside a chunk");
                f.u(8);
                f.u(8);
                const uint64_t usize = f.u(8);
                const uint32_t crc = uint32_t(f.u(4));
                const std::string compression = f.str();
                auto [p, n] = f.bytes(8);
                if (f.bad) break;
                if (usize > limits.maxChunkBytes)
                    return fail(offset, "a chunk of " + std::to_string(usize) + " uncompressed bytes is larger than " +
                                            std::to_string(limits.maxChunkBytes));
                std::vector<uint8_t> records;
                std::string why;
                if (!decompress(compression, p, n, size_t(usize), records, why))
                    return fail(offset, "chunk cannot be decompressed: " + why);
                if (crc != 0 && crcOf(0, records.data(), records.size()) != crc)
                    return fail(offset, "chunk CRC mismatch (the chunk's data is corrupt)");
                ++m_chunks;
                if (!readRecords(records.data(), records.size(), 0, offset, onMessage, limits, stop)) {
                    m_error = "in the chunk at offset " + std::to_string(offset) + ", " + m_error;
                    return false;
                }
                break;
            }
            case kMetadata: {
                Metadata m;
                m.name = f.str();
                m.values = f.map();
                if (!f.bad) m_metadata.push_back(m);
                break;
            }
            case kDataEnd: {
                if (inChunk) return fail(offset, "a data end record inside a chunk");
                const uint32_t crc = uint32_t(f.u(4));
                if (f.bad) break;
                if (crc != 0 && crc != m_dataCrc) return fail(offset, "data section CRC mismatch (the data is corrupt)");
                m_sawDataEnd = true;
                return readSummary(offset + 9 + len);
            }
            case kFooter:
                return fail(offset, "a footer before the data end record");
            default:
                // Message indexes, attachments and records of later versions carry nothing we replay.
                if (inChunk && op != kSchema && op != kChannel && op != kMessage)
                    return fail(offset, "record " + hex(op) + " is not allowed inside a chunk");
                break;
        }
        if (f.bad) return fail(offset, "record " + hex(op) + " has a field that runs past its length");
        if (!inChunk) m_dataCrc = crcOf(m_dataCrc, data + at, size_t(9 + len));
        at += size_t(9 + len);
    }
    return true;
}

bool McapReader::chunkRecords(uint64_t chunkOffset, std::vector<uint8_t>& out, std::string& error) const {
    if (chunkOffset < sizeof kMagic || m_size - chunkOffset < 9 || m_data[chunkOffset] != kChunk) {
        error = "no chunk at offset " + std::to_string(chunkOffset);
        return false;
    }
    const uint64_t len = getLe(m_data + chunkOffset + 1, 8);
    if (len > m_size - chunkOffset - 9) {
        error = "the chunk at offset " + std::to_string(chunkOffset) + " runs past the end of the file";
        return false;
    }
    Fields f(m_data + chunkOffset + 9, size_t(len));
    f.u(8);
    f.u(8);
    const uint64_t usize = f.u(8);
    const uint32_t crc = uint32_t(f.u(4));
    const std::string compression = f.str();
    auto [p, n] = f.bytes(8);
    if (f.bad || usize > (uint64_t(1) << 31) || !decompress(compression, p, n, size_t(usize), out, error) ||
        (crc != 0 && crcOf(0, out.data(), out.size()) != crc)) {
        if (error.empty()) error = "the chunk is damaged";
        error = "at offset " + std::to_string(chunkOffset) + ": " + error;
        return false;
    }
    return true;
}

bool McapReader::readSummary(uint64_t from) {
    // Summary records, then the footer and the closing magic.
    uint64_t at = from;
    while (true) {
        // A file cut short inside its summary still holds all its data.
        if (m_size - at < 9) {
            m_truncatedAt = at;
            return true;
        }
        const uint8_t op = m_data[at];
        const uint64_t len = getLe(m_data + at + 1, 8);
        if (len > m_size - at - 9) {
            m_truncatedAt = at;
            return true;
        }
        Fields f(m_data + at + 9, size_t(len));
        if (op == kFooter) {
            const uint64_t summaryStart = f.u(8);
            const uint64_t summaryOffsetStart = f.u(8);
            const uint32_t crc = uint32_t(f.u(4));
            if (f.bad) return fail(at, "the footer is cut short");
            if (m_size - (at + 9 + len) < sizeof kMagic) {
                m_truncatedAt = at + 9 + len;
                return true;
            }
            if (m_size - (at + 9 + len) != sizeof kMagic ||
                std::memcmp(m_data + at + 9 + len, kMagic, sizeof kMagic) != 0)
                return fail(at + 9 + len, "the footer is not followed by the closing magic");
            if (summaryStart != 0 && (summaryStart < from || summaryStart > at))
                return fail(at, "the footer's summary start " + std::to_string(summaryStart) + " is outside the summary");
            if (summaryOffsetStart != 0 && (summaryOffsetStart < summaryStart || summaryOffsetStart > at))
                return fail(at, "the footer's summary offset start is outside the summary");
            if (crc != 0 && summaryStart != 0 &&
                crcOf(0, m_data + summaryStart, size_t(at + 9 + 16 - summaryStart)) != crc)
                return fail(at, "summary CRC mismatch (the summary is corrupt)");
            m_complete = true;
            return true;
        }
        if (op == kStatistics) {
            for (int bytes : {8, 2, 4, 4, 4, 4, 8, 8}) f.u(bytes);
            const uint64_t n = f.u(4);
            for (uint64_t i = 0; !f.bad && i + 10 <= n; i += 10) {
                const uint16_t channel = uint16_t(f.u(2));
                m_summaryCounts[channel] = f.u(8);
            }
            if (f.bad) return fail(at, "the statistics record has a field that runs past its length");
        }
        at += 9 + len;
    }
}

}  // namespace sensor_recording
