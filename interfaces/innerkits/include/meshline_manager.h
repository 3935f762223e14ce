// MeshlineManager: the plugin's client of the Meshline connection-management operations of the
// framework's system service. Each operation checks its arguments, writes one request (the
// envelope, then its arguments), sends it synchronously through TandraProxy and returns the
// service's answer or its own result code (IpcResult). It also keeps the one death recipient
// that watches the service.
// Thread-safety: requests may be sent from any thread and hold no lock. The death-recipient
// operations are meant for one thread at a time; their state sits behind an internal mutex so
// that the service's death (on a platform thread) can clear it safely.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "callback_skeleton.h"
#include "death_recipient.h"
#include "meshline_info.h"
#include "message_parcel.h"

namespace QUEX::Tandra {

class MeshlineManager {
public:
    // The sub-service type of each request: part of the wire contract.
    enum Operation : uint32_t {
        REGISTER_DEVICE_STATE_MANAGER_CALLBACK = 1,
        UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK = 2,
        NOTIFY_DEVICE_CONNECT_STATE = 3,
        CHECK_CONFLICT = 4,
        DISCONNECT_CURRENT_DEVICE = 5,
        REGISTER_DEVICE_STATE_SUBSCRIBER = 6,
        UNREGISTER_DEVICE_STATE_SUBSCRIBER = 7,
        SUBSCRIBE_SERVICE_STATE = 8,
        UNSUBSCRIBE_SERVICE_STATE = 9,
        SUBSCRIBE_NOTIFY_DISCONNECT = 10,
        UNSUBSCRIBE_NOTIFY_DISCONNECT = 11,
        PUBLISH_SERVICE_STATE = 12,
        APPLY_ADVANCED_RESOURCE = 13,
        NOTIFY_ALL_STATE = 14,
        SUBSCRIBE_SERVICE_STATE_WITH_PID = 15,
        UNSUBSCRIBE_SERVICE_STATE_WITH_PID = 16,
    };
    // Requests wait this long for the service (seconds).
    static constexpr int REQUEST_WAIT_TIME = 8;
    // States a device may publish.
    static constexpr int32_t MIN_SERVICE_STATE = 1;
    static constexpr int32_t MAX_SERVICE_STATE = 4;

    static MeshlineManager& GetInstance();
    MeshlineManager(const MeshlineManager&) = delete;
    MeshlineManager& operator=(const MeshlineManager&) = delete;

    int32_t RegisterDeviceStateManagerCallback(std::string deviceId, uint32_t serviceType,
                                               sptr<CallbackSkeleton> callback);
    int32_t UnRegisterDeviceStateManagerCallback(std::string deviceId, uint32_t serviceType);
    int32_t NotifyDeviceConnectState(std::string deviceId, uint32_t serviceType, sptr<ServiceStateInfo> info);
    // Appends the service's tasks for the device to taskList (not cleared first), then
    // returns the service's result; 0x1B8003F5 when the task list is unreadable.
    int32_t CheckConflict(std::string deviceId, uint32_t serviceType, uint32_t linkType,
                          std::vector<sptr<DistributeTaskInfo>>& taskList);
    int32_t DisconnectCurrentDevice(std::string deviceId, uint32_t serviceType, uint32_t linkType);
    int32_t RegisterDeviceStateSubscriber(sptr<CallbackSkeleton> callback);
    int32_t UnRegisterDeviceStateSubscriber();
    int32_t SubscribeServiceState(sptr<CallbackSkeleton> callback);
    int32_t UnSubscribeServiceState();
    int32_t SubscribeNotifyDisconnect(std::string first, std::string second, std::string third,
                                      sptr<CallbackSkeleton> callback);
    int32_t UnSubscribeNotifyDisconnect(std::string first, std::string second);
    int32_t PublishServiceState(std::string first, std::string second, std::string third, int32_t state);
    // Its own result set: 22 bad arguments or unwritable request, 32 service unreachable.
    int32_t ApplyAdvancedResource(std::string first, std::string serviceName, sptr<ResourceRequest> request,
                                  sptr<CallbackSkeleton> callback);
    int32_t NotifyAllState();
    // The result and the reply's second value (0 when the reply was not read).
    std::pair<int32_t, int32_t> SubscribeServiceStateWithPid(sptr<CallbackSkeleton> callback);
    std::pair<int32_t, int32_t> UnSubscribeServiceStateWithPid();

    // Reads a task list (count, then count flagged DistributeTaskInfo) and appends the
    // present entries; 0, or 1001 when the count is unreadable or larger than the parcel.
    static int32_t ReadTaskInfoList(MessageParcel& reply, std::vector<sptr<DistributeTaskInfo>>& taskList);

    // The recipient, created (unattached) when there is none; null only when allocation fails.
    sptr<DeathRecipient> GetDeathRecipient();
    // Watches the service for callback; 0 also when the service is down (nothing registered).
    int32_t RegisterServiceDeathRecipient(const std::string& category, sptr<CallbackSkeleton> callback);
    int32_t UnRegisterServiceDeathRecipient();
    void DestroyMeshlineManagerInstance();
    // Called by the recipient when the watched service died: it can never fire again, so a
    // later registration must start afresh.
    void ForgetDeathRecipient(const DeathRecipient* recipient);

private:
    MeshlineManager() = default;
    ~MeshlineManager() = default;

    std::mutex mutex_;
    sptr<DeathRecipient> deathRecipient_;
    // The service object deathRecipient_ is attached to, null while it is attached to none.
    sptr<IRemoteObject> watchedObject_;
};

}  // namespace QUEX::Tandra
