// TakePhotoCommand: the serving side's execution of a peer's take-photo request. Execute
// pre-empts a running collaboration, starts the camera ability, subscribes to the peer's
// disconnect notice and opens the photo data channel on a worker (after a resource grant);
// Release takes everything down, reports how far the collaboration got and tells the
// connection manager that the service is free.
// Thread-safety: the host calls Execute and Release; connection-manager callbacks arrive on IPC
// threads and touch only the conflict and apply state, each behind its own mutex. The
// callbacks hold a plain pointer, so the command outlives its subscriptions (Release ends them)
// and cuts the callbacks' link when it goes; a channel opening in flight keeps the command
// alive when the command is owned by a shared pointer (as the host owns it).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "ability_records.h"
#include "camera_meshline_constants.h"
#include "command.h"
#include "put_photo_context.h"
#include "refbase.h"
#include "session_attribute.h"

namespace QUEX {
namespace Tandra {

class ServiceStateChangedCallback;
class CmdDisConnectCallback;
class CmdApplyResultCallback;

class TakePhotoCommand : public Command, public std::enable_shared_from_this<TakePhotoCommand> {
public:
    explicit TakePhotoCommand(std::shared_ptr<StartAbilityParam> startAbilityParam);
    ~TakePhotoCommand() override;

    int32_t Execute(int collaborationSessionId) override;
    void Release() override;

    bool IsExistConflict();
    int32_t ProcessDisconnect(std::string peerDeviceId);
    void ServiceStateChangeCallback(std::string& serviceName, int state);
    void RecordCommandReleaseResult(uint32_t cameraStatus, bool isCameraAlive, std::pair<int, int> transmitStatus);
    void SetSoftBusSessionId(int softBusSessionId) { softBusSessionId_ = softBusSessionId; }
    void SetCollaborationSessionId(int collaborationSessionId) { collaborationSessionId_ = collaborationSessionId; }

    // Channel opening and resource application (take_photo_command_channel.cpp).
    int32_t OpenChannel(std::shared_ptr<PutPhotoContext> context);
    int32_t IniandApplytResource(SessionAttribute& attr, std::string peerDeviceId);
    int32_t ApplyResource();
    int32_t InitSessionAttributeForTakePhoto(SessionAttribute& attr);
    void ProcessApplyResourceResult(std::string deviceId, std::string serviceName, std::string reason, uint32_t result);

    std::shared_ptr<StartAbilityParam> GetStartAbilityParam() const { return startAbilityParam_; }

private:
    void ReleaseRefused(const std::shared_ptr<PutPhotoContext>& context);

    static constexpr int32_t ERR_CONTEXT_REFUSED = 2008;
    static constexpr int32_t ERR_CHANNEL_NOT_RECORDED = 2009;
    static constexpr int32_t ERR_CAMERA_CLOSED = 2011;
    static constexpr int32_t ERR_NO_PROCESS = 32;
    static constexpr int32_t ERR_ATTR_COPY = 1401;

    std::shared_ptr<StartAbilityParam> startAbilityParam_;
    int32_t reserved_ = 0;
    // Written by the channel opening on a pool worker, read by Release on a host thread.
    std::atomic<int> softBusSessionId_{0};
    int collaborationSessionId_ = 0;
    std::string dataType_ = "DATA_TYPE_BYTES";
    std::string serviceName_ = FRAMEWORK_NAME;
    int32_t serviceType_ = 3;
    std::mutex conflictMutex_;
    std::condition_variable conflictCond_;
    bool hasConflict_ = false;
    bool serviceFreed_ = false;
    std::mutex applyMutex_;
    std::condition_variable applyCond_;
    int32_t applyResult_ = 0;
    // Orders the channel opening's camera-status check and its storing of the session id
    // against Release, so that a channel opened while the camera closes is closed by one side.
    std::mutex channelMutex_;
    // Orders the service states the command publishes: "connected" from the channel opening
    // only while the command is not released, "free" from Release after it.
    std::mutex stateMutex_;
    bool released_ = false;
    // Execute got as far as making this collaboration the current task; a command refused
    // before that leaves the current task (another collaboration's) alone on release.
    std::atomic<bool> started_{false};
    bool subscribedServiceState_ = false;  // Execute's thread, then Release's
    // The control session as its opener named it and the device at its other end (the
    // requester's network id, where the command names it by its UDID), for the reports.
    std::string sessionName_;
    std::string peerNetworkId_;
    // The callbacks handed to the connection manager, detached when the command goes.
    Vex::sptr<ServiceStateChangedCallback> serviceStateCallback_;
    Vex::sptr<CmdDisConnectCallback> disconnectCallback_;
    Vex::sptr<CmdApplyResultCallback> applyResultCallback_;
};

}  // namespace Tandra
}  // namespace QUEX
