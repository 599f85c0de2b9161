// The client object: one per application type in the process, kept in a registry that the facades
// consult on every call. It owns the stream consumer, the raw-frame queues and the CPU copy buffers.
#ifndef SENSOR_IPCCLIENT_IMPL_H
#define SENSOR_IPCCLIENT_IMPL_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "image_stream_master.h"
#include "vexa_log.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace sensor_access {

using cameraipcclient::AppType;
using cameraipcclient::BufFrameObj;
using cameraipcclient::CameraFrameRoiStatsData;
using cameraipcclient::FrameBufObj;
using cameraipcclient::GroupId;
using cameraipcclient::InnerParaState;
using cameraipcclient::SensorInfo;
using cameraipcclient::SensorName;
using cameraipcclient::SensorType;
using cameraipcclient::SensorTypeInfo;

constexpr uint32_t kSensorIdCount = 22;  // sensor types 0 to 21
constexpr uint32_t kObjIndexCount = 9;   // buffers per stream output

class SensorIpcClientImpl {
public:
    // The object of appType, created on first use; never null.
    static SensorIpcClientImpl* getInstance(AppType appType);

    explicit SensorIpcClientImpl(AppType appType);
    ~SensorIpcClientImpl();
    SensorIpcClientImpl(const SensorIpcClientImpl&) = delete;
    SensorIpcClientImpl& operator=(const SensorIpcClientImpl&) = delete;

    // Initialisation of the sensor-type API (radar and lidar streams) and of the sensor-name API
    // (camera streams, optionally with the raw streams of cameras 2 and 3).
    int32_t init(unsigned int& sensorMask, unsigned int frameTimeout, std::shared_ptr<vexalog::Logger> logger);
    int32_t init(unsigned int& sensorMask, bool rawEnable);
    // Blocks until the stream library reports the connection made or failed, or deInit ends the wait.
    int32_t start();
    void stop();
    void deInit();

    // Frames of the sensor-type API.
    int32_t getFrame(SensorType const& type, FrameBufObj& frame);
    int32_t getRawFrame(SensorType const& type, FrameBufObj& frame);
    int32_t releaseFrame(FrameBufObj const& frame);
    // Frames of the sensor-name API, with the raw frame of the same counter for cameras 2 and 3.
    int32_t getFrame(SensorName const& name, BufFrameObj* obj);
    int32_t releaseFrame(BufFrameObj const* obj, bool withRaw);
    int32_t getRawFrame(SensorName const& name, BufFrameObj* obj);
    int32_t releaseRawFrame(BufFrameObj const* obj);

    // CPU copy of a frame into the object's buffer of its sensor and buffer index.
    int32_t nvBufObjToCpuBuffer(FrameBufObj& frame);

    // Image dumps into the working directory.
    int32_t writeImageToFile(FrameBufObj const& frame);
    int32_t writeImageToFile(BufFrameObj const* frame);
    int32_t writeRawImageToFile(FrameBufObj const& frame);
    int32_t writeRawImageToFile(BufFrameObj const* frame);

    // Brightness and ROI statistics of a held frame.
    int32_t getFrameRoiStatsData(FrameBufObj const& frame, CameraFrameRoiStatsData* stats);
    int32_t getFrameRoiStatsData(BufFrameObj const* frame, CameraFrameRoiStatsData* stats);

    // Sensor discovery, information and status.
    int32_t getSensorStatus(unsigned int& linkMask, unsigned int& videoMask,
                            std::map<SensorType, unsigned char>& status);
    int32_t getSensorInfo(SensorType const& type, SensorInfo& info);
    int32_t getSensorInfo(std::vector<SensorInfo>& list);
    int32_t getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list);

    // Register and I2C access.
    int32_t readSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char& value);
    int32_t writeSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char value,
                                unsigned char extra);
    int32_t readSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short& value);
    int32_t writeSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short value,
                                 unsigned char extra);
    int32_t readSensorI2C(SensorType const& type, unsigned short addr, unsigned char* data, unsigned short& len);
    int32_t writeSensorI2C(SensorType const& type, unsigned short addr, unsigned char const* data,
                           unsigned short len, unsigned char extra);

    // Frame sync and radar/lidar diagnostics.
    int32_t setFsyncDeltaMs(GroupId group, unsigned long deltaMs);
    int32_t getSensorFsyncStartTime(unsigned long& time);
    int32_t getRadarInnerParaState(InnerParaState& state);
    int32_t getLidarInnerParaState(InnerParaState& state);
    int32_t getRadarLev2FaultInfo(unsigned short a, unsigned short b, std::vector<unsigned short>& faults,
                                  unsigned long& time);

    // A raw frame taken from the capture output and kept until the processed frame of its counter asks.
    struct RawBufTempInfo {
        uint64_t frameCnt;
        uint32_t objIndex;
        NvSciBufObj bufObj;
    };

    // Registry.
    static std::unordered_map<AppType, std::unique_ptr<SensorIpcClientImpl>> m_instanceMap;
    static std::mutex m_instanceMutex;
    static std::atomic<bool> m_isinitLog;
    // The objects of application types below this, once created, for look-ups without the mutex.
    static constexpr uint32_t kPublishedAppTypes = 16;
    static std::atomic<SensorIpcClientImpl*> m_published[kPublishedAppTypes];

private:
    // The creation of the library's own logger, with the calling init's first message.
    static std::shared_ptr<vexalog::Logger> createOwnLogger(const std::string& name, const char* initLoggingFailed);
    int32_t getFrameRoiStatsData(uint32_t sensorId, uint32_t frameCnt, CameraFrameRoiStatsData* stats);
    // Writes one buffer into its dump file; the writer's result (0 on success).
    int dumpBuffer(const NvSciBufObj& bufObj, uint32_t sensorId, uint32_t frameCnt, bool withAppName,
                   const char* extension, bool freeAfterSuccess);

    // Members in this order: destruction runs from the raw queues back to the application name.
    std::atomic<bool> m_isInit{false};
    AppType m_appType;
    std::string m_appName{"null"};
    std::unique_ptr<imgstream::ImageStreamMaster> m_streamMaster;
    std::shared_ptr<void> m_sharedRef;
    std::vector<uint8_t> m_cpuBuffers[kSensorIdCount][kObjIndexCount];
    bool m_rawEnable = false;
    std::unordered_map<uint32_t, std::queue<RawBufTempInfo>> m_rawQueMap;
};

}  // namespace sensor_access
}  // namespace vexa

#endif  // SENSOR_IPCCLIENT_IMPL_H
