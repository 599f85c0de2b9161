// A frame buffer's geometry (the consumer library's) as the JSON beside each dump, and the command lines
// of common raw-video tools that open such a dump.
#ifndef SENSORCTL_BUFFER_INFO_H
#define SENSORCTL_BUFFER_INFO_H

#include <nlohmann/json.hpp>
#include <string>

#include "image.h"
#include "sensor_consumer/geometry.h"

namespace sensorctl {

// What a frame buffer says about its image: the consumer library's geometry.
using sensor_consumer::BufferInfo;
using sensor_consumer::colorFormatName;
using sensor_consumer::PlaneInfo;
using sensor_consumer::readBufferInfo;

// The buffer as JSON (planes with geometry, colour formats, pitches, bits per pixel).
nlohmann::ordered_json bufferJson(const BufferInfo& info);

// "ffplay -f rawvideo -pixel_format nv12 -video_size 1920x1080 'FILE'" and the ffmpeg command that turns
// the first frame into a PNG; empty when the format is not known.
std::string viewerCommand(const std::string& file, const BufferInfo& info);
std::string converterCommand(const std::string& file, const BufferInfo& info);

}  // namespace sensorctl

#endif  // SENSORCTL_BUFFER_INFO_H
