// MCAP files of our own making: a writer that lays messages into compressed, CRC-checked chunks with
// their message indexes and ends the file with a chunk index, statistics and a summary; a reader that
// checks every record and CRC and names the offset of whatever it cannot accept.
#ifndef SENSOR_RECORDING_MCAP_H
#define SENSOR_RECORDING_MCAP_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sensor_recording {

enum class Compression { None, Zstd, Lz4 };
// "none", "zstd", "lz4": the names of the command line; chunk records say "", "zstd", "lz4".
std::optional<Compression> parseCompression(const std::string& name);
const char* compressionName(Compression compression);

using StringMap = std::map<std::string, std::string>;

struct WriterOptions {
    Compression compression = Compression::Zstd;
    uint64_t chunkBytes = 4u << 20;  // a chunk is closed once its records reach this size
    // Threads that check (CRC) and compress closed chunks while the caller goes on adding messages; the
    // chunks still reach the file in their order. 0: all of it in the caller's thread.
    unsigned workers = 0;
    std::string profile = "ros2";
    std::string library;  // the writing program and its version, for the file's header
};

// A message whose bytes the writer takes over, so that it writes them without a copy: `record` starts
// with kMessageHeadroom bytes that the writer fills with the record's header, then the message data.
struct OwnedMessage {
    static constexpr size_t kMessageHeadroom = 1 + 8 + 2 + 4 + 8 + 8;
    uint16_t channel = 0;
    uint32_t sequence = 0;
    uint64_t logTimeNs = 0;
    uint64_t publishTimeNs = 0;
    std::vector<uint8_t> record;
};

// One file being written. One thread owns it (its calls are not thread-safe); with workers, chunks are
// checked and compressed beside it. Each chunk is written whole with its message indexes, so a file cut
// short by a failed write still reads up to its last complete chunk.
class McapWriter {
public:
    McapWriter();
    ~McapWriter();  // closes a file still open
    McapWriter(const McapWriter&) = delete;
    McapWriter& operator=(const McapWriter&) = delete;

    // Creates (or truncates) `path` and writes the magic and the header.
    bool open(const std::string& path, const WriterOptions& options);
    uint16_t addSchema(const std::string& name, const std::string& encoding, const std::string& data);
    uint16_t addChannel(uint16_t schemaId, const std::string& topic, const std::string& messageEncoding,
                        const StringMap& metadata);
    bool addMetadata(const std::string& name, const StringMap& values);
    // One message whose data is the concatenation of `parts` (a header and a payload, say), copied.
    struct Part {
        const void* data;
        size_t size;
    };
    bool write(uint16_t channelId, uint32_t sequence, uint64_t logTimeNs, uint64_t publishTimeNs,
               const Part* parts, size_t partCount);
    // One message without a copy. A message of half a chunk or more (a frame) is a chunk of its own.
    // Waits while the workers have as many chunks as they can take.
    bool write(OwnedMessage&& message);
    // Where the records of owned messages go once their chunk is in the file (or dropped after a
    // failure), for their buffers to be used again; set before the first write. Called from the workers.
    void setRecycler(std::function<void(std::vector<uint8_t>&&)> recycle);
    // Ends the file: the last chunk, the data end record, the summary, the footer. After a failed write
    // it cuts the file back to its last complete chunk and still tries to end it there.
    bool close();

    // These may be asked from any thread.
    bool failed() const;
    // The first failure: the call, the file, the offset and the system's reason.
    std::string error() const;
    uint64_t bytesWritten() const;
    // Messages in chunks that reached the file whole.
    uint64_t messagesInFile() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

struct Schema {
    uint16_t id = 0;
    std::string name, encoding, data;
};
struct Channel {
    uint16_t id = 0;
    uint16_t schemaId = 0;
    std::string topic, messageEncoding;
    StringMap metadata;
};
struct Message {
    uint16_t channelId = 0;
    uint32_t sequence = 0;
    uint64_t logTimeNs = 0;
    uint64_t publishTimeNs = 0;
    const uint8_t* data = nullptr;  // valid during the callback only
    size_t size = 0;
    // Where the data lies, for reading it again later: the file offset of its chunk record (0 for a
    // message outside the chunks) and the data's offset in the chunk's records (else in the file).
    uint64_t chunkOffset = 0;
    uint64_t dataOffset = 0;
};
struct Metadata {
    std::string name;
    StringMap values;
};

struct ReaderLimits {
    uint64_t maxChunkBytes = uint64_t(1) << 31;  // an uncompressed chunk larger than this is refused
};

// Reads a whole file from its start: every record is checked (lengths, CRCs of chunks, of the data
// section and of the summary) and the messages come out in file order. A file without its summary (a
// recording cut short) reads up to its last complete record; anything else that does not fit the format
// is an error naming the offset and the cause.
class McapReader {
public:
    // Maps `path`; null with `error` when it cannot.
    static std::unique_ptr<McapReader> openFile(const std::string& path, std::string* error);
    // Reads from memory the caller keeps alive.
    static std::unique_ptr<McapReader> fromMemory(const uint8_t* data, size_t size);
    ~McapReader();

    // Calls `onMessage` for each message (false from it stops the read); false with error() on a fault.
    bool read(const std::function<bool(const Message&)>& onMessage, const ReaderLimits& limits = {});

    // The records of the chunk at `chunkOffset` (as a message gave it), decompressed and CRC-checked.
    bool chunkRecords(uint64_t chunkOffset, std::vector<uint8_t>& out, std::string& error) const;
    // The file's bytes (for messages outside the chunks).
    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }

    const std::string& error() const { return m_error; }
    const std::string& profile() const { return m_profile; }
    const std::string& library() const { return m_library; }
    const std::map<uint16_t, Schema>& schemas() const { return m_schemas; }
    const std::map<uint16_t, Channel>& channels() const { return m_channels; }
    const std::vector<Metadata>& metadata() const { return m_metadata; }
    // True once the data end record and a valid summary and footer were read.
    bool complete() const { return m_complete; }
    // Where a file without its end stops being readable (a cut-short record), when it does.
    std::optional<uint64_t> truncatedAt() const { return m_truncatedAt; }
    uint64_t chunks() const { return m_chunks; }
    // The messages per channel that the summary's statistics announce (complete files).
    const std::map<uint16_t, uint64_t>& summaryCounts() const { return m_summaryCounts; }

private:
    McapReader() = default;
    bool fail(uint64_t offset, const std::string& cause);
    bool readRecords(const uint8_t* data, size_t size, uint64_t base, uint64_t chunkOffset,
                     const std::function<bool(const Message&)>& onMessage, const ReaderLimits& limits,
                     bool* stop);
    bool readSummary(uint64_t dataEnd);

    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
    void* m_map = nullptr;
    std::string m_error;
    std::string m_profile, m_library;
    std::map<uint16_t, Schema> m_schemas;
    std::map<uint16_t, Channel> m_channels;
    std::vector<Metadata> m_metadata;
    std::map<uint16_t, uint64_t> m_summaryCounts;
    bool m_complete = false;
    bool m_sawDataEnd = false;
    std::optional<uint64_t> m_truncatedAt;
    uint64_t m_chunks = 0;
    uint32_t m_dataCrc = 0;
};

}  // namespace sensor_recording

#endif  // SENSOR_RECORDING_MCAP_H
