// TakePhotoCommand: the serving side's execution of a peer's take-photo request. Execute
// pre-empts a running collaboration, starts the camera ability, subscribes to the peer's
// disconnect notice and opens the photo data channel on a worker (after a resource grant);
// Release takes everything down, reports how far the collaboration got and tells the
// connection manager that the service is free.
// Thread-safety: the host calls Execute and Release; connection-manager callbacks arrive on IPC
// threads and touch only the conflict and apply state, each behind its own mutex. The
// callbacks hold a plain pointer, so the command outlives its subscriptions (Release ends them).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "ability_records.h"
#include "command.h"
#include "put_photo_context.h"
#include "session_attribute.h"

namespace QUEX {
namespace Tandra {

class TakePhotoCommand : public Command {
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
    void ProcessApplyResourceResult(std::string deviceId, std::string serviceName, std::string reason,
                                    uint32_t result);

    std::shared_ptr<StartAbilityParam> GetStartAbilityParam() const { return startAbilityParam_; }

private:
    std::shared_ptr<StartAbilityParam> startAbilityParam_;
    int32_t reserved_ = 0;
    int softBusSessionId_ = 0;
    int collaborationSessionId_ = 0;
    std::string dataType_ = "DATA_TYPE_BYTES";
    std::string serviceName_ = "Tandra";
    int32_t serviceType_ = 3;
    std::mutex conflictMutex_;
    std::condition_variable conflictCond_;
    bool hasConflict_ = false;
    bool serviceFreed_ = false;
    std::mutex applyMutex_;
    std::condition_variable applyCond_;
    int32_t applyResult_ = 0;
};

}  // namespace Tandra
}  // namespace QUEX
