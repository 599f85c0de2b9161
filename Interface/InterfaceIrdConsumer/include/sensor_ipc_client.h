/// @file
/// Current facade of the sensor IPC client: the sensor-type API. A copyable value that holds only its
/// application type; every call goes to the one client object of that application in the process.
#ifndef SENSOR_IPC_CLIENT_H
#define SENSOR_IPC_CLIENT_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "sensor_ipc_export.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace vexalog {
class Logger;
}

/// The current API: the client facade SensorIpcClient and the sensor order list.
namespace sensor_access {

using cameraipcclient::AppType;
using cameraipcclient::FrameBufObj;
using cameraipcclient::GroupId;
using cameraipcclient::InnerParaState;
using cameraipcclient::SensorInfo;
using cameraipcclient::SensorType;
using cameraipcclient::SensorTypeInfo;

/// Sensor ids in the order applications present them (public data; the library does not read it).
SENSOR_IPC_EXPORT extern const std::vector<uint32_t> g_sensorOrderId;

/// Client of the radars and lidars through the sensor-type API (frames with an optional CPU copy), and
/// the sensors' control functions.
///
/// A facade owns nothing: two facades (of either API) with the same AppType drive the same client, and
/// destroying one releases nothing. Calls on one AppType must not overlap, except deInit() while
/// start() waits in another thread. The sensor-control calls need no init().
class SENSOR_IPC_EXPORT SensorIpcClient {
public:
    /// A facade for the client of @p appType; any value is accepted here, init() refuses unregistered ones.
    explicit SensorIpcClient(AppType appType);

    /// Registers the application and one stream per wanted and present radar or lidar.
    /// @param id in: the wanted sensors (bit n = SensorType n); out: radars and lidars narrowed to
    ///        wanted, present and registered, every other bit as the service detected it.
    /// @param frameTimeout how long the stream's get waits for a frame, handed to every stream.
    /// @param logger the logger of every client of the process from now on; an empty pointer makes the
    ///        library create its own.
    /// @return RESULT_OK; RESULT_BAD_PARAM for an unregistered AppType; RESULT_SERVICE_FAILED when the
    ///         service cannot detect the sensors; RESULT_ERROR when it refuses the registration.
    int32_t init(unsigned int& id, unsigned int frameTimeout, std::shared_ptr<vexa::vexalog::Logger> logger);
    /// Completes the set-up and blocks, without a time-out, until the connection is made or failed.
    /// deInit() from another thread ends the wait; start() then returns RESULT_OK without a connection.
    /// @return RESULT_OK; RESULT_ERROR when the connection failed; RESULT_NOT_INIT before any init().
    int32_t start();
    /// Takes the next frame of a sensor; it stays held until releaseFrame().
    /// @param type the radar or lidar.
    /// @param frame receives the frame record.
    /// @param toCpu also copy the image into a CPU buffer (frame.cpuData, frame.cpuDataSize) that the
    ///        library owns and reuses for the next frame of the same sensor and buffer (objIndex).
    /// @return RESULT_OK; RESULT_STREAM_CODE_9 (no frame within the frame time-out);
    ///         RESULT_STREAM_CODE_10; RESULT_ERROR (any other refusal of the stream); RESULT_FAILED when
    ///         the CPU copy failed (the frame is then already returned); RESULT_BAD_PARAM for a type
    ///         above SENSOR_TYPE_MAX; RESULT_NOT_INIT before any init().
    int32_t getFrame(SensorType const& type, FrameBufObj& frame, bool toCpu);
    /// Returns a frame got by getFrame(), passed back unchanged.
    /// @return RESULT_OK; RESULT_ACCESS_FAILED when the stream refused (the frame stays held);
    ///         RESULT_NOT_INIT before any init().
    int32_t releaseFrame(FrameBufObj const& frame);
    /// Logs that the stream stopped; changes nothing else (deInit() ends streaming).
    void stop();
    /// Ends a waiting start(), tears the stream down and keeps the client for a later init(). Frames
    /// still held are not returned.
    void deInit();

    /// Link and video masks and the state byte of every sensor the service reports.
    /// @param linkMask receives the service's link mask (bit n = SensorType n).
    /// @param videoMask receives the service's video mask (bit n = SensorType n).
    /// @param status entries of the sensors reported are set; others already in the map are kept.
    /// @return RESULT_OK, or RESULT_ERROR when the service failed (@p status untouched).
    int32_t getSensorStatus(unsigned int& linkMask, unsigned int& videoMask,
                            std::map<SensorType, unsigned char>& status);
    /// Appends 22 records to @p list, one per SensorType; a sensor the service could not describe has
    /// six 0xFF bytes and/or empty version vectors.
    /// @return RESULT_OK.
    int32_t getSensorInfo(std::vector<SensorInfo>& list);
    /// Information bytes and versions of one sensor; @p type is not range-checked, the service decides.
    /// @return RESULT_OK, or RESULT_ACCESS_FAILED when either query failed.
    int32_t getSensorInfo(SensorType const& type, SensorInfo& info);
    /// Presence and type code of every sensor: @p list is resized to 22 entries, one per SensorType.
    /// @return RESULT_OK, also when the service failed for some sensors (their entries are unchanged).
    int32_t getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list);

    /// Reads an 8-bit register of a sensor.
    /// @return RESULT_OK; RESULT_ACCESS_FAILED when the service refused; RESULT_BAD_PARAM for a type
    ///         above SENSOR_TYPE_MAX.
    int32_t readSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char& value);
    /// Writes an 8-bit register of a sensor; @p extra is accepted for interface compatibility and ignored.
    /// @return as readSensorRegUint8().
    int32_t writeSensorRegUint8(SensorType const& type, unsigned short reg, unsigned char value,
                                unsigned char extra);
    /// Reads a 16-bit register of a sensor.
    /// @return as readSensorRegUint8().
    int32_t readSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short& value);
    /// Writes a 16-bit register of a sensor; @p extra is accepted for interface compatibility and ignored.
    /// @return as readSensorRegUint8().
    int32_t writeSensorRegUint16(SensorType const& type, unsigned short reg, unsigned short value,
                                 unsigned char extra);
    /// Reads bytes from an I2C device behind a sensor.
    /// @param type the sensor.
    /// @param addr the device's I2C address.
    /// @param data must hold as many bytes as the service returns; written only on success.
    /// @param len may be changed by the service.
    /// @return RESULT_OK; RESULT_ACCESS_FAILED when the service refused; RESULT_BAD_PARAM for a null
    ///         @p data, a zero @p len or a type above SENSOR_TYPE_MAX.
    int32_t readSensorI2C(SensorType const& type, unsigned short addr, unsigned char* data, unsigned short& len);
    /// Writes @p len bytes to I2C address @p addr behind a sensor; @p extra is ignored.
    /// @return as readSensorI2C().
    int32_t writeSensorI2C(SensorType const& type, unsigned short addr, unsigned char const* data,
                           unsigned short len, unsigned char extra);

    /// Sets the delay of a frame-synchronisation group.
    /// @return RESULT_OK, or RESULT_SERVICE_FAILED when the service refuses.
    int32_t setFsyncDeltaMs(GroupId group, unsigned long deltaMs);
    /// Time of the first frame-synchronisation pulse, in the service's unit.
    /// @return RESULT_OK always; @p time is whatever the service answered.
    int32_t getSensorFsyncStartTime(unsigned long& time);
    /// State of the radars' internal parameters.
    /// @return RESULT_OK, or RESULT_SERVICE_FAILED when the service refuses (@p state untouched).
    int32_t getRadarInnerParaState(InnerParaState& state);
    /// State of the lidars' internal parameters.
    /// @return RESULT_OK, or RESULT_SERVICE_FAILED when the service refuses (@p state untouched).
    int32_t getLidarInnerParaState(InnerParaState& state);
    /// The radars' level-2 faults.
    /// @param a first argument of the service's query, passed unchanged.
    /// @param b second argument of the service's query, passed unchanged.
    /// @param faults the caller's array.
    /// @param count in: the capacity of @p faults in elements; out: the number of faults copied.
    /// @param time receives the service's time of the list.
    /// @return RESULT_OK; RESULT_BUFFER_TOO_SMALL when the list does not fit (@p count unchanged);
    ///         RESULT_ACCESS_FAILED for a null @p faults; RESULT_BAD_PARAM, RESULT_SERVICE_FAILED or
    ///         RESULT_ACCESS_FAILED when the service reports a bad argument, a failure or no access.
    int32_t getRadarLev2FaultInfo(unsigned short a, unsigned short b, unsigned short* faults, unsigned short& count,
                                  unsigned long& time);

private:
    AppType m_appType;
};

}  // namespace sensor_access
}  // namespace vexa

#endif  // SENSOR_IPC_CLIENT_H
