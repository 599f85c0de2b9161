/// @file
/// Legacy facade of the sensor IPC client: the sensor-name API. A copyable value that holds only its
/// application type; every call goes to the one client object of that application in the process.
#ifndef CAMERA_IPC_CLIENT_H
#define CAMERA_IPC_CLIENT_H

#include <cstdint>
#include <vector>

#include "sensor_ipc_export.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace cameraipcclient {

/// Client of the cameras through the sensor-name API: processed frames with the raw frame of the same
/// exposure for cameras 2 and 3, image dumps and ROI statistics.
///
/// A facade owns nothing: two facades (of either API) with the same AppType drive the same client, and
/// destroying one releases nothing. Calls on one AppType must not overlap, except DeInit() while
/// Start() waits in another thread.
class SENSOR_IPC_EXPORT CCameraIpcClient {
public:
    /// A facade for the client of @p appType; any value is accepted here, Init() refuses unregistered ones.
    explicit CCameraIpcClient(AppType appType);

    /// Registers the application and one stream per wanted and present camera.
    /// @param id in: the wanted cameras (bit n = camera n); out: cameras 0 to 11 narrowed to wanted and
    ///        present, bits 12 to 15 as the service detected them. A camera whose stream failed to
    ///        register keeps its bit.
    /// @param rawEnable the processed frames of cameras 2 and 3 come with their raw frames.
    /// @return RESULT_OK; RESULT_BAD_PARAM for an unregistered AppType; RESULT_SERVICE_FAILED when the
    ///         service cannot detect the sensors; RESULT_ERROR when it refuses the registration.
    int32_t Init(unsigned short& id, bool rawEnable);
    /// Completes the set-up and blocks, without a time-out, until the connection is made or failed.
    /// DeInit() from another thread ends the wait; Start() then returns RESULT_OK without a connection.
    /// @return RESULT_OK; RESULT_ERROR when the connection failed; RESULT_NOT_INIT before any Init().
    int32_t Start();
    /// Takes the next processed frame of camera @p name and, with raw frames enabled, pairs the raw frame
    /// of the same frame counter (cameras 2 and 3). The frame stays held until ReleaseFrame().
    /// @param name the camera.
    /// @param frame zeroed by the caller: the raw fields are written only by a pairing.
    /// @return RESULT_OK; RESULT_STREAM_CODE_9 (no frame in time); RESULT_ERROR (any other refusal of
    ///         the stream, its code 10 included); RESULT_FAILED when no raw frame could be paired (the
    ///         processed frame is then already returned); RESULT_BAD_PARAM for a null @p frame;
    ///         RESULT_NOT_INIT before any Init().
    int32_t GetFrame(SensorName name, BufFrameObj* frame);
    /// Returns the raw frame (a failure is only logged), then the processed frame.
    /// @return RESULT_OK; RESULT_ACCESS_FAILED when the processed frame stays held; RESULT_BAD_PARAM for
    ///         a null @p frame; RESULT_NOT_INIT before any Init().
    int32_t ReleaseFrame(BufFrameObj const* frame);
    /// Logs that the stream stopped; changes nothing else (DeInit() ends streaming).
    void Stop();
    /// Ends a waiting Start(), tears the stream down and keeps the client for a later Init(). Frames
    /// still held, and raw frames the pairing keeps, are not returned.
    void DeInit();

    /// Brightness and ROI statistics of a held frame, copied into the caller's area.
    /// @param frame a frame got by GetFrame() and not yet released.
    /// @param stats roiData must hold the four regions' blocks (at most 65536 bytes).
    /// @return RESULT_OK; RESULT_BAD_PARAM when the statistics are not available, or for a null record
    ///         or area.
    int32_t GetFrameRoiStatsData(BufFrameObj const* frame, CameraFrameRoiStatsData* stats);
    /// Appends the processed image's visible pixels to
    /// `<app>_client_cam_<sensor>_<frame>_<width>_X_<height>.yuv` in the working directory.
    /// @return RESULT_OK, or RESULT_ACCESS_FAILED when nothing could be written.
    int32_t WriteImageToFile(BufFrameObj* frame);
    /// Appends the paired raw image's visible pixels to `client_cam_<sensor>_<frame>_<width>_X_<height>.raw`
    /// (no application prefix) in the working directory.
    /// @return RESULT_OK, or RESULT_ACCESS_FAILED when nothing could be written.
    int32_t WriteRawImageToFile(BufFrameObj* frame);

    /// Sets the delay of a frame-synchronisation group.
    /// @return RESULT_OK, or RESULT_SERVICE_FAILED when the service refuses.
    int32_t setFsyncDeltaMs(GroupId group, unsigned long deltaMs);
    /// Presence and type code of every sensor: @p list is resized to 22 entries, one per SensorType.
    /// @return RESULT_OK, also when the service failed for some sensors (their entries are unchanged).
    int32_t getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list);

private:
    AppType m_appType;
};

}  // namespace cameraipcclient
}  // namespace vexa

#endif  // CAMERA_IPC_CLIENT_H
