// The maker's camera-access library (libCameraAccess.so.3): the client side of the camera-access
// service that owns the sensors. On the vehicle the vendor's header replaces this one.
//
// Statuses are 32-bit; the service's own code sits in the low 16 bits (zero = success) and the upper
// bits may carry service-internal flags.
#ifndef CAMERA_ACCESS_INTERFACE_H
#define CAMERA_ACCESS_INTERFACE_H

#include <cstdint>
#include <map>
#include <vector>

namespace vexa {
namespace cameraaccess {

// Sensor id of the version query: the same numbers as the client's sensor types (0 to 21).
enum SensorID : uint32_t {
    SENSOR_ID_MIN = 0,
    SENSOR_ID_MAX = 21,
};

// Version information of one sensor: two byte vectors, in this order.
struct SensorVerInfo {
    std::vector<uint8_t> firstVersion;
    std::vector<uint8_t> secondVersion;
};

// detectAllSensors answers this instead of a mask when the service cannot be reached.
constexpr uint32_t kDetectFailed = 0xEFFFFF;

class CameraAccessInterface {
public:
    static CameraAccessInterface& getInstance();

    // Mask of present sensors (bit n = sensor n), or kDetectFailed.
    uint32_t detectAllSensors();
    uint32_t detectLinkAndVideoMask(unsigned int& linkMask, unsigned int& videoMask,
                                    std::map<unsigned int, unsigned char>& status);
    uint32_t getSensorInfo(unsigned int id, unsigned char& info0, unsigned char& info1, unsigned char& info2,
                           unsigned char& info3, unsigned char& info4, unsigned char& info5);
    uint32_t getSensorVerInfo(SensorID id, SensorVerInfo& info);
    uint32_t getAllSensorTypeInfo(unsigned int id, bool& present, unsigned char& typeCode);

    uint32_t readSensorRegUint8(unsigned int id, unsigned short reg, unsigned char& value);
    uint32_t writeSensorRegUint8(unsigned int id, unsigned short reg, unsigned char value);
    uint32_t readSensorRegUint16(unsigned int id, unsigned short reg, unsigned short& value);
    uint32_t writeSensorRegUint16(unsigned int id, unsigned short reg, unsigned short value);
    uint32_t readSensorI2C(unsigned int id, unsigned short addr, std::vector<unsigned char>& buf,
                           unsigned short& len);
    uint32_t writeSensorI2C(unsigned int id, unsigned short addr, std::vector<unsigned char> const& buf,
                            unsigned short len);

    uint32_t setFsyncDeltaMs(unsigned int group, unsigned long deltaMs);
    unsigned long get_fsync_first_time();
    uint32_t getRadarInnerParaState(unsigned int& state);
    uint32_t getLidarInnerParaState(unsigned int& state);
    // 0 success; 1 bad argument, 2 service failure, 3 access failure; other values are the service's.
    int32_t getRadarLev2Fault(unsigned short a, unsigned short b, std::vector<unsigned short>& faults,
                              unsigned long& time);

private:
    CameraAccessInterface() = default;
};

}  // namespace cameraaccess
}  // namespace vexa

#endif  // CAMERA_ACCESS_INTERFACE_H
