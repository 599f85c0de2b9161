// Stream library substitute (libimage-stream.so.3): each ImageStreamMaster is one consumer of the vehicle
// that serves the process (in-process, or sensor-simd's). Every call is journaled and may be answered by
// an injected status instead.
#include "image_stream_master.h"

#include "sensor_sim/core.h"
#include "sensor_sim/internal/vehicle.h"

namespace vexa {
namespace imgstream {

using sensor_sim::core::Args;

namespace {

std::string describe(const std::vector<ImageStreamConfig>& configs) {
    std::string text = "[";
    for (size_t i = 0; i < configs.size(); ++i) {
        const ImageStreamConfig& c = configs[i];
        if (i != 0) text += ' ';
        text += '{' + c.name + ' ' + std::to_string(c.field1) + ' ' + std::to_string(c.field2) + ' ' +
                std::to_string(c.field3) + ' ' + std::to_string(c.frameTimeout) + ' ' +
                std::to_string(c.field5) + '}';
    }
    return text + ']';
}

}  // namespace

struct ImageStreamMaster::Impl {
    // Made at the first call, once the process knows its vehicle.
    std::unique_ptr<sensor_sim::vehicle::Consumer> consumer;

    sensor_sim::vehicle::Consumer& vehicle() {
        if (!consumer) consumer = sensor_sim::vehicle::current().createConsumer();
        return *consumer;
    }
};

ImageStreamMaster::ImageStreamMaster() : m_impl(new Impl) {}

ImageStreamMaster::~ImageStreamMaster() = default;

int ImageStreamMaster::initConsumer(const std::string& appName, const std::string& channel,
                                    std::shared_ptr<vexalog::Logger> /*logger*/, unsigned short param) {
    sensor_sim::core::record("initConsumer", Args().add(appName).add(channel).add(param));
    if (auto s = sensor_sim::core::enter("initConsumer")) return static_cast<int>(*s);
    return m_impl->vehicle().initConsumer(appName, channel, param);
}

int ImageStreamMaster::regConsumerStream(unsigned int streamId, std::vector<ImageStreamConfig>& configs,
                                         std::function<int(ImageInfo*)> callback) {
    const bool hasCallback = static_cast<bool>(callback);
    sensor_sim::core::record("regConsumerStream",
                             Args().add(streamId).add(describe(configs)).add(hasCallback ? "cb" : "nocb"));
    std::vector<sensor_sim::streams::Config> converted;
    for (const ImageStreamConfig& c : configs) {
        converted.push_back({c.name, c.field1, c.field2, c.field3, c.frameTimeout, c.field5});
    }
    std::optional<int> forced;
    if (auto s = sensor_sim::core::enter("regConsumerStream")) forced = static_cast<int>(*s);
    return m_impl->vehicle().regConsumerStream(streamId, converted, hasCallback, forced);
}

int ImageStreamMaster::initConsumerDone() {
    sensor_sim::core::record("initConsumerDone", Args());
    if (auto s = sensor_sim::core::enter("initConsumerDone")) return static_cast<int>(*s);
    return m_impl->vehicle().initConsumerDone();
}

int ImageStreamMaster::getStreamState() const {
    sensor_sim::core::record("getStreamState", Args());
    if (auto s = sensor_sim::core::enter("getStreamState")) return static_cast<int>(*s);
    return m_impl->vehicle().getStreamState();
}

int ImageStreamMaster::deinitStream() {
    sensor_sim::core::record("deinitStream", Args());
    if (auto s = sensor_sim::core::enter("deinitStream")) return static_cast<int>(*s);
    return m_impl->vehicle().deinitStream();
}

int ImageStreamMaster::getFrame(unsigned int streamId, OutputType output, ImageInfo* info) {
    sensor_sim::core::record("getFrame", Args().add(streamId).add(static_cast<uint32_t>(output)));
    if (auto s = sensor_sim::core::enter("getFrame")) return static_cast<int>(*s);
    if (info == nullptr) return sensor_sim::streams::kBadArgument;
    sensor_sim::streams::FrameSpec frame;
    const int result = m_impl->vehicle().getFrame(streamId, static_cast<uint32_t>(output), &frame);
    if (result != 0) return result;
    *info = ImageInfo{};
    info->sensorId =
        static_cast<uint16_t>(frame.sensorId >= 0 ? static_cast<uint32_t>(frame.sensorId) : streamId);
    info->objIndex = frame.objIndex;
    info->wordA = frame.words[0];
    info->wordB = frame.words[1];
    info->wordC = frame.words[2];
    info->wordD = frame.words[3];
    info->wordE = frame.words[4];
    info->wordF = frame.words[5];
    info->wordG = frame.words[6];
    info->wordH = frame.words[7];
    info->wordI = frame.words[8];
    info->frameCnt = frame.counter;
    info->bufObj = reinterpret_cast<NvSciBufObj>(frame.buffer.get());
    info->trailing = frame.trailing;
    return 0;
}

int ImageStreamMaster::releaseFrame(unsigned int streamId, OutputType output, ImageInfo* info) {
    Args args;
    args.add(streamId).add(static_cast<uint32_t>(output));
    if (info != nullptr) {
        args.add(info->objIndex).add(info->frameCnt);
    } else {
        args.addPtr(info);
    }
    sensor_sim::core::record("releaseFrame", args);
    if (auto s = sensor_sim::core::enter("releaseFrame")) return static_cast<int>(*s);
    if (info == nullptr) return sensor_sim::streams::kBadArgument;
    return m_impl->vehicle().releaseFrame(streamId, static_cast<uint32_t>(output), info->objIndex,
                                          info->frameCnt);
}

}  // namespace imgstream
}  // namespace vexa
