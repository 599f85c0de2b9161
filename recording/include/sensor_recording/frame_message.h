// The message of one recorded frame: a ROS 2 sensor_msgs/msg/Image in CDR, which the field's viewers
// and readers decode. The frame's bytes go in unchanged, each plane's lines at its own pitch; the
// encoding string names the layout (see image encodings below); the frame counter rides in the MCAP
// message's sequence field.
#ifndef SENSOR_RECORDING_FRAME_MESSAGE_H
#define SENSOR_RECORDING_FRAME_MESSAGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sensor_recording {

extern const char* const kImageSchemaName;      // "sensor_msgs/msg/Image"
extern const char* const kImageSchemaEncoding;  // "ros2msg"
extern const char* const kImageMessageEncoding; // "cdr"
// The schema's text with its dependencies, as ROS 2 tools write it.
const std::string& imageSchemaText();

// The frame layouts a recording holds.
enum class ImageFormat { Nv12, Nv21, Rggb16, Mono8, Mono16 };

struct ImagePlane {
    uint32_t pitch = 0;      // bytes from one line to the next, as in the frame's buffer
    uint32_t lines = 0;
    uint32_t lineBytes = 0;  // visible bytes of a line
};

// What a frame message says about its image.
struct ImageGeometry {
    ImageFormat format = ImageFormat::Mono8;
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<ImagePlane> planes;  // in the order their lines follow each other in the data
    uint64_t dataBytes() const;      // sum of pitch * lines
};

// Geometry of a format at a size with the planes' pitches (one per plane); nullopt when the pitches do not
// hold a line or the size does not suit the format.
std::optional<ImageGeometry> makeGeometry(ImageFormat format, uint32_t width, uint32_t height,
                                          const std::vector<uint32_t>& pitches);

// The encoding string: the ROS name ("nv12", "nv21", "bayer_rggb16", "mono8", "mono16") when the planes
// share the first plane's pitch (the message's step), else that name with ":pitch1=N" for the second
// plane's own pitch.
std::string encodingOf(const ImageGeometry& geometry);

struct ImageHeader {
    uint64_t stampNs = 0;  // header.stamp
    std::string frameId;   // header.frame_id: the sensor's name
    ImageGeometry geometry;
};

// The CDR bytes of a message up to its data (the data's length included): the data follows them.
std::vector<uint8_t> encodeImageHead(const ImageHeader& header);

struct DecodedImage {
    ImageHeader header;
    std::string encoding;
    uint32_t step = 0;
    const uint8_t* data = nullptr;  // inside the decoded buffer
    size_t size = 0;
};
// Decodes a message and checks that its data holds exactly the planes its encoding and step describe.
bool decodeImage(const uint8_t* bytes, size_t size, DecodedImage& out, std::string& error);

}  // namespace sensor_recording

#endif  // SENSOR_RECORDING_FRAME_MESSAGE_H
