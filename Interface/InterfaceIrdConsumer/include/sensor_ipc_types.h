// Public vocabulary of the sensor IPC client: application and sensor identifiers, sensor records,
// frame records and result codes. Self-contained: needs no platform header.
#ifndef SENSOR_IPC_TYPES_H
#define SENSOR_IPC_TYPES_H

#include <cstddef>
#include <cstdint>
#include <vector>

// Buffer handle of the platform's image buffers (the same opaque type as the platform header's).
typedef struct NvSciBufObjRefRec* NvSciBufObj;

namespace vexa {
namespace cameraipcclient {

// The client application. Each registered value has its own IPC channel; any other value is accepted
// by the facades and refused by initialisation.
enum AppType : uint32_t {
    APP_CAMERA_DEMO = 0,
    APP_CAMERA_IRC = 1,
    APP_PEX_ENC = 2,
    APP_PEX_CUDA = 3,
    APP_PEX_LTR = 4,
    APP_KAU_ENC = 5,
    APP_KAU_CUDA = 6,
    APP_VIC = 7,
    APP_INENC = 8,
    APP_SENSOR_DEMO = 9,
    APP_SENSOR_IRC = 10,
    APP_SENSOR_IRCBAK = 11,
    APP_SENSOR_ABS = 12,
};

// One sensor stream. The value is also the sensor id of the camera-access service and the stream id.
enum SensorType : uint32_t {
    CAM_WIDELEFT = 0,
    CAM_REAR = 1,
    CAM_WIDE = 2,
    CAM_NARROW = 3,
    CAM_SIDELEFTFRONT = 4,
    CAM_SIDERIGHTFRONT = 5,
    CAM_SIDERIGHTREAR = 6,
    CAM_SIDELEFTREAR = 7,
    CAM_SURROUNDFRONT = 8,
    CAM_SURROUNDRIGHT = 9,
    CAM_SURROUNDREAR = 10,
    CAM_SURROUNDLEFT = 11,
    SENSOR_FRONTSLAVE = 12,
    SENSOR_FRONTMASTER = 13,
    SENSOR_MIDLIDAR = 14,
    SENSOR_15 = 15,  // no stream; still valid for sensor control
    SENSOR_FRONTLEFT = 16,
    SENSOR_FRONTRIGHT = 17,
    SENSOR_REARLEFT = 18,
    SENSOR_REARRIGHT = 19,
    SENSOR_LEFTLIDAR = 20,
    SENSOR_RIGHTLIDAR = 21,
    SENSOR_TYPE_MAX = 21,
};

// Camera of the legacy API; its value is used exactly like a SensorType value.
enum SensorName : uint32_t {
    CAMERA_WIDELEFT = 0,
    CAMERA_REAR = 1,
    CAMERA_WIDE = 2,
    CAMERA_NARROW = 3,
    CAMERA_SIDELEFTFRONT = 4,
    CAMERA_SIDERIGHTFRONT = 5,
    CAMERA_SIDERIGHTREAR = 6,
    CAMERA_SIDELEFTREAR = 7,
    CAMERA_SURROUNDFRONT = 8,
    CAMERA_SURROUNDRIGHT = 9,
    CAMERA_SURROUNDREAR = 10,
    CAMERA_SURROUNDLEFT = 11,
};

// Frame-synchronisation group, passed to the service as a number.
enum GroupId : uint32_t {
    FSYNC_GROUP_0 = 0,
    FSYNC_GROUP_1 = 1,
    FSYNC_GROUP_2 = 2,
    FSYNC_GROUP_3 = 3,
};

// State of a radar's or lidar's internal parameters, as the service reports it.
enum InnerParaState : uint32_t {
    INNER_PARA_STATE_0 = 0,
    INNER_PARA_STATE_1 = 1,
    INNER_PARA_STATE_2 = 2,
};

struct SensorInfo {
    // The service's six information bytes: its 4th to 6th in elements 0 to 2, its 1st to 3rd in 3 to 5.
    // All six 0xFF in the list form means "no information".
    uint8_t sensorAttr[6];
    std::vector<uint8_t> verData0;
    std::vector<uint8_t> verData1;
};

struct SensorTypeInfo {
    bool present;
    uint8_t typeCode;
};

// Frame record of the current API (SensorIpcClient).
struct FrameBufObj {
    uint32_t sensorId;
    uint32_t frameType;
    uint32_t objIndex;
    uint32_t rawObjIndex;
    uint32_t frameCnt;
    uint64_t timestampMs;  // wall clock at the get, milliseconds since the epoch
    uint64_t infoA;
    uint64_t infoB;
    uint64_t infoC;
    uint32_t infoI;
    NvSciBufObj bufObj;
    NvSciBufObj rawBufObj;
    uint8_t* cpuData;  // the CPU copy (owned by the library, reused for the same sensor and buffer)
    uint32_t cpuDataSize;
    uint32_t infoTail;
};

// Frame record of the legacy API (CCameraIpcClient).
struct BufFrameObj {
    uint32_t sensorId;
    uint32_t frameType;
    uint32_t objIndex;
    uint32_t rawObjIndex;
    uint32_t frameCnt;
    uint64_t timestampMs;
    NvSciBufObj bufObj;
    NvSciBufObj rawBufObj;
    uint64_t infoA;
    uint64_t infoB;
    uint64_t infoD;
    uint64_t infoE;
    uint64_t infoF;
    uint64_t infoG;
    uint64_t infoH;
};

// Brightness and ROI statistics of one frame; roiData is the caller's area.
struct CameraFrameRoiStatsData {
    uint32_t valid;
    float brightness;
    uint8_t* roiData;
    uint32_t roiDataSize;
    uint32_t roiCount;
    uint32_t roiCellCount;
    uint32_t cellValueCount;
    uint32_t frameId;
};

static_assert(sizeof(SensorTypeInfo) == 2, "SensorTypeInfo is two bytes");
#if UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
static_assert(offsetof(FrameBufObj, frameCnt) == 16 && offsetof(FrameBufObj, timestampMs) == 24 &&
                  offsetof(FrameBufObj, infoI) == 56 && offsetof(FrameBufObj, bufObj) == 64 &&
                  offsetof(FrameBufObj, cpuData) == 80 && offsetof(FrameBufObj, infoTail) == 92 &&
                  sizeof(FrameBufObj) == 96,
              "FrameBufObj layout");
static_assert(offsetof(BufFrameObj, timestampMs) == 24 && offsetof(BufFrameObj, bufObj) == 32 &&
                  offsetof(BufFrameObj, rawBufObj) == 40 && offsetof(BufFrameObj, infoA) == 48 &&
                  offsetof(BufFrameObj, infoH) == 96 && sizeof(BufFrameObj) == 104,
              "BufFrameObj layout");
static_assert(offsetof(CameraFrameRoiStatsData, roiData) == 8 &&
                  offsetof(CameraFrameRoiStatsData, roiDataSize) == 16 &&
                  offsetof(CameraFrameRoiStatsData, frameId) == 32 && sizeof(CameraFrameRoiStatsData) == 40,
              "CameraFrameRoiStatsData layout");
#endif

// Result codes of every operation that reports a status.
enum ResultCode : int32_t {
    RESULT_OK = 0,
    RESULT_FAILED = -1,
    RESULT_ERROR = -2,
    RESULT_BAD_PARAM = -5,
    RESULT_ACCESS_FAILED = -6,
    RESULT_STREAM_CODE_9 = -7,
    RESULT_STREAM_CODE_10 = -8,
    RESULT_NOT_INIT = -9,
    RESULT_BUFFER_TOO_SMALL = -99,
    RESULT_SERVICE_FAILED = -101,
};

// Name of a result code, for messages; "RESULT_UNKNOWN" for a value outside the set.
constexpr const char* resultCodeName(int32_t code) {
    switch (code) {
        case RESULT_OK: return "RESULT_OK";
        case RESULT_FAILED: return "RESULT_FAILED";
        case RESULT_ERROR: return "RESULT_ERROR";
        case RESULT_BAD_PARAM: return "RESULT_BAD_PARAM";
        case RESULT_ACCESS_FAILED: return "RESULT_ACCESS_FAILED";
        case RESULT_STREAM_CODE_9: return "RESULT_STREAM_CODE_9";
        case RESULT_STREAM_CODE_10: return "RESULT_STREAM_CODE_10";
        case RESULT_NOT_INIT: return "RESULT_NOT_INIT";
        case RESULT_BUFFER_TOO_SMALL: return "RESULT_BUFFER_TOO_SMALL";
        case RESULT_SERVICE_FAILED: return "RESULT_SERVICE_FAILED";
        default: return "RESULT_UNKNOWN";
    }
}

}  // namespace cameraipcclient
}  // namespace vexa

#endif  // SENSOR_IPC_TYPES_H
