// Legacy facade of the sensor IPC client: the sensor-name API. A copyable value that holds only its
// application type; every call goes to the one client object of that application in the process.
#ifndef CAMERA_IPC_CLIENT_H
#define CAMERA_IPC_CLIENT_H

#include <cstdint>
#include <vector>

#include "sensor_ipc_export.h"
#include "sensor_ipc_types.h"

namespace vexa {
namespace cameraipcclient {

class SENSOR_IPC_EXPORT CCameraIpcClient {
public:
    explicit CCameraIpcClient(AppType appType);

    // Registers the application for the wanted cameras (bit n = camera n); id receives the cameras
    // present. With rawEnable the processed frames of cameras 2 and 3 come with their raw frames.
    int32_t Init(unsigned short& id, bool rawEnable);
    // Blocks until the stream connection is made or failed (or DeInit ends the wait).
    int32_t Start();
    int32_t GetFrame(SensorName name, BufFrameObj* frame);
    // Returns the frame (and its raw frame first).
    int32_t ReleaseFrame(BufFrameObj const* frame);
    void Stop();
    void DeInit();

    // roiData of stats must hold the four regions' blocks (at most 65536 bytes); a null record or area
    // gives RESULT_BAD_PARAM.
    int32_t GetFrameRoiStatsData(BufFrameObj const* frame, CameraFrameRoiStatsData* stats);
    // Append the frame's visible pixels to a file in the working directory.
    int32_t WriteImageToFile(BufFrameObj* frame);
    int32_t WriteRawImageToFile(BufFrameObj* frame);

    int32_t setFsyncDeltaMs(GroupId group, unsigned long deltaMs);
    int32_t getAllSensorTypeInfo(std::vector<SensorTypeInfo>& list);

private:
    AppType m_appType;
};

}  // namespace cameraipcclient
}  // namespace vexa

#endif  // CAMERA_IPC_CLIENT_H
