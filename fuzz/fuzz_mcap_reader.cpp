// The MCAP reader over arbitrary bytes: it must end every read with messages or an error naming the
// offset, never crash, read outside the input or allocate without bound; image messages it hands out go
// through the frame message decoder too.
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "sensor_recording/frame_message.h"
#include "sensor_recording/mcap.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto reader = sensor_recording::McapReader::fromMemory(data, size);
    sensor_recording::ReaderLimits limits;
    limits.maxChunkBytes = 4u << 20;
    const bool ok = reader->read(
        [&](const sensor_recording::Message& m) {
            sensor_recording::DecodedImage image;
            std::string error;
            if (sensor_recording::decodeImage(m.data, m.size, image, error)) {
                sipc_fuzz::check(image.size == image.header.geometry.dataBytes());
            } else {
                sipc_fuzz::check(!error.empty());
            }
            return true;
        },
        limits);
    sipc_fuzz::check(ok || reader->error().find("at offset ") != std::string::npos);
    return 0;
}
