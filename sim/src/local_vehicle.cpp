// The in-process vehicle: the simulator's stream, camera-access and statistics models of this process
// behind the vehicle interface, and the choice of the vehicle that serves the substitutes.
#include <map>

#include "sensor_sim/internal/camera_internal.h"
#include "sensor_sim/internal/served_vehicle.h"
#include "sensor_sim/internal/stats_internal.h"
#include "sensor_sim/internal/streams_internal.h"
#include "sensor_sim/internal/vehicle.h"

namespace sensor_sim {
namespace vehicle {

namespace model = streams::internal;
namespace cam = camera::internal;

LocalConsumer::LocalConsumer() : m_id(model::createConsumer()) {}
LocalConsumer::~LocalConsumer() {
    model::destroyConsumer(m_id);
}
int LocalConsumer::initConsumer(const std::string& app, const std::string& channel, unsigned short param) {
    return model::initConsumer(m_id, app, channel, param);
}
int LocalConsumer::regConsumerStream(uint32_t streamId, const std::vector<streams::Config>& configs,
                                     bool hasCallback, std::optional<int> forced) {
    return model::regConsumerStream(m_id, streamId, configs, hasCallback, forced);
}
int LocalConsumer::initConsumerDone() {
    return model::initConsumerDone(m_id);
}
int LocalConsumer::getStreamState() {
    return model::getStreamState(m_id);
}
int LocalConsumer::deinitStream() {
    return model::deinitStream(m_id);
}
int LocalConsumer::getFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame) {
    return model::getFrame(m_id, streamId, output, frame);
}
int LocalConsumer::releaseFrame(uint32_t streamId, uint32_t output, uint16_t objIndex, uint64_t counter) {
    return model::releaseFrame(m_id, streamId, output, objIndex, counter);
}
int LocalConsumer::takeFrame(uint32_t streamId, uint32_t output, streams::FrameSpec* frame,
                             std::chrono::milliseconds* wait) {
    return model::takeFrame(m_id, streamId, output, frame, wait);
}
size_t LocalConsumer::waitingFrames(uint32_t streamId, uint32_t output) const {
    return model::waitingFrames(m_id, streamId, output);
}

namespace {

class LocalVehicle : public Vehicle {
public:
    std::unique_ptr<Consumer> createConsumer() override { return std::make_unique<LocalConsumer>(); }

    msg::SensorMask ask(const msg::DetectAllSensors&) override { return {cam::detectAllSensors()}; }
    msg::LinkAndVideoAnswer ask(const msg::DetectLinkAndVideo&) override {
        msg::LinkAndVideoAnswer a;
        std::map<unsigned int, unsigned char> states;
        a.status = cam::detectLinkAndVideoMask(a.linkMask, a.videoMask, states);
        for (const auto& [sensor, state] : states)
            a.states.push_back({static_cast<uint8_t>(sensor), static_cast<uint8_t>(state)});
        return a;
    }
    msg::SensorInfoAnswer ask(const msg::GetSensorInfo& c) override {
        msg::SensorInfoAnswer a;
        a.status = cam::sensorInfo(c.id, a.info);
        return a;
    }
    msg::VersionsAnswer ask(const msg::GetSensorVersions& c) override {
        msg::VersionsAnswer a;
        a.status = cam::sensorVersions(c.id, a.first, a.second);
        return a;
    }
    msg::SensorTypeAnswer ask(const msg::GetSensorType& c) override {
        msg::SensorTypeAnswer a;
        a.status = cam::sensorType(c.id, a.present, a.typeCode);
        return a;
    }
    msg::Reg8Answer ask(const msg::ReadReg8& c) override {
        msg::Reg8Answer a;
        a.status = cam::readReg8(c.id, c.reg, a.value);
        return a;
    }
    msg::CameraStatus ask(const msg::WriteReg8& c) override { return {cam::writeReg8(c.id, c.reg, c.value)}; }
    msg::Reg16Answer ask(const msg::ReadReg16& c) override {
        msg::Reg16Answer a;
        a.status = cam::readReg16(c.id, c.reg, a.value);
        return a;
    }
    msg::CameraStatus ask(const msg::WriteReg16& c) override { return {cam::writeReg16(c.id, c.reg, c.value)}; }
    msg::I2cAnswer ask(const msg::ReadI2c& c) override {
        msg::I2cAnswer a;
        uint16_t len = c.len;
        a.status = cam::readI2c(c.id, c.addr, a.bytes, len);
        if (a.status != cam::kStatusOk) a.bytes.clear();
        return a;
    }
    msg::CameraStatus ask(const msg::WriteI2c& c) override { return {cam::writeI2c(c.id, c.addr, c.bytes, c.len)}; }
    msg::CameraStatus ask(const msg::SetFsyncDelta& c) override { return {cam::setFsyncDelta(c.group, c.deltaMs)}; }
    msg::FsyncTime ask(const msg::GetFsyncFirstTime&) override { return {cam::fsyncFirstTime()}; }
    msg::InnerState ask(const msg::GetRadarInnerState&) override {
        msg::InnerState a;
        a.status = cam::radarInnerState(a.state);
        return a;
    }
    msg::InnerState ask(const msg::GetLidarInnerState&) override {
        msg::InnerState a;
        a.status = cam::lidarInnerState(a.state);
        return a;
    }
    msg::Lev2FaultsAnswer ask(const msg::GetLev2Faults&) override {
        msg::Lev2FaultsAnswer a;
        a.result = cam::lev2Faults(a.faults, a.time);
        return a;
    }
    msg::StatsAnswer ask(const msg::GetStats& c) override {
        msg::StatsAnswer a;
        stats::FrameStats found;
        if (!stats::internal::lookup(c.sensorId, c.frameId, &found)) return a;
        a.found = true;
        a.brightness = found.brightness;
        a.descriptors = found.descriptors;
        a.data = std::move(found.data);
        return a;
    }
};

}  // namespace

Vehicle& inProcess() {
    static LocalVehicle* local = new LocalVehicle;  // never destroyed: substitutes may call during exit
    return *local;
}

Vehicle& current() {
    Vehicle* served = remote::attachedVehicle();
    return served != nullptr ? *served : inProcess();
}

}  // namespace vehicle
}  // namespace sensor_sim
