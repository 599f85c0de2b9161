// The MCAP writer: messages gather in chunks; a closed chunk is checked (CRC) and compressed, in the
// caller's thread or on the writer's workers, then written whole with its message indexes, in order;
// close() writes the summary that lets readers seek.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>
#include <libdeflate.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <thread>

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

// Memory that grows without being cleared: what goes into it is written over it at once.
struct Scratch {
    std::unique_ptr<uint8_t[]> data;
    size_t capacity = 0;
    uint8_t* reserve(size_t n) {
        if (n > capacity) {
            data.reset(new uint8_t[n]);
            capacity = n;
        }
        return data.get();
    }
};

// A chunk on its way to the file: its message records, each channel's (log time, offset) pairs and its
// time range; once processed, its CRC and compressed bytes. Chunks are kept for reuse with their memory.
struct Chunk {
    std::vector<std::vector<uint8_t>> records;
    std::map<uint16_t, std::vector<std::pair<uint64_t, uint64_t>>> index;
    uint64_t start = UINT64_MAX, end = 0, size = 0;
    uint32_t crc = 0;
    Scratch joined, compressed;
    size_t compressedSize = 0;
    bool processed = false;
    std::string error;
};

}  // namespace

struct McapWriter::Impl {
    WriterOptions options;
    std::string path;
    int fd = -1;
    std::function<void(std::vector<uint8_t>&&)> recycle;

    // The caller's side: the chunk being filled, and what the summary repeats of the records it added.
    std::unique_ptr<Chunk> filling;
    std::vector<Bytes> schemaRecords, channelRecords;
    std::vector<MetadataIndexEntry> metadataIndex;
    uint16_t nextSchema = 1, nextChannel = 0;

    // Chunks between the caller and the file, in file order; the workers take them from `toProcess`.
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::unique_ptr<Chunk>> inFlight;
    std::deque<Chunk*> toProcess;
    std::vector<std::unique_ptr<Chunk>> spare;
    bool emitting = false;  // one thread at a time writes chunks, the oldest first
    bool stopping = false;
    std::vector<std::thread> workers;

    // The file's side, touched by the one thread that writes (or by the caller once nothing is in flight).
    uint64_t offset = 0;
    uint32_t dataCrc = 0;
    std::vector<ChunkIndexEntry> chunkIndex;
    std::map<uint16_t, uint64_t> channelCounts;
    uint64_t messageStart = UINT64_MAX, messageEnd = 0;

    // What any thread may read.
    std::atomic<bool> failed{false};
    mutable std::mutex errorMutex;
    std::string error;
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> messagesInFile{0};

    void fail(const std::string& why) {
        {
            std::lock_guard<std::mutex> lock(errorMutex);
            if (failed.load()) return;
            error = why;
            failed.store(true);
        }
        std::lock_guard<std::mutex> lock(mutex);
        changed.notify_all();
    }

    std::unique_ptr<Chunk> newChunk() {
        std::lock_guard<std::mutex> lock(mutex);
        if (spare.empty()) return std::make_unique<Chunk>();
        auto c = std::move(spare.back());
        spare.pop_back();
        return c;
    }
    // Hands the chunk's records back and keeps the chunk for another turn.
    void retire(std::unique_ptr<Chunk> c) {
        for (auto& r : c->records)
            if (recycle) recycle(std::move(r));
        c->records.clear();
        for (auto& [channel, entries] : c->index) entries.clear();
        c->start = UINT64_MAX;
        c->end = c->size = c->compressedSize = 0;
        c->crc = 0;
        c->processed = false;
        c->error.clear();
        std::lock_guard<std::mutex> lock(mutex);
        spare.push_back(std::move(c));
    }

    void add(Chunk& c, OwnedMessage&& m) {
        c.index[m.channel].emplace_back(m.logTimeNs, c.size);
        c.start = std::min(c.start, m.logTimeNs);
        c.end = std::max(c.end, m.logTimeNs);
        c.size += m.record.size();
        c.records.push_back(std::move(m.record));
    }
    void seal(std::unique_ptr<Chunk> c);
    void sealFilling() {
        if (filling && !filling->records.empty()) seal(std::move(filling));
    }
    // Waits until every sealed chunk is in the file (or dropped after a failure).
    void drain() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return inFlight.empty() && !emitting; });
    }
    void work();
    // Writes the oldest chunks that are ready, unless another thread is at it; called with `lock` held.
    void emitReady(std::unique_lock<std::mutex>& lock);
    static void process(Chunk& c, Compression compression);
    void emit(Chunk& c);
    bool writeUnit(const Bytes& b);
};

McapWriter::McapWriter() : m_impl(std::make_unique<Impl>()) {}

McapWriter::~McapWriter() {
    if (m_impl->fd >= 0) close();
}

bool McapWriter::failed() const {
    return m_impl->failed.load();
}

std::string McapWriter::error() const {
    std::lock_guard<std::mutex> lock(m_impl->errorMutex);
    return m_impl->error;
}

uint64_t McapWriter::bytesWritten() const {
    return m_impl->bytes.load();
}

uint64_t McapWriter::messagesInFile() const {
    return m_impl->messagesInFile.load();
}

void McapWriter::setRecycler(std::function<void(std::vector<uint8_t>&&)> recycle) {
    m_impl->recycle = std::move(recycle);
}

bool McapWriter::open(const std::string& path, const WriterOptions& options) {
    Impl& d = *m_impl;
    d.options = options;
    d.path = path;
    d.fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (d.fd < 0) {
        d.fail("cannot create '" + path + "': " + std::strerror(errno));
        return false;
    }
    Bytes b;
    b.raw(kMagic, sizeof kMagic);
    const size_t h = b.open(kHeader);
    b.str(options.profile);
    b.str(options.library);
    b.close(h);
    if (!d.writeUnit(b)) return false;
    for (unsigned i = 0; i < options.workers; ++i) d.workers.emplace_back([&d] { d.work(); });
    return true;
}

// Adds a record outside the chunks (a schema, a channel, metadata) to the file, after every chunk.
bool McapWriter::Impl::writeUnit(const Bytes& b) {
    if (fd < 0 || failed.load()) return false;
    sealFilling();
    drain();
    if (failed.load()) return false;
    std::string why;
    if (!writeAt(fd, offset, {piece(b.b.data(), b.b.size())}, why)) {
        fail("cannot write '" + path + "' at offset " + std::to_string(offset) + ": " + why);
        return false;
    }
    dataCrc = crcOf(dataCrc, b.b.data(), b.b.size());
    offset += b.b.size();
    bytes.store(offset);
    return true;
}

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
    d.writeUnit(b);
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
    d.writeUnit(b);
    d.channelCounts[id] = 0;
    return id;
}

bool McapWriter::addMetadata(const std::string& name, const StringMap& values) {
    Impl& d = *m_impl;
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
    if (!d.writeUnit(b)) return false;
    d.metadataIndex.push_back(MetadataIndexEntry{d.offset - b.b.size(), b.b.size(), name});
    return true;
}

bool McapWriter::write(uint16_t channelId, uint32_t sequence, uint64_t logTimeNs, uint64_t publishTimeNs,
                       const Part* parts, size_t partCount) {
    OwnedMessage m{channelId, sequence, logTimeNs, publishTimeNs, {}};
    size_t size = OwnedMessage::kMessageHeadroom;
    for (size_t i = 0; i < partCount; ++i) size += parts[i].size;
    m.record.reserve(size);
    m.record.resize(OwnedMessage::kMessageHeadroom);
    for (size_t i = 0; i < partCount; ++i) {
        const auto* p = static_cast<const uint8_t*>(parts[i].data);
        m.record.insert(m.record.end(), p, p + parts[i].size);
    }
    return write(std::move(m));
}

bool McapWriter::write(OwnedMessage&& m) {
    Impl& d = *m_impl;
    if (d.fd < 0) {
        d.fail("the recording file is not open");
        return false;
    }
    if (d.failed.load()) return false;
    std::vector<uint8_t>& r = m.record;
    if (r.size() < OwnedMessage::kMessageHeadroom) {
        d.fail("a message without room for its record's header");
        return false;
    }
    r[0] = kMessage;
    const uint64_t len = r.size() - 9;
    for (int i = 0; i < 8; ++i) r[1 + i] = uint8_t(len >> (8 * i));
    r[9] = uint8_t(m.channel);
    r[10] = uint8_t(m.channel >> 8);
    for (int i = 0; i < 4; ++i) r[11 + i] = uint8_t(m.sequence >> (8 * i));
    for (int i = 0; i < 8; ++i) r[15 + i] = uint8_t(m.logTimeNs >> (8 * i));
    for (int i = 0; i < 8; ++i) r[23 + i] = uint8_t(m.publishTimeNs >> (8 * i));
    // A frame (half a chunk or more) is a chunk of its own: compressed or written straight from its
    // record, never copied into a shared chunk.
    if (r.size() >= d.options.chunkBytes / 2) {
        d.sealFilling();
        auto own = d.newChunk();
        d.add(*own, std::move(m));
        d.seal(std::move(own));
        return !d.failed.load();
    }
    if (!d.filling) d.filling = d.newChunk();
    d.add(*d.filling, std::move(m));
    if (d.filling->size >= d.options.chunkBytes) d.seal(std::move(d.filling));
    return !d.failed.load();
}

void McapWriter::Impl::seal(std::unique_ptr<Chunk> c) {
    if (failed.load()) return retire(std::move(c));
    if (workers.empty()) {
        process(*c, options.compression);
        emit(*c);
        return retire(std::move(c));
    }
    std::unique_lock<std::mutex> lock(mutex);
    // Two chunks per worker at most: a writer that cannot keep up makes its caller wait here.
    changed.wait(lock, [this] { return inFlight.size() < 2 * workers.size() || failed.load(); });
    if (failed.load()) {
        lock.unlock();
        return retire(std::move(c));
    }
    toProcess.push_back(c.get());
    inFlight.push_back(std::move(c));
    changed.notify_all();
}

void McapWriter::Impl::work() {
    std::unique_lock<std::mutex> lock(mutex);
    while (true) {
        changed.wait(lock, [this] { return stopping || !toProcess.empty(); });
        if (toProcess.empty()) return;
        Chunk* c = toProcess.front();
        toProcess.pop_front();
        lock.unlock();
        process(*c, options.compression);
        lock.lock();
        c->processed = true;
        emitReady(lock);
    }
}

void McapWriter::Impl::emitReady(std::unique_lock<std::mutex>& lock) {
    while (!emitting && !inFlight.empty() && inFlight.front()->processed) {
        std::unique_ptr<Chunk> c = std::move(inFlight.front());
        inFlight.pop_front();
        emitting = true;
        lock.unlock();
        emit(*c);
        retire(std::move(c));
        lock.lock();
        emitting = false;
        changed.notify_all();
    }
}

void McapWriter::Impl::process(Chunk& c, Compression compression) {
    uint32_t crc = 0;
    for (const auto& r : c.records) crc = crcOf(crc, r.data(), r.size());
    c.crc = crc;
    if (compression == Compression::None) return;
    try {
        const uint8_t* records = c.records.front().data();
        if (c.records.size() > 1) {
            uint8_t* joined = c.joined.reserve(c.size);
            for (const auto& r : c.records) {
                std::memcpy(joined, r.data(), r.size());
                joined += r.size();
            }
            records = c.joined.data.get();
        }
        const size_t bound = compressBound(compression, c.size);
        c.compressedSize = compress(compression, records, c.size, c.compressed.reserve(bound), bound, c.error);
    } catch (const std::bad_alloc&) {
        c.error = "no memory for a chunk of " + std::to_string(c.size) + " bytes";  // on a worker: no one to throw to
    }
}

void McapWriter::Impl::emit(Chunk& c) {
    if (failed.load()) return;
    if (!c.error.empty()) return fail("cannot compress a chunk of '" + path + "': " + c.error);
    const bool plain = options.compression == Compression::None;
    const uint64_t recordsSize = plain ? c.size : c.compressedSize;
    Bytes head;
    const size_t r = head.open(kChunk);
    head.u64(c.start);
    head.u64(c.end);
    head.u64(c.size);
    head.u32(c.crc);
    head.str(plain ? "" : compressionName(options.compression));
    head.u64(recordsSize);
    head.put64(r - 8, head.b.size() - r + recordsSize);

    ChunkIndexEntry entry;
    entry.start = c.start;
    entry.end = c.end;
    entry.offset = offset;
    entry.length = head.b.size() + recordsSize;
    entry.compressedSize = recordsSize;
    entry.uncompressedSize = c.size;
    Bytes indexes;
    uint64_t messages = 0;
    for (const auto& [channel, entries] : c.index) {
        if (entries.empty()) continue;
        entry.indexOffsets[channel] = offset + entry.length + indexes.b.size();
        const size_t m = indexes.open(kMessageIndex);
        indexes.u16(channel);
        indexes.u32(static_cast<uint32_t>(entries.size() * 16));
        for (const auto& [time, at] : entries) {
            indexes.u64(time);
            indexes.u64(at);
        }
        indexes.close(m);
        messages += entries.size();
    }
    entry.indexLength = indexes.b.size();

    std::vector<iovec> pieces{piece(head.b.data(), head.b.size())};
    if (plain) {
        for (const auto& rec : c.records) pieces.push_back(piece(rec.data(), rec.size()));
    } else {
        pieces.push_back(piece(c.compressed.data.get(), c.compressedSize));
    }
    pieces.push_back(piece(indexes.b.data(), indexes.b.size()));
    std::string why;
    if (!writeAt(fd, offset, pieces, why)) {
        return fail("cannot write a chunk to '" + path + "' at offset " + std::to_string(offset) + ": " + why);
    }
    dataCrc = crcOf(dataCrc, head.b.data(), head.b.size());
    if (plain) {
        // The records are the uncompressed ones, whose CRC is known: join it rather than read them again.
        dataCrc = uint32_t(crc32_combine(dataCrc, c.crc, z_off_t(recordsSize)));
    } else {
        dataCrc = crcOf(dataCrc, c.compressed.data.get(), c.compressedSize);
    }
    dataCrc = crcOf(dataCrc, indexes.b.data(), indexes.b.size());
    offset += entry.length + entry.indexLength;
    for (const auto& [channel, entries] : c.index) channelCounts[channel] += entries.size();
    messageStart = std::min(messageStart, c.start);
    messageEnd = std::max(messageEnd, c.end);
    chunkIndex.push_back(std::move(entry));
    bytes.store(offset);
    messagesInFile.fetch_add(messages);
}

bool McapWriter::close() {
    Impl& d = *m_impl;
    if (d.fd < 0) return !failed();
    d.sealFilling();
    d.drain();
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = true;
        d.changed.notify_all();
    }
    for (auto& t : d.workers) t.join();
    d.workers.clear();
    d.stopping = false;
    std::string ending;  // what went wrong while ending the file, after an earlier failure or alone
    if (failed()) {
        // Cut off whatever part of a chunk reached the file; the end records are small and may still fit
        // in the space that frees.
        if (::ftruncate(d.fd, off_t(d.offset)) != 0)
            ending = "; cannot cut the file back to offset " + std::to_string(d.offset) + ": " + std::strerror(errno);
    }
    const uint64_t messageCount = d.messagesInFile.load();
    Bytes b;
    const size_t de = b.open(kDataEnd);
    b.u32(d.dataCrc);
    b.close(de);
    const uint64_t summaryStart = d.offset + b.b.size();
    struct Group {
        uint8_t op;
        uint64_t start, length;
    };
    std::vector<Group> groups;
    auto group = [&](uint8_t op, const std::function<void()>& add) {
        const uint64_t start = d.offset + b.b.size();
        add();
        const uint64_t length = d.offset + b.b.size() - start;
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
        b.u64(messageCount);
        b.u16(static_cast<uint16_t>(d.schemaRecords.size()));
        b.u32(static_cast<uint32_t>(d.channelRecords.size()));
        b.u32(0);
        b.u32(static_cast<uint32_t>(d.metadataIndex.size()));
        b.u32(static_cast<uint32_t>(d.chunkIndex.size()));
        b.u64(messageCount == 0 ? 0 : d.messageStart);
        b.u64(messageCount == 0 ? 0 : d.messageEnd);
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
        const std::string compression =
            d.options.compression == Compression::None ? "" : compressionName(d.options.compression);
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
            b.str(compression);
            b.u64(e.compressedSize);
            b.u64(e.uncompressedSize);
            b.close(r);
        }
    });
    const uint64_t summaryOffsetStart = d.offset + b.b.size();
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
    const size_t crcFrom = size_t(summaryStart - d.offset);
    b.u32(crcOf(0, b.b.data() + crcFrom, b.b.size() - crcFrom));
    b.raw(kMagic, sizeof kMagic);

    std::string why;
    bool ok = writeAt(d.fd, d.offset, {piece(b.b.data(), b.b.size())}, why);
    if (!ok) {
        ending += "; cannot write the end of '" + d.path + "' at offset " + std::to_string(d.offset) + ": " + why;
        if (::ftruncate(d.fd, off_t(d.offset)) != 0) ending += std::string("; cannot cut it back: ") + std::strerror(errno);
    } else {
        d.offset += b.b.size();
        d.bytes.store(d.offset);
    }
    if (::close(d.fd) != 0 && ok) {
        ending += "; cannot close '" + d.path + "': " + std::strerror(errno);
        ok = false;
    }
    d.fd = -1;
    if (!ending.empty()) {
        std::lock_guard<std::mutex> lock(d.errorMutex);
        d.error = d.failed.load() ? d.error + ending : ending.substr(2);
        d.failed.store(true);
    }
    return ok && !failed();
}

}  // namespace sensor_recording
