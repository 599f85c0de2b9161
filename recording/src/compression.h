// Chunk compression and decompression through libzstd and liblz4 (LZ4 frames).
#ifndef SENSOR_RECORDING_COMPRESSION_H
#define SENSOR_RECORDING_COMPRESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "sensor_recording/mcap.h"

namespace sensor_recording {

// Compresses `size` bytes into `out` (resized); false with `error`.
bool compress(Compression compression, const uint8_t* data, size_t size, std::vector<uint8_t>& out,
              std::string& error);
// Decompresses a chunk's records that must come to exactly `expected` bytes; false with `error`.
bool decompress(const std::string& compression, const uint8_t* data, size_t size, size_t expected,
                std::vector<uint8_t>& out, std::string& error);

}  // namespace sensor_recording

#endif  // SENSOR_RECORDING_COMPRESSION_H
