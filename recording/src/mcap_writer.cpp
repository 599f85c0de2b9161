// The MCAP writer: messages gather in a chunk buffer; a full chunk is compressed and written whole,
// with its message indexes, in one call; close() writes the summary that lets readers seek.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>
#include <libdeflate.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "compression.h"
#include "records.h"
#include "sensor_recording/mcap.h"

namespace sensor_recording {

std::optional<Compression> parseCompression(const std::string& name) {
    if (name == "zstd") return Compression::Zstd;
    if (name == "lz4") return Compression::Lz4;
    if (name == "none") return Compression::None;
    return std::nullopt;
}

const char* compressionName(Compression compression) {
    switch (compression) {
        case Compression::Zstd:
            return "zstd";
        case Compression::Lz4:
            return "lz4";
        case Compression::None:
            break;
    }
    return "none";
}

namespace {

// libdeflate's CRC32 (the one of zlib and MCAP) uses the processor's carry-less multiply: several times
// zlib's speed, which matters for frames of megabytes.
uint32_t crcOf(uint32_t crc, const void* data, size_t size) {
    return libdeflate_crc32(crc, data, size);
}

struct ChunkIndexEntry {
    uint64_t start = 0, end = 0, offset = 0, length = 0;
    std::map<uint16_t, uint64_t> indexOffsets;
    uint64_t indexLength = 0, compressedSize = 0, uncompressedSize = 0;
};

struct MetadataIndexEntry {
    uint64_t offset = 0, length = 0;
    std::string name;
};

}  // namespace

namespace {

// Writes every piece at `offset`; false with the system's reason in `error`.
bool writeAt(int fd, uint64_t offset, std::vector<iovec> pieces, std::string& error) {
    size_t first = 0;
    while (first < pieces.size()) {
        const ssize_t n = ::pwritev(fd, pieces.data() + first, int(std::min<size_t>(pieces.size() - first, 64)),
                                    off_t(offset));
        if (n < 0) {
            if (errno == EINTR) continue;
            error = std::strerror(errno);
            return false;
        }
        if (n == 0) {
            error = "the write made no progress";
            return false;
        }
        offset += uint64_t(n);
        size_t left = size_t(n);
        while (first < pieces.size() && left >= pieces[first].iov_len) left -= pieces[first++].iov_len;
        if (left > 0) {
            pieces[first].iov_base = static_cast<uint8_t*>(pieces[first].iov_base) + left;
            pieces[first].iov_len -= left;
        }
    }
    return true;
}

iovec piece(const void* p, size_t n) {
    return iovec{const_cast<void*>(p), n};
}

}  // namespace

struct McapWriter::Impl {
    WriterOptions options;
    std::string path;
    int fd = -1;
    uint32_t dataCrc = 0;
    // The chunk being filled: its records, each channel's (log time, offset) pairs, its time range.
    std::vector<uint8_t> chunk;
    std::map<uint16_t, std::vector<std::pair<uint64_t, uint64_t>>> index;
    uint64_t chunkStart = UINT64_MAX, chunkEnd = 0;
    std::vector<uint8_t> compressed;
    // What the summary repeats.
    std::vector<Bytes> schemaRecords, channelRecords;
    std::vector<ChunkIndexEntry> chunkIndex;
    std::vector<MetadataIndexEntry> metadataIndex;
    std::map<uint16_t, uint64_t> channelCounts;
    uint64_t messageStart = UINT64_MAX, messageEnd = 0;
    uint16_t nextSchema = 1, nextChannel = 0;

    // Writes the chunk in progress with its message indexes; clears it.
    bool flushChunk(uint64_t& offset, std::string& error);
    // Writes a chunk of `records` (the chunk's records as they go to the file) with the message indexes
    // gathered since the last chunk.
    bool writeChunk(std::vector<iovec> records, uint64_t recordsSize, uint32_t chunkCrc, uint64_t uncompressedSize,
                    uint64_t& offset, std::string& error);
};

McapWriter::McapWriter() : m_impl(std::make_unique<Impl>()) {}

McapWriter::~McapWriter() {
    if (m_impl->fd >= 0) close();
}


bool McapWriter::open(const std::string& path, const WriterOptions& options) {
    Impl& d = *m_impl;
    d.options = options;
    d.path = path;
    d.fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (d.fd < 0) {
        m_error = "cannot create '" + path + "': " + std::strerror(errno);
        return false;
    }
    Bytes b;
    b.raw(kMagic, sizeof kMagic);
    const size_t h = b.open(kHeader);
    b.str(options.profile);
    b.str(options.library);
    b.close(h);
    std::string why;
    if (!writeAt(d.fd, 0, {piece(b.b.data(), b.b.size())}, why)) {
        m_error = "cannot write '" + path + "' at offset 0: " + why;
        return false;
    }
    d.dataCrc = crcOf(0, b.b.data(), b.b.size());
    m_offset = b.b.size();
    return true;
}

namespace {

// Adds a record outside the chunks (a schema, a channel, metadata) to the file.
bool writeUnit(McapWriter::Part part, int fd, uint64_t& offset, uint32_t& crc, const std::string& path,
               std::string& error) {
    std::string why;
    if (!writeAt(fd, offset, {piece(part.data, part.size)}, why)) {
        error = "cannot write '" + path + "' at offset " + std::to_string(offset) + ": " + why;
        return false;
    }
    crc = crcOf(crc, part.data, part.size);
    offset += part.size;
    return true;
}

}  // namespace

uint16_t McapWriter::addSchema(const std::string& name, const std::string& encoding, const std::string& data) {
    Impl& d = *m_impl;
    const uint16_t id = d.nextSchema++;
    Bytes b;
    const size_t r = b.open(kSchema);
    b.u16(id);
    b.str(name);
    b.str(encoding);
    b.str(data);
    b.close(r);
    d.schemaRecords.push_back(b);
    if (d.fd >= 0 && !failed()) {
        write(0, 0, 0, 0, nullptr, 0);  // closes a chunk in progress (no message is added)
        writeUnit({b.b.data(), b.b.size()}, d.fd, m_offset, d.dataCrc, d.path, m_error);
    }
    return id;
}

uint16_t McapWriter::addChannel(uint16_t schemaId, const std::string& topic, const std::string& messageEncoding,
                                const StringMap& metadata) {
    Impl& d = *m_impl;
    const uint16_t id = d.nextChannel++;
    Bytes b;
    const size_t r = b.open(kChannel);
    b.u16(id);
    b.u16(schemaId);
    b.str(topic);
    b.str(messageEncoding);
    const size_t m = b.begin();
    for (const auto& [k, v] : metadata) {
        b.str(k);
        b.str(v);
    }
    b.end(m);
    b.close(r);
    d.channelRecords.push_back(b);
    d.channelCounts[id] = 0;
    if (d.fd >= 0 && !failed()) {
        write(0, 0, 0, 0, nullptr, 0);
        writeUnit({b.b.data(), b.b.size()}, d.fd, m_offset, d.dataCrc, d.path, m_error);
    }
    return id;
}

bool McapWriter::addMetadata(const std::string& name, const StringMap& values) {
    Impl& d = *m_impl;
    if (d.fd < 0 || failed()) return false;
    if (!write(0, 0, 0, 0, nullptr, 0)) return false;
    Bytes b;
    const size_t r = b.open(kMetadata);
    b.str(name);
    const size_t m = b.begin();
    for (const auto& [k, v] : values) {
        b.str(k);
        b.str(v);
    }
    b.end(m);
    b.close(r);
    const uint64_t at = m_offset;
    if (!writeUnit({b.b.data(), b.b.size()}, d.fd, m_offset, d.dataCrc, d.path, m_error)) return false;
    d.metadataIndex.push_back(MetadataIndexEntry{at, b.b.size(), name});
    return true;
}

bool McapWriter::write(uint16_t channelId, uint32_t sequence, uint64_t logTimeNs, uint64_t publishTimeNs,
                       const Part* parts, size_t partCount) {
    Impl& d = *m_impl;
    if (d.fd < 0) {
        if (m_error.empty()) m_error = "the recording file is not open";
        return false;
    }
    if (failed()) return false;
    if (parts == nullptr) {  // only close the chunk in progress
        return d.chunk.empty() || flush();
    }
    size_t size = 0;
    for (size_t i = 0; i < partCount; ++i) size += parts[i].size;
    const uint64_t at = d.chunk.size();
    uint8_t head[1 + 8 + 2 + 4 + 8 + 8];
    head[0] = kMessage;
    const uint64_t len = sizeof head - 9 + size;
    for (int i = 0; i < 8; ++i) head[1 + i] = uint8_t(len >> (8 * i));
    head[9] = uint8_t(channelId);
    head[10] = uint8_t(channelId >> 8);
    for (int i = 0; i < 4; ++i) head[11 + i] = uint8_t(sequence >> (8 * i));
    for (int i = 0; i < 8; ++i) head[15 + i] = uint8_t(logTimeNs >> (8 * i));
    for (int i = 0; i < 8; ++i) head[23 + i] = uint8_t(publishTimeNs >> (8 * i));
    // A message of half a chunk or more (a frame), uncompressed, goes to the file from the caller's memory:
    // a chunk of its own, without a copy.
    if (d.options.compression == Compression::None && sizeof head + size >= d.options.chunkBytes / 2) {
        if (!d.chunk.empty() && !flush()) return false;
        std::vector<iovec> records{piece(head, sizeof head)};
        uint32_t crc = crcOf(0, head, sizeof head);
        for (size_t i = 0; i < partCount; ++i) {
            records.push_back(piece(parts[i].data, parts[i].size));
            crc = crcOf(crc, parts[i].data, parts[i].size);
        }
        d.index[channelId].emplace_back(logTimeNs, 0);
        d.chunkStart = d.chunkEnd = logTimeNs;
        d.messageStart = std::min(d.messageStart, logTimeNs);
        d.messageEnd = std::max(d.messageEnd, logTimeNs);
        if (!d.writeChunk(std::move(records), sizeof head + size, crc, sizeof head + size, m_offset, m_error)) return false;
        ++d.channelCounts[channelId];
        ++m_messageCount;
        m_messagesInFile = m_messageCount;
        return true;
    }
    if (d.chunk.capacity() < at + sizeof head + size) d.chunk.reserve(std::max(at + sizeof head + size, d.options.chunkBytes + (1u << 20)));
    d.chunk.insert(d.chunk.end(), head, head + sizeof head);
    for (size_t i = 0; i < partCount; ++i) {
        const auto* p = static_cast<const uint8_t*>(parts[i].data);
        d.chunk.insert(d.chunk.end(), p, p + parts[i].size);
    }
    d.index[channelId].emplace_back(logTimeNs, at);
    d.chunkStart = std::min(d.chunkStart, logTimeNs);
    d.chunkEnd = std::max(d.chunkEnd, logTimeNs);
    d.messageStart = std::min(d.messageStart, logTimeNs);
    d.messageEnd = std::max(d.messageEnd, logTimeNs);
    ++d.channelCounts[channelId];
    ++m_messageCount;
    if (d.chunk.size() >= d.options.chunkBytes) return flush();
    return true;
}

bool McapWriter::flush() {
    if (!m_impl->flushChunk(m_offset, m_error)) return false;
    m_messagesInFile = m_messageCount;
    return true;
}

bool McapWriter::Impl::flushChunk(uint64_t& offset, std::string& error) {
    const uint32_t chunkCrc = crcOf(0, chunk.data(), chunk.size());
    if (options.compression == Compression::None) {
        if (!writeChunk({piece(chunk.data(), chunk.size())}, chunk.size(), chunkCrc, chunk.size(), offset, error))
            return false;
    } else {
        std::string why;
        if (!compress(options.compression, chunk.data(), chunk.size(), compressed, why)) {
            error = "cannot compress a chunk of '" + path + "': " + why;
            return false;
        }
        if (!writeChunk({piece(compressed.data(), compressed.size())}, compressed.size(), chunkCrc, chunk.size(),
                        offset, error))
            return false;
    }
    chunk.clear();
    return true;
}

bool McapWriter::Impl::writeChunk(std::vector<iovec> records, uint64_t recordsSize, uint32_t chunkCrc,
                                  uint64_t uncompressedSize, uint64_t& offset, std::string& error) {
    const bool plain = options.compression == Compression::None;
    const std::string compression = plain ? "" : compressionName(options.compression);
    Bytes head;
    const size_t r = head.open(kChunk);
    head.u64(chunkStart);
    head.u64(chunkEnd);
    head.u64(uncompressedSize);
    head.u32(chunkCrc);
    head.str(compression);
    head.u64(recordsSize);
    head.put64(r - 8, head.b.size() - r + recordsSize);

    ChunkIndexEntry entry;
    entry.start = chunkStart;
    entry.end = chunkEnd;
    entry.offset = offset;
    entry.length = head.b.size() + recordsSize;
    entry.compressedSize = recordsSize;
    entry.uncompressedSize = uncompressedSize;
    Bytes indexes;
    for (const auto& [channel, entries] : index) {
        entry.indexOffsets[channel] = offset + entry.length + indexes.b.size();
        const size_t m = indexes.open(kMessageIndex);
        indexes.u16(channel);
        indexes.u32(static_cast<uint32_t>(entries.size() * 16));
        for (const auto& [time, at] : entries) {
            indexes.u64(time);
            indexes.u64(at);
        }
        indexes.close(m);
    }
    entry.indexLength = indexes.b.size();

    records.insert(records.begin(), piece(head.b.data(), head.b.size()));
    records.push_back(piece(indexes.b.data(), indexes.b.size()));
    std::string why;
    if (!writeAt(fd, offset, records, why)) {
        error = "cannot write a chunk to '" + path + "' at offset " + std::to_string(offset) + ": " + why;
        return false;
    }
    dataCrc = crcOf(dataCrc, head.b.data(), head.b.size());
    if (plain) {
        // The records are the uncompressed ones, whose CRC is known: join it rather than read them again.
        dataCrc = uint32_t(crc32_combine(dataCrc, chunkCrc, z_off_t(recordsSize)));
    } else {
        for (size_t i = 1; i + 1 < records.size(); ++i) dataCrc = crcOf(dataCrc, records[i].iov_base, records[i].iov_len);
    }
    dataCrc = crcOf(dataCrc, indexes.b.data(), indexes.b.size());
    offset += entry.length + entry.indexLength;
    chunkIndex.push_back(std::move(entry));
    index.clear();
    chunkStart = UINT64_MAX;
    chunkEnd = 0;
    return true;
}

bool McapWriter::close() {
    Impl& d = *m_impl;
    if (d.fd < 0) return !failed();
    if (!failed()) write(0, 0, 0, 0, nullptr, 0);
    if (failed()) {
        // Cut off whatever part of a chunk reached the file; the end records are small and may still fit
        // in the space that frees.
        if (::ftruncate(d.fd, off_t(m_offset)) != 0) {
            m_error += "; cannot cut the file back to offset " + std::to_string(m_offset) + ": " +
                       std::strerror(errno);
        }
    }
    Bytes b;
    const size_t de = b.open(kDataEnd);
    b.u32(d.dataCrc);
    b.close(de);
    const uint64_t summaryStart = m_offset + b.b.size();
    struct Group {
        uint8_t op;
        uint64_t start, length;
    };
    std::vector<Group> groups;
    auto group = [&](uint8_t op, const std::function<void()>& add) {
        const uint64_t start = m_offset + b.b.size();
        add();
        const uint64_t length = m_offset + b.b.size() - start;
        if (length > 0) groups.push_back(Group{op, start, length});
    };
    group(kSchema, [&] {
        for (const Bytes& s : d.schemaRecords) b.raw(s.b.data(), s.b.size());
    });
    group(kChannel, [&] {
        for (const Bytes& c : d.channelRecords) b.raw(c.b.data(), c.b.size());
    });
    group(kStatistics, [&] {
        const size_t r = b.open(kStatistics);
        b.u64(m_messageCount);
        b.u16(static_cast<uint16_t>(d.schemaRecords.size()));
        b.u32(static_cast<uint32_t>(d.channelRecords.size()));
        b.u32(0);
        b.u32(static_cast<uint32_t>(d.metadataIndex.size()));
        b.u32(static_cast<uint32_t>(d.chunkIndex.size()));
        b.u64(m_messageCount == 0 ? 0 : d.messageStart);
        b.u64(m_messageCount == 0 ? 0 : d.messageEnd);
        const size_t m = b.begin();
        for (const auto& [channel, n] : d.channelCounts) {
            b.u16(channel);
            b.u64(n);
        }
        b.end(m);
        b.close(r);
    });
    group(kMetadataIndex, [&] {
        for (const MetadataIndexEntry& e : d.metadataIndex) {
            const size_t r = b.open(kMetadataIndex);
            b.u64(e.offset);
            b.u64(e.length);
            b.str(e.name);
            b.close(r);
        }
    });
    group(kChunkIndex, [&] {
        for (const ChunkIndexEntry& e : d.chunkIndex) {
            const size_t r = b.open(kChunkIndex);
            b.u64(e.start);
            b.u64(e.end);
            b.u64(e.offset);
            b.u64(e.length);
            const size_t m = b.begin();
            for (const auto& [channel, at] : e.indexOffsets) {
                b.u16(channel);
                b.u64(at);
            }
            b.end(m);
            b.u64(e.indexLength);
            b.str(compressionName(d.options.compression) == std::string("none")
                      ? ""
                      : compressionName(d.options.compression));
            b.u64(e.compressedSize);
            b.u64(e.uncompressedSize);
            b.close(r);
        }
    });
    const uint64_t summaryOffsetStart = m_offset + b.b.size();
    for (const Group& g : groups) {
        const size_t r = b.open(kSummaryOffset);
        b.u8(g.op);
        b.u64(g.start);
        b.u64(g.length);
        b.close(r);
    }
    // The summary CRC covers the footer's own opcode, length and offsets: the length is written first.
    b.u8(kFooter);
    b.u64(8 + 8 + 4);
    b.u64(summaryStart);
    b.u64(summaryOffsetStart);
    const size_t crcFrom = size_t(summaryStart - m_offset);
    b.u32(crcOf(0, b.b.data() + crcFrom, b.b.size() - crcFrom));
    b.raw(kMagic, sizeof kMagic);

    std::string why;
    bool ok = writeAt(d.fd, m_offset, {piece(b.b.data(), b.b.size())}, why);
    if (!ok) {
        if (m_error.empty())
            m_error = "cannot write the end of '" + d.path + "' at offset " + std::to_string(m_offset) + ": " + why;
        if (::ftruncate(d.fd, off_t(m_offset)) != 0) m_error += std::string("; cannot cut it back: ") + std::strerror(errno);
    } else {
        m_offset += b.b.size();
    }
    if (::close(d.fd) != 0 && ok) {
        m_error = "cannot close '" + d.path + "': " + std::strerror(errno);
        ok = false;
    }
    d.fd = -1;
    return ok && !failed();
}

}  // namespace sensor_recording
