// PutPhotoContext: the serving side's record of one remote take-photo command: its control
// session, the bundle its command started, the camera application (pid, uid, alive), the camera status (1 running, 2 ended,
// 3 putting images, 4 cancelled remotely) and the data-channel status (0 opened, -1 failed,
// 2 cancelled, anything else not yet settled) with the code of its last change.
// Also PhotoParam, one photo message on its way from the file to the data channel.
// Thread-safety: PutPhotoContext guards its fields with its own shared mutex. A PhotoParam
// belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <utility>

#include "camera_msg_header.h"

namespace QUEX {
namespace Tandra {

class PutPhotoContext {
public:
    static constexpr uint32_t CAMERA_RUNNING = 1;
    static constexpr uint32_t CAMERA_ENDED = 2;
    static constexpr uint32_t CAMERA_PUTTING = 3;
    static constexpr uint32_t CAMERA_REMOTE_CANCELLED = 4;
    static constexpr int32_t CHANNEL_OPENED = 0;
    static constexpr int32_t CHANNEL_FAILED = -1;
    static constexpr int32_t CHANNEL_CANCELLED = 2;
    static constexpr int32_t CHANNEL_UNSETTLED = 1;

    explicit PutPhotoContext(int32_t collaborationSessionId);

    int32_t GetCollaborationSessionId() const { return collaborationSessionId_; }
    // The bundle the command started: only that application may act for the collaboration.
    void SetCameraBundleName(const std::string& bundleName);
    std::string GetCameraBundleName() const;
    // The control session's name as its opener chose it, for the behaviour reports.
    void SetSessionName(const std::string& sessionName);
    std::string GetSessionName() const;
    void SetPid(int32_t pid);
    void SetUid(int32_t uid);
    int32_t GetPid() const;
    int32_t GetUid() const;
    void SetCameraAlive(bool alive);
    bool IsCameraAlive() const;
    // (changed, status found): to 3 or 4 only from 1, to 2 from any status.
    std::pair<bool, uint32_t> ChangeCameraStatus(uint32_t newStatus);
    uint32_t GetCameraStatus() const;
    void ChangeTransmitChanelStatus(int32_t status, int32_t code);
    std::pair<int32_t, int32_t> GetTransmitChanelStatus() const;  // (status, code)

private:
    mutable std::shared_mutex mutex_;
    const int32_t collaborationSessionId_;
    std::string cameraBundleName_;
    std::string sessionName_;
    int32_t pid_ = 0;
    int32_t uid_ = 0;
    bool cameraAlive_ = false;
    uint32_t cameraStatus_ = CAMERA_RUNNING;
    int32_t transmitChanelStatus_ = CHANNEL_UNSETTLED;
    int32_t transmitCode_ = 0;
};

struct PhotoParam {
    static constexpr uint32_t REQUEST_PUT_IMAGE = 1;
    static constexpr uint32_t REQUEST_REMOTE_CANCEL = 2;

    explicit PhotoParam(uint32_t requestType) : requestType(requestType) {}

    uint32_t requestType;
    uint32_t code = 0;
    uint32_t photoLength = 0;
    int32_t photoFd = -1;                   // the photo being sent (the batch's descriptor)
    char header[CAMERA_MSG_HEADER_LEN] = {};  // what goes before the photo's bytes
};

}  // namespace Tandra
}  // namespace QUEX
