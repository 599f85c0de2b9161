/// @file
/// Public vocabulary of the sensor IPC client: application and sensor identifiers, sensor records,
/// frame records and result codes. Self-contained: needs no platform header.
#ifndef SENSOR_IPC_TYPES_H
#define SENSOR_IPC_TYPES_H

#include <cstddef>
#include <cstdint>
#include <vector>

/// Buffer handle of the platform's image buffers (the same opaque type as the platform header's).
typedef struct NvSciBufObjRefRec* NvSciBufObj;

/// Everything of the vehicle's software maker.
namespace vexa {
/// Public types, result codes and the legacy client facade CCameraIpcClient.
namespace cameraipcclient {

/// The client application. Each registered value has its own IPC channel; any other value is accepted
/// by the facades and refused by initialisation. APP_CAMERA_DEMO and APP_SENSOR_DEMO share the short
/// name "SDEMO" that log records show.
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

/// One sensor stream. The value is also the sensor id of the camera-access service and the stream id.
/// Cameras 0 to 11 are served by the legacy API, radars and lidars 12 to 21 by the current one.
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
    SENSOR_15 = 15,  ///< no stream; still valid for sensor control
    SENSOR_FRONTLEFT = 16,
    SENSOR_FRONTRIGHT = 17,
    SENSOR_REARLEFT = 18,
    SENSOR_REARRIGHT = 19,
    SENSOR_LEFTLIDAR = 20,
    SENSOR_RIGHTLIDAR = 21,
    SENSOR_TYPE_MAX = 21,  ///< the highest valid value; facades refuse larger ones
};

/// Camera of the legacy API; its value is used exactly like a SensorType value.
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

/// Frame-synchronisation group, passed to the service as a number.
enum GroupId : uint32_t {
    FSYNC_GROUP_0 = 0,
    FSYNC_GROUP_1 = 1,
    FSYNC_GROUP_2 = 2,
    FSYNC_GROUP_3 = 3,
};

/// State of a radar's or lidar's internal parameters, as the service reports it (passed through).
enum InnerParaState : uint32_t {
    INNER_PARA_STATE_0 = 0,
    INNER_PARA_STATE_1 = 1,
    INNER_PARA_STATE_2 = 2,
};

/// Information and versions of one sensor, as the camera-access service describes it.
struct SensorInfo {
    /// The service's six information bytes: its 4th to 6th in elements 0 to 2, its 1st to 3rd in 3 to 5.
    /// All six 0xFF in the list form means "no information".
    uint8_t sensorAttr[6];
    std::vector<uint8_t> verData0;  ///< first version block of the service (empty when unknown)
    std::vector<uint8_t> verData1;  ///< second version block of the service (empty when unknown)
};

/// Presence and kind of one sensor.
struct SensorTypeInfo {
    bool present;      ///< the service reports the sensor connected
    uint8_t typeCode;  ///< the service's code for the kind of sensor
};

/// Frame record of the current API (SensorIpcClient). Filled by getFrame(), handed back unchanged to
/// releaseFrame(); not interchangeable with BufFrameObj.
struct FrameBufObj {
    uint32_t sensorId;     ///< the stream's sensor id (a SensorType value)
    uint32_t frameType;    ///< always 9
    uint32_t objIndex;     ///< the buffer of the stream's pool that holds the frame
    uint32_t rawObjIndex;  ///< not written by the current API
    uint32_t frameCnt;     ///< frame counter given by the producer (low 32 bits)
    uint64_t timestampMs;  ///< wall clock at the get, milliseconds since the epoch
    uint64_t infoA;        ///< stream word A, copied unchanged
    uint64_t infoB;        ///< stream word B, copied unchanged
    uint64_t infoC;        ///< stream word C, copied unchanged
    uint32_t infoI;        ///< low 32 bits of stream word I
    NvSciBufObj bufObj;    ///< the frame's image buffer, readable until the release
    NvSciBufObj rawBufObj; ///< not written by the current API's get
    uint8_t* cpuData;      ///< the CPU copy (owned by the library, reused for the same sensor and buffer)
    uint32_t cpuDataSize;  ///< bytes at cpuData
    uint32_t infoTail;     ///< the stream record's trailing word
};

/// Frame record of the legacy API (CCameraIpcClient). Filled by GetFrame(), handed back unchanged to
/// ReleaseFrame(); not interchangeable with FrameBufObj.
struct BufFrameObj {
    uint32_t sensorId;     ///< the stream's sensor id (a SensorName value)
    uint32_t frameType;    ///< always 9
    uint32_t objIndex;     ///< the buffer of the stream's pool that holds the processed frame
    uint32_t rawObjIndex;  ///< the raw frame's buffer; written only by a pairing
    uint32_t frameCnt;     ///< frame counter given by the producer (low 32 bits), the same for the raw frame
    uint64_t timestampMs;  ///< wall clock at the get, milliseconds since the epoch
    NvSciBufObj bufObj;    ///< the processed image, readable until the release
    NvSciBufObj rawBufObj; ///< the raw image; written only by a pairing
    uint64_t infoA;        ///< stream word A, copied unchanged
    uint64_t infoB;        ///< stream word B, copied unchanged
    uint64_t infoD;        ///< stream word D, copied unchanged
    uint64_t infoE;        ///< stream word E, copied unchanged
    uint64_t infoF;        ///< stream word F, copied unchanged
    uint64_t infoG;        ///< stream word G, copied unchanged
    uint64_t infoH;        ///< stream word H, copied unchanged
};

/// Brightness and ROI statistics of one frame; roiData is the caller's area.
struct CameraFrameRoiStatsData {
    uint32_t valid;           ///< 1 when the statistics were found, else 0
    float brightness;         ///< the frame's brightness value
    uint8_t* roiData;         ///< the caller's area; receives the four regions' blocks (16 bytes a cell)
    uint32_t roiDataSize;     ///< bytes written to roiData
    uint32_t roiCount;        ///< number of regions: 4
    uint32_t roiCellCount;    ///< cells of region 0 (grid width times height)
    uint32_t cellValueCount;  ///< values of 4 bytes in a cell: 4
    uint32_t frameId;         ///< the frame counter the statistics belong to
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

/// Result codes of every operation that reports a status.
enum ResultCode : int32_t {
    RESULT_OK = 0,                  ///< success
    RESULT_FAILED = -1,             ///< a CPU copy or a raw pairing failed; the frame is already returned
    RESULT_ERROR = -2,              ///< registration, connection, or a get refused by the stream; a status query failed
    RESULT_BAD_PARAM = -5,          ///< a bad argument: a type above SENSOR_TYPE_MAX, a null pointer, an unregistered AppType
    RESULT_ACCESS_FAILED = -6,      ///< a release (the frame stays held), a dump or a sensor-control call refused
    RESULT_STREAM_CODE_9 = -7,      ///< the stream's get returned 9: no frame within the frame time-out
    RESULT_STREAM_CODE_10 = -8,     ///< the stream's get returned 10 (current API; the legacy API gives RESULT_ERROR)
    RESULT_NOT_INIT = -9,           ///< start, get or release before the first init of the AppType
    RESULT_BUFFER_TOO_SMALL = -99,  ///< the caller's array cannot hold the radar level-2 fault list
    RESULT_SERVICE_FAILED = -101,   ///< the camera-access service failed (sensor detection, frame sync, diagnostics)
};

/// Name of a result code, for messages; "RESULT_UNKNOWN" for a value outside the set.
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
