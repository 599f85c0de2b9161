// The client object: registry, lifecycle, frames, buffers and sensor control.
#include "sensor_ipcclient_impl.h"

#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

#include "app_tables.h"
#include "buffer_attrs.h"
#include "camera_access_interface.h"
#include "camera_shared_mem.h"
#include "clogger.h"
#include "write_to_file.h"

// Records of the client object's lifecycle and frame operations carry the application name first.
#define SIPC_APP_LOG(level, ...) SIPC_LOG(level, "[", m_appName, "]", __VA_ARGS__)

namespace vexa {
namespace sensor_access {

using cameraaccess::CameraAccessInterface;
using cameraipcclient::RESULT_ACCESS_FAILED;
using cameraipcclient::RESULT_BAD_PARAM;
using cameraipcclient::RESULT_ERROR;
using cameraipcclient::RESULT_FAILED;
using cameraipcclient::RESULT_NOT_INIT;
using cameraipcclient::RESULT_OK;
using cameraipcclient::RESULT_SERVICE_FAILED;
using cameraipcclient::RESULT_STREAM_CODE_10;
using cameraipcclient::RESULT_STREAM_CODE_9;
using imgstream::ImageInfo;
using imgstream::OutputType;

std::unordered_map<AppType, std::unique_ptr<SensorIpcClientImpl>> SensorIpcClientImpl::m_instanceMap;
std::mutex SensorIpcClientImpl::m_instanceMutex;
std::atomic<bool> SensorIpcClientImpl::m_isinitLog{false};

namespace {

// A camera-access status means success when its low 16 bits are zero; the upper bits are the service's.
bool accessOk(uint32_t status) { return (status & 0xFFFFu) == 0; }

// Settings of a logger the library creates for itself.
constexpr vexalog::LogMode::Mode kOwnLogMode = vexalog::LogMode::kFile;
constexpr vexalog::LogLevel::Level kOwnLogLevel = vexalog::LogLevel::kInfo;
const char* const kOwnLogDir = "/oslog/vexa/file/nvstream";
const char* const kOwnLogFormat = "%M{%Y/%m/%d %H:%M:%S.} %d{%Y/%m/%d %H:%M:%S.} %c %f %L %l [%m]%n";

// Stream library answers that the frame operations translate.
constexpr int kStreamCode9 = 9;
constexpr int kStreamCode10 = 10;
constexpr int kStreamConnected = 1;
constexpr int kStreamConnectFailed = 2;
constexpr uint32_t kFrameType = 9;
constexpr unsigned short kConsumerParam = 4;
constexpr uint32_t kRawTries = 9;          // raw frames fetched at most per pairing
constexpr uint32_t kFollowerTries = 6;     // raw frames fetched at most by the sensor-type API
constexpr size_t kRawQueueGuard = 3;       // a raw queue longer than this drops its oldest entry
constexpr int64_t kSlowCopyUs = 50000;

// Sensor ids 0 to 7 deliver their processed frame on the ISP output, every other one on the capture output.
OutputType processedOutput(uint32_t sensorId) {
    return sensorId <= 7 ? imgstream::OUTPUT_TYPE_ISP : imgstream::OUTPUT_TYPE_ICP;
}

// Wall-clock milliseconds from the time of day.
uint64_t wallClockMs() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_usec) / 1000u;
}

bool hasRawStream(uint32_t sensorId) {
    return g_cameraRawStreamNameMap.count(static_cast<SensorType>(sensorId)) != 0;
}

// The registration row of an application; a missing one is reported on standard output (no logger
// exists yet) and gives null.
const AppRegInfo* findRegistration(AppType appType) {
    auto row = g_appRegInfoMap.find(appType);
    if (row != g_appRegInfoMap.end()) return &row->second;
    std::cout << "SensorIpcClientImpl init param error, appType: " << static_cast<uint32_t>(appType) << "."
              << std::endl;
    return nullptr;
}

// The detected mask with each bit of the streams' sensors kept only where the caller wants it; the
// other bits stay as the service reported them.
uint32_t narrowToWanted(uint32_t detected, uint32_t wanted, const std::map<SensorType, std::string>& streams) {
    for (const auto& stream : streams) {
        const uint32_t bit = 1u << (static_cast<uint32_t>(stream.first) % 32);
        if ((wanted & bit) == 0 || (detected & bit) == 0) detected &= ~bit;
    }
    return detected;
}

// The file name of a dump: prefix, sensor id, frame counter and size, in the working directory.
std::string dumpFileName(const std::string& prefix, uint32_t sensorId, uint32_t frameCnt, const BufferAttrs& attrs,
                         const char* extension) {
    return prefix + std::to_string(sensorId) + "_" + std::to_string(frameCnt) + "_" +
           std::to_string(attrs.planeWidths[0]) + "_X_" + std::to_string(attrs.planeHeights[0]) + extension;
}

// The writer of a dump. Processed-image dumps never free it and raw-image dumps free it only after a
// successful write; that is deliberate and kept. This function is the one allocation that the leak
// sanitizer is told to accept (tests/lsan.supp), so no other leak can hide behind it.
__attribute__((noinline)) WriteToFile* newRetainedWriter(const std::string& fileName) {
    return new WriteToFile(fileName);
}

}  // namespace

// Objects of the registered application types, published once created. Every facade call looks its
// object up, on every frame; objects are never removed while the process runs, so a published pointer
// stays valid and the frame path needs neither the registry's mutex nor its hash. Creation, and every
// other application type, go through the map under the mutex.
std::atomic<SensorIpcClientImpl*> SensorIpcClientImpl::m_published[kPublishedAppTypes];

SensorIpcClientImpl* SensorIpcClientImpl::getInstance(AppType appType) {
    const bool publishable = static_cast<uint32_t>(appType) < kPublishedAppTypes;
    if (publishable) {
        SensorIpcClientImpl* known = m_published[appType].load(std::memory_order_acquire);
        if (known != nullptr) return known;
    }
    std::lock_guard<std::mutex> lock(m_instanceMutex);
    auto it = m_instanceMap.find(appType);
    if (it == m_instanceMap.end()) {
        it = m_instanceMap.emplace(appType, std::make_unique<SensorIpcClientImpl>(appType)).first;
    }
    if (publishable) m_published[appType].store(it->second.get(), std::memory_order_release);
    return it->second.get();
}

SensorIpcClientImpl::SensorIpcClientImpl(AppType appType) : m_appType(appType) {
    m_rawQueMap.max_load_factor(1.0f);
}

SensorIpcClientImpl::~SensorIpcClientImpl() = default;

// ---------------------------------------------------------------------------------------------------
// Initialisation, start, stop and de-initialisation

std::shared_ptr<vexalog::Logger> SensorIpcClientImpl::createOwnLogger(const std::string& name,
                                                                      const char* initLoggingFailed) {
    const std::string context = "con." + name;
    const vexalog::AppFileInfo fileInfo{10, 5, 0};
    int result = vexalog::initLogging(name, context, kOwnLogMode, kOwnLogLevel, kOwnLogDir, fileInfo);
    if (result != 0) {
        std::cout << initLoggingFailed << name << ", logMode = " << "2" << ", logLevel = " << "4"
                  << ", result = " << result << "." << std::endl;
    }
    const vexalog::CtxFileInfo ctxInfo{0, kOwnLogFormat};
    std::shared_ptr<vexalog::Logger> logger = vexalog::createLogger(name, context, kOwnLogLevel, ctxInfo);
    if (!logger) {
        std::cout << "initLogService : exec CreateLogger failed, module is '" << name << "'.";
    }
    return logger;
}

int32_t SensorIpcClientImpl::init(unsigned int& sensorMask, unsigned int frameTimeout,
                                  std::shared_ptr<vexalog::Logger> logger) {
    const AppRegInfo* row = findRegistration(m_appType);
    if (row == nullptr) return RESULT_BAD_PARAM;
    const AppRegInfo& reg = *row;
    uint32_t mask = CameraAccessInterface::getInstance().detectAllSensors();
    if (mask == cameraaccess::kDetectFailed) return RESULT_SERVICE_FAILED;
    // Only the radar and lidar bits follow the caller's wish: camera bits come back as detected.
    mask = narrowToWanted(mask, sensorMask, g_sensorStreamNameMap);

    if (!logger) logger = createOwnLogger(reg.name, "Init log service : exec InitLogging failed, app = ");
    Clogger::GetInstance().initIrdLogger(logger);

    m_streamMaster.reset();
    m_streamMaster = std::make_unique<imgstream::ImageStreamMaster>();
    if (!m_streamMaster) SIPC_LOG(kLogError, "m_streamMaster is null.", reg.name, "'.");

    int status = m_streamMaster->initConsumer(reg.name, reg.channel, logger, kConsumerParam);
    if (status != 0) {
        SIPC_LOG(kLogError, "IRD: imagestream master init failed, status: ", status);
        return RESULT_ERROR;
    }
    sensorMask = mask;
    SIPC_LOG(kLogInfo, "---detectAllSensors: ", detail::hex(sensorMask), ", frameTimeout: ", frameTimeout);

    for (const auto& stream : g_sensorStreamNameMap) {
        const uint32_t id = stream.first;
        const uint32_t bit = 1u << (id % 32);
        if ((sensorMask & bit) == 0) continue;
        std::vector<imgstream::ImageStreamConfig> configs{{stream.second, 0, 2, 16, frameTimeout, 0}};
        int result = m_streamMaster->regConsumerStream(id, configs, nullptr);
        if (result != 0) {
            SIPC_LOG(kLogError, "InitSystem sensorId=", id, " regSource image stream resource failed, result = ",
                     result);
            sensorMask &= ~bit;
        }
    }
    m_isInit.store(true, std::memory_order_release);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::init(unsigned int& sensorMask, bool rawEnable) {
    const AppRegInfo* row = findRegistration(m_appType);
    if (row == nullptr) return RESULT_BAD_PARAM;
    const AppRegInfo& reg = *row;
    uint32_t mask = CameraAccessInterface::getInstance().detectAllSensors();
    if (mask == cameraaccess::kDetectFailed) return RESULT_SERVICE_FAILED;
    // Only the camera bits follow the caller's wish: bits 12 and up come back as detected.
    mask = narrowToWanted(mask, sensorMask, g_cameraIspStreamNameMap);

    m_appName = reg.name;
    // This API creates the library's logger once per process.
    if (!m_isinitLog.load(std::memory_order_acquire)) {
        m_isinitLog.store(true, std::memory_order_release);
        Clogger::GetInstance().initIrdLogger(
            createOwnLogger(reg.name, "initLogService : exec InitLogging failed, app = "));
    }
    m_rawEnable = rawEnable;

    m_streamMaster.reset();
    m_streamMaster = std::make_unique<imgstream::ImageStreamMaster>();
    if (!m_streamMaster) SIPC_APP_LOG(kLogError, "m_streamMaster is null.", reg.name, "'.");

    int status = m_streamMaster->initConsumer(m_appName, reg.channel, Clogger::GetInstance().getIrdlogger(),
                                              kConsumerParam);
    if (status != 0) {
        SIPC_APP_LOG(kLogError, "nvIpcName=", reg.channel, ", streamMaster initConusmer failed status = ", status);
        return RESULT_ERROR;
    }
    // The caller learns the narrowed mask, not which registrations failed afterwards.
    sensorMask = mask;
    SIPC_APP_LOG(kLogInfo, "detectAllSensors=", detail::hex(mask), ", rawEnable=", m_rawEnable ? "true" : "false");

    for (const auto& stream : g_cameraIspStreamNameMap) {
        const uint32_t id = stream.first;
        const uint32_t bit = 1u << (id % 32);
        if ((mask & bit) == 0) continue;
        std::vector<imgstream::ImageStreamConfig> configs;
        auto raw = g_cameraRawStreamNameMap.find(stream.first);
        if (m_rawEnable && raw != g_cameraRawStreamNameMap.end()) {
            configs.push_back({raw->second, 0, reg.streamParam, 16, 0, 0});
        }
        configs.push_back({stream.second, id <= 7 ? 1u : 0u, reg.streamParam, 16, 0, 0});
        int result = m_streamMaster->regConsumerStream(id, configs, nullptr);
        if (result != 0) {
            SIPC_APP_LOG(kLogError, "InitSystem sensorId=", id,
                         " regSource image stream resource failed, result = ", result);
            mask &= ~bit;
        }
    }
    m_isInit.store(true, std::memory_order_release);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::start() {
    if (!m_streamMaster) return RESULT_NOT_INIT;
    SIPC_APP_LOG(kLogInfo, "StartStream Start");
    int result = m_streamMaster->initConsumerDone();
    if (result != 0) {
        SIPC_APP_LOG(kLogError, "Start failed.", static_cast<unsigned int>(result));
        return RESULT_ERROR;
    }
    // No retry count: the wait ends on a decided state or when deInit clears the flag.
    while (m_isInit.load(std::memory_order_acquire)) {
        int state = m_streamMaster->getStreamState();
        if (state == kStreamConnectFailed) {
            SIPC_APP_LOG(kLogError, "ImageStreamMaster connect failed.");
            return RESULT_ERROR;
        }
        if (state == kStreamConnected) {
            SIPC_APP_LOG(kLogInfo, "ImageStreamMaster connect success.");
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
    SIPC_APP_LOG(kLogInfo, "StartStream Success");
    return RESULT_OK;
}

void SensorIpcClientImpl::stop() { SIPC_APP_LOG(kLogInfo, "stop stream Success"); }

void SensorIpcClientImpl::deInit() {
    if (!m_streamMaster) return;
    m_isInit.store(false, std::memory_order_release);
    m_streamMaster->deinitStream();
    SIPC_APP_LOG(kLogInfo, "deInit stream Success");
}

// ---------------------------------------------------------------------------------------------------
// Frames of the sensor-type API

int32_t SensorIpcClientImpl::getFrame(SensorType const& type, FrameBufObj& frame) {
    if (!m_streamMaster) return RESULT_NOT_INIT;
    ImageInfo info{};
    info.trailing = 0;
    int result = m_streamMaster->getFrame(type, processedOutput(type), &info);
    if (result != 0) {
        if (result == kStreamCode9) return RESULT_STREAM_CODE_9;
        if (result == kStreamCode10) return RESULT_STREAM_CODE_10;
        return RESULT_ERROR;
    }
    frame.sensorId = info.sensorId;
    frame.frameType = kFrameType;
    frame.objIndex = info.objIndex;
    frame.frameCnt = static_cast<uint32_t>(info.frameCnt);
    frame.timestampMs = wallClockMs();
    frame.infoA = info.wordA;
    frame.infoB = info.wordB;
    frame.infoC = info.wordC;
    frame.infoI = static_cast<uint32_t>(info.wordI);
    frame.bufObj = info.bufObj;
    frame.infoTail = info.trailing;
    if (m_rawEnable) return getRawFrame(type, frame);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getRawFrame(SensorType const& type, FrameBufObj& frame) {
    // The two raw cameras are paired only through the sensor-name API.
    if (type == cameraipcclient::CAM_WIDE || type == cameraipcclient::CAM_NARROW) return RESULT_OK;
    if (!m_streamMaster) return RESULT_NOT_INIT;
    ImageInfo info{};
    info.trailing = 0;
    uint32_t tries = kFollowerTries;
    if (m_streamMaster->getFrame(type, imgstream::OUTPUT_TYPE_ICP, &info) != 0) return RESULT_FAILED;
    for (;;) {
        if (info.frameCnt == static_cast<uint64_t>(frame.frameCnt)) return RESULT_OK;  // stays held
        if (info.frameCnt < frame.frameCnt) {
            m_streamMaster->releaseFrame(frame.sensorId, imgstream::OUTPUT_TYPE_ICP, &info);
        }
        if (--tries == 0) break;
        if (m_streamMaster->getFrame(type, imgstream::OUTPUT_TYPE_ICP, &info) != 0) return RESULT_FAILED;
    }
    SIPC_LOG(kLogError, "****: GetFrame rawCout: ", static_cast<unsigned long>(info.frameCnt),
             ", rawObjId: ", frame.rawObjIndex, ", yuvCount: ", frame.frameCnt, ", yuvObjId: ", frame.objIndex);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::releaseFrame(FrameBufObj const& frame) {
    if (!m_streamMaster) return RESULT_NOT_INIT;
    ImageInfo info{};
    info.objIndex = static_cast<uint16_t>(frame.objIndex);
    info.frameCnt = frame.frameCnt;
    info.trailing = 0;
    if (m_streamMaster->releaseFrame(frame.sensorId, processedOutput(frame.sensorId), &info) != 0) {
        SIPC_APP_LOG(kLogError, "ReleaseFrame failed sensorId=", frame.sensorId, ", objIndex: ", frame.objIndex,
                     ", frameIndex: ", frame.frameCnt);
        return RESULT_ACCESS_FAILED;
    }
    SIPC_APP_LOG(kLogDebug, "ReleaseFrame sensorId=", frame.sensorId, " frame_index: ", frame.frameCnt,
                 " obj_index: ", frame.objIndex, " Success!");
    return RESULT_OK;
}

// ---------------------------------------------------------------------------------------------------
// Frames of the sensor-name API and the raw pairing

int32_t SensorIpcClientImpl::getFrame(SensorName const& name, BufFrameObj* obj) {
    if (!m_streamMaster) return RESULT_NOT_INIT;
    const uint32_t id = name;
    if (obj == nullptr) {
        SIPC_APP_LOG(kLogError, "****: GetFrame Param Error : ", id, "frameobj == nullptr");
        return RESULT_BAD_PARAM;
    }
    ImageInfo info{};
    info.trailing = 0;
    int result = m_streamMaster->getFrame(id, processedOutput(id), &info);
    if (result != 0) return result == kStreamCode9 ? RESULT_STREAM_CODE_9 : RESULT_ERROR;

    obj->sensorId = info.sensorId;
    obj->frameType = kFrameType;
    obj->objIndex = info.objIndex;
    obj->frameCnt = static_cast<uint32_t>(info.frameCnt);
    obj->timestampMs = wallClockMs();
    obj->bufObj = info.bufObj;
    obj->infoA = info.wordA;
    obj->infoB = info.wordB;
    obj->infoD = info.wordD;
    obj->infoE = info.wordE;
    obj->infoF = info.wordF;
    obj->infoG = info.wordG;
    obj->infoH = info.wordH;
    if (!m_rawEnable) return RESULT_OK;

    int32_t paired = getRawFrame(name, obj);
    if (paired == RESULT_OK) return RESULT_OK;
    // A frame without its raw frame never reaches the caller.
    if (releaseFrame(obj, false) != RESULT_OK) {
        SIPC_APP_LOG(kLogError, "sensorId=", id, ", release yuvFrame failed ret=", 0);
    }
    return paired;
}

int32_t SensorIpcClientImpl::releaseFrame(BufFrameObj const* obj, bool withRaw) {
    if (!m_streamMaster) return RESULT_NOT_INIT;
    if (obj == nullptr) {
        SIPC_APP_LOG(kLogError, "ReleaseFrame Param Error");
        return RESULT_BAD_PARAM;
    }
    if (withRaw && m_rawEnable) {
        int32_t result = releaseRawFrame(obj);
        if (result != RESULT_OK) {
            SIPC_APP_LOG(kLogError, "sensorId=", obj->sensorId, ", releaseRawFrame failed ret=", result);
        }
    }
    ImageInfo info{};
    info.objIndex = static_cast<uint16_t>(obj->objIndex);
    info.frameCnt = obj->frameCnt;
    info.trailing = 0;
    const OutputType output = processedOutput(obj->sensorId);
    int result = m_streamMaster->releaseFrame(obj->sensorId, output, &info);
    if (result != 0) {
        SIPC_APP_LOG(kLogError, "sensorId=", obj->sensorId, ", outPutType=", static_cast<unsigned int>(output),
                     ", releaseFrame failed ret=", result);
        return RESULT_ACCESS_FAILED;
    }
    SIPC_APP_LOG(kLogDebug, "ReleaseFrame sensorId=", obj->sensorId, " frame_index: ", obj->frameCnt,
                 " obj_index: ", obj->objIndex, " Success!");
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getRawFrame(SensorName const& name, BufFrameObj* obj) {
    const uint32_t id = name;
    if (!hasRawStream(id)) return RESULT_OK;
    if (obj == nullptr) {
        SIPC_APP_LOG(kLogError, "sensorId=", id, ", getRawFrame failed due to param nullptr");
        return RESULT_BAD_PARAM;
    }
    if (!m_streamMaster) return RESULT_NOT_INIT;
    const uint64_t yuvCnt = obj->frameCnt;
    std::queue<RawBufTempInfo>& queue = m_rawQueMap[id];

    // Serve from the raw frames that arrived early; return those that are stale.
    while (!queue.empty()) {
        const RawBufTempInfo front = queue.front();
        if (front.frameCnt == yuvCnt) {
            obj->rawObjIndex = front.objIndex;
            obj->rawBufObj = front.bufObj;
            queue.pop();
            return RESULT_OK;
        }
        if (front.frameCnt > yuvCnt) {
            SIPC_APP_LOG(kLogError, "sensorId=", id, ", curYuvCnt=", static_cast<unsigned long>(yuvCnt),
                         ", minRawCnt=", static_cast<unsigned long>(front.frameCnt),
                         ", yuvCnt is smaller not to get raw, rawQueSize=", static_cast<unsigned long>(queue.size()));
            return RESULT_FAILED;
        }
        SIPC_APP_LOG(kLogWarn, "sensorId=", id, ", curYuvCnt=", static_cast<unsigned long>(yuvCnt),
                     ", rawQueFrontCnt=", static_cast<unsigned long>(front.frameCnt),
                     ", rawQueSize=", static_cast<unsigned long>(queue.size()), ", rawQuePop and releaseRaw");
        queue.pop();
        ImageInfo stale{};
        stale.objIndex = static_cast<uint16_t>(front.objIndex);
        stale.frameCnt = front.frameCnt;
        stale.trailing = 0;
        int result = m_streamMaster->releaseFrame(id, imgstream::OUTPUT_TYPE_ICP, &stale);
        if (result != 0) {
            SIPC_APP_LOG(kLogError, "sensorId=", id, ", yuv/raw frameCnt diff, yuvCnt=",
                         static_cast<unsigned long>(yuvCnt), ", rawCnt=", static_cast<unsigned long>(front.frameCnt),
                         ", releaseRaw failed ret=", result);
        }
    }

    // Fetch raw frames until one matches (paired) or is newer (queued for a later processed frame).
    for (uint32_t tryCnt = 0;;) {
        ImageInfo info{};
        info.trailing = 0;
        int result = m_streamMaster->getFrame(id, imgstream::OUTPUT_TYPE_ICP, &info);
        if (result != 0) {
            SIPC_APP_LOG(kLogError, "sensorId=", id, ", outPutType=ICP", ", getFrame failed ret=", result,
                         ", tryCnt=", tryCnt);
            return RESULT_FAILED;
        }
        const uint64_t rawCnt = info.frameCnt;
        if (rawCnt == yuvCnt) {
            obj->rawObjIndex = info.objIndex;
            obj->rawBufObj = info.bufObj;
            return RESULT_OK;
        }
        if (rawCnt > yuvCnt) {
            if (queue.size() > kRawQueueGuard) {
                const RawBufTempInfo oldest = queue.front();
                queue.pop();
                ImageInfo drop{};
                drop.objIndex = static_cast<uint16_t>(oldest.objIndex);
                drop.frameCnt = oldest.frameCnt;
                drop.trailing = 0;
                int dropped = m_streamMaster->releaseFrame(id, imgstream::OUTPUT_TYPE_ICP, &drop);
                if (dropped != 0) SIPC_APP_LOG(kLogError, "sensorId=", id, ", releaseFrame failed ret=", dropped);
            }
            queue.push(RawBufTempInfo{rawCnt, info.objIndex, info.bufObj});
            SIPC_APP_LOG(kLogWarn, "sensorId=", id, ", GetFrame diff rawCnt=", static_cast<unsigned long>(rawCnt),
                         ", Id=", obj->rawObjIndex, ", yuvCnt=", static_cast<unsigned long>(yuvCnt),
                         ", Id=", obj->objIndex, ", rawCnt is larger to enqueue, rawQueSize=",
                         static_cast<unsigned long>(queue.size()));
            return RESULT_FAILED;
        }
        m_streamMaster->releaseFrame(obj->sensorId, imgstream::OUTPUT_TYPE_ICP, &info);
        SIPC_APP_LOG(kLogWarn, "sensorId=", id, ", rawCnt=", static_cast<unsigned long>(rawCnt),
                     ", Id=", obj->rawObjIndex, ", yuvCnt=", static_cast<unsigned long>(yuvCnt),
                     ", Id=", obj->objIndex, ", rawCnt is smaller to releaseRaw");
        if (++tryCnt == kRawTries) {
            SIPC_APP_LOG(kLogWarn, "sensorId=", id, "GetRawFrame failed rawCnt=", static_cast<unsigned long>(rawCnt),
                         ", Id=", obj->rawObjIndex, ", yuvCnt=", static_cast<unsigned long>(yuvCnt),
                         ", Id=", obj->objIndex);
            return RESULT_FAILED;
        }
    }
}

int32_t SensorIpcClientImpl::releaseRawFrame(BufFrameObj const* obj) {
    if (!m_streamMaster) return RESULT_NOT_INIT;
    if (obj == nullptr) {
        SIPC_APP_LOG(kLogError, "ReleaseFrame Param Error");
        return RESULT_BAD_PARAM;
    }
    if (!hasRawStream(obj->sensorId)) return RESULT_OK;
    ImageInfo info{};
    info.objIndex = static_cast<uint16_t>(obj->rawObjIndex);
    info.frameCnt = obj->frameCnt;  // the counter of a paired raw frame is the processed frame's
    info.trailing = 0;
    int result = m_streamMaster->releaseFrame(obj->sensorId, imgstream::OUTPUT_TYPE_ICP, &info);
    if (result == 0) {
        SIPC_APP_LOG(kLogDebug, "ReleaseRawFrame sensorId=", obj->sensorId, " frame_index: ", obj->frameCnt,
                     " raw_obj_index: ", obj->rawObjIndex, " Success!");
        return RESULT_OK;
    }
    SIPC_APP_LOG(kLogError, "sensorId=", obj->sensorId, ", outPutType=ICP, ReleaseFrame failed ret=", result);
    return RESULT_ACCESS_FAILED;
}

// ---------------------------------------------------------------------------------------------------
// CPU copy

int32_t SensorIpcClientImpl::nvBufObjToCpuBuffer(FrameBufObj& frame) {
    const int64_t start = getSteadyTimeUs();
    // The stream library's ids index the copy buffers: refuse ids outside them rather than step outside.
    if (frame.sensorId >= kSensorIdCount || frame.objIndex >= kObjIndexCount) {
        std::printf("nvBufObjToCpuBuffer: sensorId %u or objIndex %u out of range.\n", frame.sensorId,
                    frame.objIndex);
        return RESULT_FAILED;
    }
    BufferAttrs attrs{};
    if (PopulateBufAttr(frame.bufObj, attrs) != kBufAttrOk) {
        std::printf("nvBufObjToCpuBuffer: PopulateBufAttr failed.\n");
        return RESULT_FAILED;
    }
    const float* widthFactors = nullptr;
    const float* heightFactors = nullptr;
    uint32_t* bytesPerPixel = nullptr;
    uint32_t bppStorage[kMaxPlanes] = {};
    uint32_t surfaceCount = 4294967295u;
    bool packed = false;
    if (GetBuffParams(attrs, &widthFactors, &heightFactors, &bytesPerPixel, &surfaceCount, &packed, bppStorage) !=
        kBufAttrOk) {
        std::printf("nvBufObjToCpuBuffer: GetBuffParams failed.\n");
        return RESULT_FAILED;
    }

    frame.cpuDataSize = 0;
    if (!packed) {
        const float width = static_cast<float>(attrs.planeWidths[0]);
        const float height = static_cast<float>(attrs.planeHeights[0]);
        const uint32_t surfaces = std::min(surfaceCount, kMaxPlanes);
        uint32_t sizes[kMaxPlanes] = {};
        uint32_t pitches[kMaxPlanes] = {};
        void* pointers[kMaxPlanes] = {};
        uint32_t total = 0;
        // Every surface is plane 0's size scaled by the layout's factors.
        for (uint32_t i = 0; i < surfaces; ++i) {
            const float lineWidth = width * widthFactors[i];
            sizes[i] = static_cast<uint32_t>(lineWidth * height * heightFactors[i] * static_cast<float>(bytesPerPixel[i]));
            pitches[i] = bytesPerPixel[i] * static_cast<uint32_t>(lineWidth);
            total += sizes[i];
        }

        std::vector<uint8_t>& buffer = m_cpuBuffers[frame.sensorId][frame.objIndex];
        if (buffer.size() < total) {
            buffer.resize(static_cast<size_t>(total) + 5, 0);
            std::cout << "sensorId: " << frame.sensorId << ", objIndex: " << frame.objIndex
                      << ", nvBufObjToCpuBuffer alloc imageData, imageSize: " << total << std::endl;
        }
        uint8_t* base = buffer.data();
        if (surfaces > 0) pointers[0] = base;
        if (surfaces > 1) {
            pointers[1] = static_cast<uint8_t*>(pointers[0]) +
                          static_cast<size_t>(static_cast<float>(pitches[0]) * (height * heightFactors[0]));
        }
        if (surfaces > 2) {
            pointers[2] = static_cast<uint8_t*>(pointers[1]) +
                          static_cast<size_t>(static_cast<float>(pitches[1]) * (height * heightFactors[1]));
        }

        if (attrs.needSwCacheCoherency &&
            NvSciBufObjFlushCpuCacheRange(frame.bufObj, 0,
                                          static_cast<uint64_t>(attrs.planeHeights[0]) * attrs.planePitches[0]) !=
                NvSciError_Success) {
            std::printf("nvBufObjToCpuBuffer: NvSciBufObjFlushCpuCacheRange Failed\n");
            return RESULT_FAILED;
        }
        if (NvSciBufObjGetPixels(frame.bufObj, nullptr, pointers, sizes, pitches) != NvSciError_Success) {
            std::printf("nvBufObjToCpuBuffer: NvSciBufObjGetPixels Failed\n");
            return RESULT_FAILED;
        }
        frame.cpuData = base;
        frame.cpuDataSize = total;
    }

    const int64_t elapsed = getSteadyTimeUs() - start;
    if (elapsed > kSlowCopyUs) {
        SIPC_LOG(kLogWarn, "sensorId ", frame.sensorId, " frameId ", frame.frameCnt, " nvBufObjToCpuBuffer cost ",
                 static_cast<unsigned long>(elapsed / 1000), "ms.");
    }
    return RESULT_OK;
}

// ---------------------------------------------------------------------------------------------------
// Image dumps

int SensorIpcClientImpl::dumpBuffer(const NvSciBufObj& bufObj, uint32_t sensorId, uint32_t frameCnt,
                                    bool withAppName, const char* extension, bool freeAfterSuccess) {
    BufferAttrs attrs{};
    PopulateBufAttr(bufObj, attrs);  // on failure the name shows the zeroed size
    // An application without a registration row has no name to prefix: that throws std::out_of_range.
    const std::string prefix = withAppName ? g_appRegInfoMap.at(m_appType).name + "_client_cam_" : "client_cam_";
    WriteToFile* writer = newRetainedWriter(dumpFileName(prefix, sensorId, frameCnt, attrs, extension));
    int result = writer->WriteBufferToFile(bufObj);
    if (result == 0 && freeAfterSuccess) delete writer;
    return result;
}

int32_t SensorIpcClientImpl::writeImageToFile(FrameBufObj const& frame) {
    if (dumpBuffer(frame.bufObj, frame.sensorId, frame.frameCnt, false, ".yuv", false) == 0) return RESULT_OK;
    SIPC_LOG(kLogError, "WriteBufferToFile failed");
    return RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeImageToFile(BufFrameObj const* frame) {
    // A dump fails only with -6: without a frame there is nothing to write.
    if (frame == nullptr) return RESULT_ACCESS_FAILED;
    if (dumpBuffer(frame->bufObj, frame->sensorId, frame->frameCnt, true, ".yuv", false) == 0) return RESULT_OK;
    SIPC_LOG(kLogError, "WriteBufferToFile failed");
    return RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeRawImageToFile(FrameBufObj const& frame) {
    if (dumpBuffer(frame.rawBufObj, frame.sensorId, frame.frameCnt, false, ".raw", true) == 0) return RESULT_OK;
    SIPC_LOG(kLogError, "WriteBufferToFile failed");
    return RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeRawImageToFile(BufFrameObj const* frame) {
    if (frame == nullptr) return RESULT_ACCESS_FAILED;
    if (dumpBuffer(frame->rawBufObj, frame->sensorId, frame->frameCnt, false, ".raw", true) == 0) return RESULT_OK;
    SIPC_LOG(kLogError, "WriteBufferToFile failed");
    return RESULT_ACCESS_FAILED;
}

// ---------------------------------------------------------------------------------------------------
// ROI statistics

int32_t SensorIpcClientImpl::getFrameRoiStatsData(FrameBufObj const& frame, CameraFrameRoiStatsData* stats) {
    return getFrameRoiStatsData(frame.sensorId, frame.frameCnt, stats);
}

int32_t SensorIpcClientImpl::getFrameRoiStatsData(BufFrameObj const* frame, CameraFrameRoiStatsData* stats) {
    if (frame == nullptr) {
        SIPC_LOG(kLogError, "frameobj is nullptr.");
        return RESULT_BAD_PARAM;
    }
    return getFrameRoiStatsData(frame->sensorId, frame->frameCnt, stats);
}

int32_t SensorIpcClientImpl::getFrameRoiStatsData(uint32_t sensorId, uint32_t frameCnt,
                                                  CameraFrameRoiStatsData* stats) {
    using CameraSharedMem::Brightnessdata;
    using CameraSharedMem::kRoiBlockBytes;
    using CameraSharedMem::kRoiCellBytes;
    using CameraSharedMem::kRoiCount;
    // Without a record there is nothing to answer into.
    if (stats == nullptr) return RESULT_BAD_PARAM;
    stats->valid = 0;
    stats->brightness = 0.0f;
    stats->roiDataSize = 0;
    stats->roiCount = 0;
    stats->roiCellCount = 0;
    stats->cellValueCount = 0;
    stats->frameId = 0;
    // 64 KiB: on the heap, so that callers with small thread stacks are safe.
    auto data = std::unique_ptr<Brightnessdata>(new Brightnessdata);
    std::memset(data->roi, 0, sizeof(data->roi));
    if (CameraSharedMem::CameraSharedMemManager::getInstance().get_image_Brightnessdata_C(
            static_cast<unsigned short>(sensorId), static_cast<unsigned long>(frameCnt), *data) != 0) {
        SIPC_LOG(kLogError, "CameraSharedMem get imageSubMetaData Failed");
        return RESULT_BAD_PARAM;
    }
    // A region larger than its block is copied on into the following blocks; one that would read past
    // the data area, a product that wrapped negative, or a non-empty region with no area to copy into
    // cannot be answered, and the record stays cleared.
    constexpr int64_t kDataBytes = sizeof(data->data);
    int32_t regionBytes[kRoiCount];
    for (uint32_t i = 0; i < kRoiCount; ++i) {
        regionBytes[i] = static_cast<int32_t>(data->roi[i].gridWidth * data->roi[i].gridHeight * kRoiCellBytes);
        const int64_t end = static_cast<int64_t>(i) * kRoiBlockBytes + regionBytes[i];
        if (regionBytes[i] < 0 || end > kDataBytes || (regionBytes[i] > 0 && stats->roiData == nullptr)) {
            SIPC_LOG(kLogError, "roi ", i, " of ", regionBytes[i], " bytes cannot be copied.");
            return RESULT_BAD_PARAM;
        }
    }
    stats->valid = 1;
    stats->brightness = data->brightness;
    for (uint32_t i = 0; i < kRoiCount; ++i) {
        if (regionBytes[i] > 0) {
            std::memcpy(stats->roiData + (stats->roiDataSize & ~3u), data->data + i * kRoiBlockBytes,
                        static_cast<size_t>(regionBytes[i]));
        }
        stats->roiDataSize += static_cast<uint32_t>(regionBytes[i]);
    }
    stats->roiCount = kRoiCount;
    stats->roiCellCount = data->roi[0].gridWidth * data->roi[0].gridHeight;
    stats->cellValueCount = 4;
    stats->frameId = frameCnt;
    return RESULT_OK;
}

// ---------------------------------------------------------------------------------------------------
// Sensor discovery, information and status

int32_t SensorIpcClientImpl::getSensorStatus(unsigned int& linkMask, unsigned int& videoMask,
                                             std::map<SensorType, unsigned char>& status) {
    std::map<unsigned int, unsigned char> states;
    uint32_t result = CameraAccessInterface::getInstance().detectLinkAndVideoMask(linkMask, videoMask, states);
    if (!accessOk(result)) {
        SIPC_LOG(kLogError, "IRD: detectLinkAndVideoMask failed.");
        return RESULT_ERROR;
    }
    for (const auto& entry : states) {
        status[static_cast<SensorType>(entry.first)] = entry.second;
    }
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getSensorInfo(SensorType const& type, SensorInfo& info) {
    CameraAccessInterface& access = CameraAccessInterface::getInstance();
    uint8_t* attr = info.sensorAttr;
    if (!accessOk(access.getSensorInfo(type, attr[3], attr[4], attr[5], attr[0], attr[1], attr[2]))) {
        return RESULT_ACCESS_FAILED;
    }
    cameraaccess::SensorVerInfo versions;
    if (!accessOk(access.getSensorVerInfo(static_cast<cameraaccess::SensorID>(type), versions))) {
        return RESULT_ACCESS_FAILED;
    }
    info.verData1 = versions.secondVersion;
    info.verData0 = versions.firstVersion;
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getSensorInfo(std::vector<SensorInfo>& list) {
    CameraAccessInterface& access = CameraAccessInterface::getInstance();
    for (uint32_t id = 0; id < kSensorIdCount; ++id) {
        SensorInfo info{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {}, {}};
        uint8_t out[6] = {};
        if (accessOk(access.getSensorInfo(id, out[0], out[1], out[2], out[3], out[4], out[5]))) {
            std::copy(out + 3, out + 6, info.sensorAttr);
            std::copy(out, out + 3, info.sensorAttr + 3);
        }
        cameraaccess::SensorVerInfo versions;
        if (accessOk(access.getSensorVerInfo(static_cast<cameraaccess::SensorID>(id), versions))) {
            info.verData1 = versions.secondVersion;
            info.verData0 = versions.firstVersion;
        }
        list.push_back(std::move(info));
    }
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list) {
    list.resize(kSensorIdCount);
    CameraAccessInterface& access = CameraAccessInterface::getInstance();
    for (uint32_t id = 0; id < list.size(); ++id) {
        uint32_t result = access.getAllSensorTypeInfo(id, list[id].present, list[id].typeCode);
        if (!accessOk(result)) {
            SIPC_LOG(kLogError, "sensorId ", id, " getAllSensorTypeInfo error, res = ",
                     static_cast<unsigned short>(result));
        }
    }
    return RESULT_OK;
}

// ---------------------------------------------------------------------------------------------------
// Register and I2C access. The trailing byte of the writes is part of the interface and ignored.

int32_t SensorIpcClientImpl::readSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char& value) {
    return accessOk(CameraAccessInterface::getInstance().readSensorRegUint8(type, reg, value)) ? RESULT_OK
                                                                                              : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char value,
                                                 unsigned char /*extra*/) {
    return accessOk(CameraAccessInterface::getInstance().writeSensorRegUint8(type, reg, value))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::readSensorRegUint16(SensorType const& type, unsigned short reg,
                                                 unsigned short& value) {
    return accessOk(CameraAccessInterface::getInstance().readSensorRegUint16(type, reg, value))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::writeSensorRegUint16(SensorType const& type, unsigned short reg,
                                                  unsigned short value, unsigned char /*extra*/) {
    return accessOk(CameraAccessInterface::getInstance().writeSensorRegUint16(type, reg, value))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

int32_t SensorIpcClientImpl::readSensorI2C(SensorType const& type, unsigned short addr, unsigned char* data,
                                           unsigned short& len) {
    std::vector<unsigned char> buffer(len, 0);
    if (!accessOk(CameraAccessInterface::getInstance().readSensorI2C(type, addr, buffer, len))) {
        return RESULT_ACCESS_FAILED;
    }
    // The service may have changed the vector's size: copy what it holds now.
    std::copy(buffer.begin(), buffer.end(), data);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::writeSensorI2C(SensorType const& type, unsigned short addr, unsigned char const* data,
                                            unsigned short len, unsigned char /*extra*/) {
    std::vector<unsigned char> buffer(data, data + len);
    return accessOk(CameraAccessInterface::getInstance().writeSensorI2C(type, addr, buffer, len))
               ? RESULT_OK
               : RESULT_ACCESS_FAILED;
}

// ---------------------------------------------------------------------------------------------------
// Frame sync and radar/lidar diagnostics

int32_t SensorIpcClientImpl::setFsyncDeltaMs(GroupId group, unsigned long deltaMs) {
    uint32_t result = CameraAccessInterface::getInstance().setFsyncDeltaMs(group, deltaMs);
    if (accessOk(result)) return RESULT_OK;
    SIPC_LOG(kLogError, " setFsyncDeltaMs error: ", static_cast<unsigned short>(result));
    return RESULT_SERVICE_FAILED;
}

int32_t SensorIpcClientImpl::getSensorFsyncStartTime(unsigned long& time) {
    time = CameraAccessInterface::getInstance().get_fsync_first_time();
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getRadarInnerParaState(InnerParaState& state) {
    unsigned int value = 0;
    uint32_t result = CameraAccessInterface::getInstance().getRadarInnerParaState(value);
    if (!accessOk(result)) {
        SIPC_LOG(kLogError, " getRadarInnerParaState error: ", static_cast<unsigned short>(result));
        return RESULT_SERVICE_FAILED;
    }
    state = static_cast<InnerParaState>(value);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getLidarInnerParaState(InnerParaState& state) {
    unsigned int value = 0;
    uint32_t result = CameraAccessInterface::getInstance().getLidarInnerParaState(value);
    if (!accessOk(result)) {
        SIPC_LOG(kLogError, " getLidarInnerParaState error: ", static_cast<unsigned short>(result));
        return RESULT_SERVICE_FAILED;
    }
    state = static_cast<InnerParaState>(value);
    return RESULT_OK;
}

int32_t SensorIpcClientImpl::getRadarLev2FaultInfo(unsigned short a, unsigned short b,
                                                   std::vector<unsigned short>& faults, unsigned long& time) {
    // Only 1, 2 and 3 are failures; every other answer of the service counts as success.
    switch (CameraAccessInterface::getInstance().getRadarLev2Fault(a, b, faults, time)) {
        case 1: return RESULT_BAD_PARAM;
        case 2: return RESULT_SERVICE_FAILED;
        case 3: return RESULT_ACCESS_FAILED;
        default: return RESULT_OK;
    }
}

}  // namespace sensor_access
}  // namespace vexa
