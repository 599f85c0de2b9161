// The maker's stream library (libimage-stream.so.3): a consumer of the camera-access service's frame
// streams. On the vehicle the vendor's header replaces this one; the ImageInfo offsets below are the
// library's and are checked at compile time.
#ifndef IMAGE_STREAM_MASTER_H
#define IMAGE_STREAM_MASTER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nvscibuf.h"

namespace vexa {
namespace vexalog {
class Logger;
}

namespace imgstream {

// Output of a sensor stream: the capture output ("ICP") or the processed (ISP) output.
enum OutputType : uint32_t {
    OUTPUT_TYPE_ICP = 0,
    OUTPUT_TYPE_ISP = 1,
};

// Connection state of a consumer, as getStreamState reports it.
enum StreamState : int {
    STREAM_STATE_CONNECTING = 0,
    STREAM_STATE_CONNECTED = 1,
    STREAM_STATE_CONNECT_FAILED = 2,
};

// One stream of a consumer registration.
struct ImageStreamConfig {
    std::string name;
    uint32_t field1;
    uint32_t field2;
    uint32_t field3;
    uint32_t frameTimeout;
    uint32_t field5;
};

// Frame record filled by getFrame and read by releaseFrame.
struct ImageInfo {
    uint16_t sensorId;
    uint16_t objIndex;
    uint32_t reserved0;
    uint64_t reserved1;
    uint64_t wordA;
    uint64_t wordB;
    uint64_t wordC;
    uint64_t wordD;
    uint64_t frameCnt;
    uint64_t wordE;
    uint64_t wordF;
    uint64_t wordG;
    uint64_t wordH;
    uint64_t wordI;
    NvSciBufObj bufObj;
    uint64_t reserved2;
    uint32_t trailing;
    uint32_t reserved3;
};

static_assert(offsetof(ImageInfo, sensorId) == 0, "ImageInfo layout");
static_assert(offsetof(ImageInfo, objIndex) == 2, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordA) == 16, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordB) == 24, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordC) == 32, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordD) == 40, "ImageInfo layout");
static_assert(offsetof(ImageInfo, frameCnt) == 48, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordE) == 56, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordF) == 64, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordG) == 72, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordH) == 80, "ImageInfo layout");
static_assert(offsetof(ImageInfo, wordI) == 88, "ImageInfo layout");
static_assert(offsetof(ImageInfo, bufObj) == 96, "ImageInfo layout");
static_assert(offsetof(ImageInfo, trailing) == 112, "ImageInfo layout");

class ImageStreamMaster {
public:
    ImageStreamMaster();
    ~ImageStreamMaster();
    ImageStreamMaster(const ImageStreamMaster&) = delete;
    ImageStreamMaster& operator=(const ImageStreamMaster&) = delete;

    // Registers the application as consumer on its IPC channel; 0 on success.
    int initConsumer(const std::string& appName, const std::string& channel,
                     std::shared_ptr<vexalog::Logger> logger, unsigned short param);
    // Registers one consumer stream (sensor id) with its output configurations; 0 on success.
    int regConsumerStream(unsigned int streamId, std::vector<ImageStreamConfig>& configs,
                          std::function<int(ImageInfo*)> callback);
    // Completes the set-up and starts connecting to the producer; 0 on success.
    int initConsumerDone();
    // A StreamState value.
    int getStreamState() const;
    int deinitStream();

    // 0 and a filled record, or a non-zero status (9 and 10 are the library's "no frame" codes).
    int getFrame(unsigned int streamId, OutputType output, ImageInfo* info);
    // Returns the frame with info's object index and frame counter; 0 on success.
    int releaseFrame(unsigned int streamId, OutputType output, ImageInfo* info);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace imgstream
}  // namespace vexa

#endif  // IMAGE_STREAM_MASTER_H
