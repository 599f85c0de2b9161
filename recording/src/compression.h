// Chunk compression and decompression through libzstd and liblz4 (LZ4 frames).
#ifndef SENSOR_RECORDING_COMPRESSION_H
#define SENSOR_RECORDING_COMPRESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "sensor_recording/mcap.h"

namespace sensor_recording {

// The most bytes that `size` bytes may compress to.
size_t compressBound(Compression compression, size_t size);
// Compresses `size` bytes with zstd or lz4 into `out`, which holds `capacity` (compressBound) bytes; the
// compressed size, or 0 with `error`.
size_t compress(Compression compression, const uint8_t* data, size_t size, uint8_t* out, size_t capacity,
                std::string& error);
// Decompresses a chunk's records that must come to exactly `expected` bytes; false with `error`.
bool decompress(const std::string& compression, const uint8_t* data, size_t size, size_t expected,
                std::vector<uint8_t>& out, std::string& error);

}  // namespace sensor_recording

#endif  // SENSOR_RECORDING_COMPRESSION_H
