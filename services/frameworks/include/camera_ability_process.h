// CameraAbilityProcess: the camera ability of the framework, one object per host process.
// On the requesting device it turns an application's take-photo request into a collaboration
// with a peer and hands the peer's events and photos to the application; on the serving device
// it runs the peer's take-photo command, accepts the camera application's subscriptions and
// put-image requests and sends the photos back. This header is the table of contents; the code
// is split by concern over camera_ability_*.cpp.
// Thread-safety: requests arrive on several host IPC threads, messages on soft-bus threads,
// long work runs on the host's thread pool. Each registry has its own reader/writer lock (see
// the members); a looked-up record is copied out under the lock and used after unlocking, and
// no registry lock is held across a remote call.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ability_plugin.h"
#include "ability_records.h"
#include "callback_skeleton_proxy.h"
#include "camera_msg_header.h"
#include "camera_process_state.h"
#include "collaboration_records.h"
#include "current_apply_device_info.h"
#include "iremote_object.h"
#include "on_event_process.h"
#include "pending.h"
#include "put_photo_context.h"
#include "soft_bus.h"

namespace Json {
class Value;
}

namespace QUEX {
namespace Tandra {

class ResourceRequest;
class PhotoInfo;
class PhotoCallerInfo;

class CameraAbilityProcess : public AbilityPlugin {
public:
    using RequestHandler = int32_t (CameraAbilityProcess::*)(Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                                             Vex::MessageOption& option, IPCContext context);

    static CameraAbilityProcess* GetInstance();
    void InitEventListener();

    // ---- dispatch and request handlers (camera_ability_dispatch.cpp) ----
    int32_t DispatchRequest(Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption& option,
                            IPCContext context) override;
    int32_t CollaborationToTakephotoReq(Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                        Vex::MessageOption& option, IPCContext context);
    int32_t CollaborationToEventReq(Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption& option,
                                    IPCContext context);
    int32_t CollaborationToPutImageReq(Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                       Vex::MessageOption& option, IPCContext context);
    int32_t CollaborationToCancelTakePhotoReq(Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                              Vex::MessageOption& option, IPCContext context);
    int32_t CollaborationToUnregister(Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption& option,
                                      IPCContext context);
    int32_t CollaborationToRemoteCancelTakePhotoReq(Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                                    Vex::MessageOption& option, IPCContext context);

    // ---- command text (camera_ability_command.cpp) ----
    std::vector<std::shared_ptr<Command>> CreateCommand(const std::string& commandProp) override;
    std::string GenerateTakePhotoReqCommand(std::string& peerRef, Vex::sptr<AbilityFilter> filter,
                                            Vex::sptr<LocalInfo> localInfo);
    bool isValidCommandProp(Json::Value& item);
    bool isValidTakePhotoCommandParam(Json::Value& localInfo, Json::Value& extraData);
    std::shared_ptr<Command> CreateTakePhotoCommand(Json::Value& localInfo, Json::Value& extraData);
    void UpdateStartAbilityParam(std::shared_ptr<StartAbilityParam> param);

    // ---- take-photo request, requesting side (camera_ability_request.cpp) ----
    std::pair<int32_t, uint32_t> ProcessCameraAbilityRequest(Vex::sptr<PickerResult> pickerResult,
                                                             Vex::sptr<Vex::IRemoteObject> callback);
    bool GetTopAbility();
    int32_t ProcessApplyResource(const std::string& networkId);
    int32_t InitApplyInfo(Vex::sptr<ResourceRequest> resourceRequest);
    void ApplyResourcecallback(const std::string& networkId, const std::string& serviceName, const std::string& reason,
                               uint32_t result);
    uint32_t ProcessCameraSessions(const std::string& networkId, Vex::sptr<Vex::IRemoteObject> callback);
    // joined: the id is that of a collaboration already running with the peer.
    uint32_t ProcessCameraSessions(const std::string& networkId, Vex::sptr<Vex::IRemoteObject> callback,
                                   bool& joined);
    int32_t SendTakePhotoReq(Vex::sptr<DeviceInfo> deviceInfo, uint32_t collaborationId, Vex::sptr<LocalInfo> localInfo,
                             Vex::sptr<AbilityFilter> abilityFilter);
    void HandleSendTakePhotoReqError(int32_t errorCode, const std::string& networkId, const std::string& sessionName);
    static std::string UIntToString(uint32_t value);

    // ---- registries (camera_ability_registry.cpp) ----
    bool AddCameraProcess(uint32_t collaborationId, std::shared_ptr<CameraProcessState> state);
    bool EraseCameraProcess(uint32_t collaborationId);
    std::shared_ptr<CameraProcessState> QueryCameraProcess(uint32_t collaborationId);
    std::shared_ptr<CameraProcessState> QueryCameraProcess(const std::string& networkId);
    std::shared_ptr<CameraProcessState> QueryCameraProcess(uint32_t collaborationId, const std::string& networkId);
    bool QueryCollaborationId(uint32_t collaborationId);
    bool AddSessionId(uint32_t collaborationId, int32_t collaborationSessionId);
    bool EraseSessionId(uint32_t collaborationId);
    int32_t QuerySessionId(uint32_t collaborationId);
    bool AddCurrentInfo(const std::string& networkId, std::shared_ptr<CurrentApplyDeviceInfo> info);
    bool EraseCurrentInfo(const std::string& networkId);
    std::shared_ptr<CurrentApplyDeviceInfo> QueryCurrentInfoByNetworkId(const std::string& networkId);
    bool QueryIsDeathRecipient(int32_t pid);
    void EraseDeathRecipientPid(int32_t pid);
    void SetCollaborationDataInfo(int32_t collaborationSessionId, const std::string& bundleName);
    void ClearCollaborationDataInfo();
    std::pair<int32_t, std::string> GetCollaborationDataInfo();
    bool AddPutPhotoContext(int32_t collaborationSessionId, std::shared_ptr<PutPhotoContext> context);
    std::shared_ptr<PutPhotoContext> QueryPutPhotoContext(int32_t collaborationSessionId);
    std::shared_ptr<PutPhotoContext> RemovePhotoContext(int32_t collaborationSessionId);
    bool ErasePutPhotoContext(int32_t collaborationSessionId);
    std::vector<std::shared_ptr<PutPhotoContext>> GetAllPutPhotoContexts();
    static uint32_t ResolveCollaborationId(const std::string& text);
    // The requesting-side collaboration whose own control session this is: one this device
    // opened to the collaboration's peer under the collaboration's name (and, once recorded,
    // with its session id). 0 for every other session, whatever its name.
    uint32_t CollaborationOfSession(const CtrlSessionInfo& session);

    // ---- death watching (camera_ability_death.cpp) ----
    int32_t RegistDeathRecipientByCollaborationId(uint32_t collaborationId, uint32_t deathCode,
                                                  const Vex::sptr<Vex::IRemoteObject>& remoteObject,
                                                  std::shared_ptr<CameraProcessState> state);
    int32_t RegistDeathRecipientByPid(int32_t pid, uint32_t eventId, uint32_t deathCode,
                                      const Vex::sptr<Vex::IRemoteObject>& remoteObject);
    void SendCameraDeathCode(uint32_t unused, int32_t pid);

    // ---- timed waits and error codes (camera_ability_pending.cpp) ----
    std::shared_ptr<Pending<int32_t>> ObtainImagePending(uint32_t collaborationId, uint32_t code);
    std::shared_ptr<Pending<int32_t>> EraseImagePending(const std::string& key);
    bool SetTimeoutContext(uint32_t collaborationId, uint32_t code);
    void ReleaseTimeoutLock(uint32_t collaborationId, const std::list<uint32_t>& codes);
    int32_t GetTimeoutWaitCode(uint32_t collaborationId, uint32_t code, uint32_t seconds);
    // The same wait on a record the caller obtained before: a stop that came in the meantime
    // ends it at once, where a look-up by key would start a new wait for a finished one.
    int32_t GetTimeoutWaitCode(uint32_t collaborationId, uint32_t code, uint32_t seconds,
                               const std::shared_ptr<Pending<int32_t>>& pending);
    static uint32_t GetErrorCode(uint32_t status, uint32_t code);
    // The peer of a collaboration on the requesting side; empty when it is not registered.
    std::string PeerNetworkIdOf(uint32_t collaborationId);
    void Releaselock();

    // ---- framing and sending (camera_ability_transfer.cpp) ----
    int32_t SendCodeBack(uint32_t code, int32_t collaborationSessionId);
    int32_t SendMsgHeaderByControlChannel(int32_t collaborationSessionId, CameraMsgHeader& header);
    int32_t SendMsgHeaderByDataChannel(std::shared_ptr<PutPhotoContext> context, CameraMsgHeader& header);
    int32_t SendPhotoData(std::shared_ptr<PutPhotoContext> context, std::shared_ptr<PhotoParam> param, bool isFirst);
    std::pair<int32_t, int32_t> QueryDataChannel(std::shared_ptr<PutPhotoContext> context);
    int32_t QueryDataChannelId(int32_t collaborationSessionId);
    bool AddDataChannelId(int32_t collaborationSessionId, int32_t channelId);
    bool EraseDataChannelId(int32_t collaborationSessionId);

    // ---- received data and the application's callback (camera_ability_receive.cpp) ----
    void OnDataReceived(uint32_t collaborationId, const char* data, unsigned long rawDataLen);
    void ProcessDataReceived(uint32_t code, uint32_t size, uint32_t collaborationId, const char* data);
    void DfxCodeReceived(uint32_t code, bool isSuccess, uint32_t collaborationId);
    bool CheckAndUpdateState(uint32_t collaborationId, uint32_t code);
    void ProcessNotifyUI(uint32_t code, uint32_t collaborationId, std::list<uint32_t> waitCodes,
                         std::string message);
    int32_t ProcessPhotoEventCommand(uint32_t code, uint32_t collaborationId, std::string message);
    void ProcessPhotoDataReceived(uint32_t code, uint32_t size, uint32_t collaborationId, const char* message);
    int32_t ProcessPhotoDataCommand(uint32_t photoSendStatus, uint32_t collaborationId, uint32_t size,
                                    const char* data);

    // ---- put-image, serving side (camera_ability_put_image.cpp) ----
    int32_t ProcessPutPhotoRequest(std::shared_ptr<PutPhotoContext> context, Vex::sptr<PhotoInfo>& photoInfo,
                                   Vex::sptr<PhotoCallerInfo>& callerInfo, std::shared_ptr<PhotoParam> param);
    bool IsDeviceTypeAllowPutImage();
    void ProcessPutPhoto(std::shared_ptr<PutPhotoContext> context, Vex::sptr<PhotoInfo>& photoInfo,
                         std::shared_ptr<PhotoParam> param);
    int32_t ProcessPhotoData(std::shared_ptr<PutPhotoContext> context, std::shared_ptr<PhotoParam> param,
                             int32_t photoFd, uint32_t imageSeq, uint32_t photoCount);
    int32_t ProcessSendPhoto(std::shared_ptr<PutPhotoContext> context, std::shared_ptr<PhotoParam> param,
                             bool isFirst);
    int32_t ProcessPutPhotoCallBack(std::shared_ptr<PutPhotoContext> context, uint32_t code);

    // ---- event subscriptions and cached events (camera_ability_events.cpp) ----
    int32_t ProcessOnEventRequest(int32_t pid, int32_t uid, uint32_t collaborationId, std::string event,
                                  Vex::sptr<CallbackSkeletonProxy> callback);
    std::pair<int32_t, uint32_t> ProcessOnEventUnregister(int32_t pid, int32_t uid, std::string& event);
    static std::string StitchingEventToKey(int32_t pid, int32_t uid, const std::string& event);
    bool AddOnEventProcess(int32_t pid, int32_t uid, std::string& event, std::shared_ptr<OnEventProcess> process);
    bool AddOnEventProcess(std::string key, std::shared_ptr<OnEventProcess> process);
    std::shared_ptr<OnEventProcess> QueryOnEventProcess(std::string key);
    std::shared_ptr<OnEventProcess> QueryOnEventProcess(int32_t pid, int32_t uid, std::string& event);
    std::shared_ptr<OnEventProcess> QueryOnEventProcess(uint32_t collaborationId);
    std::shared_ptr<OnEventProcess> QueryOnEventProcess(int32_t pid);
    std::shared_ptr<OnEventProcess> QueryOnBundleNameProcess(std::string& event, std::string& bundleName);
    bool EraseOnEventProcess(std::string key);
    bool EraseOnEventByPid(int32_t pid);
    void AddCachedEvent(uint32_t code, std::string& event, std::string& bundleName);
    CachedEvent PopCachedEvent();
    size_t QueryCacheEventSize();
    void InvokeCachedEvent();
    void ClearCachedEvent(const std::string& bundleName);
    int32_t ProcessCancelTakePhotoCallBack(uint32_t code, std::string& event, std::string& bundleName);
    // Whether the caller is the camera application the context's command started, as it
    // subscribed: a subscription of that pid and uid for the started bundle.
    bool IsSubscribedCameraApp(const std::shared_ptr<PutPhotoContext>& context, int32_t pid, int32_t uid);

    // ---- cancel, stop and link loss (camera_ability_cancel.cpp) ----
    int32_t ProcessCancelTakePhotoRequest(uint32_t collaborationId);
    void SendStopTakePhoto(uint32_t collaborationId, uint32_t code, std::shared_ptr<CameraProcessState> state);
    int32_t SendStopTakePhotoReq(uint32_t collaborationId, std::string networkId);
    // The session of a collaboration that ended while its command was being sent: stopped with
    // the peer told, and the link freed (see camera_ability_cancel.cpp).
    void StopSessionOfEndedCollaboration(int32_t sessionId, const std::string& networkId);
    int32_t ProcessDisconnect(std::string networkId);
    void ProcessWifiShutDown();
    void ProcessCtrlChannelShutDown(const std::string& key);
    // The loss of a control session: ends the collaboration only when it is that
    // collaboration's own session.
    void ProcessCtrlChannelShutDown(const CtrlSessionInfo& session);
    // Stops watching the application of a collaboration that has ended and frees its death
    // recipient; does nothing when the recipient is already firing or was detached before.
    void DetachCollaborationDeathRecipient(const std::shared_ptr<CameraProcessState>& state);

    const std::string& GetFrameworkName() const { return frameworkName_; }
    const std::string& GetDataTypeName() const { return dataTypeName_; }

private:
    CameraAbilityProcess();
    ~CameraAbilityProcess();
    CameraAbilityProcess(const CameraAbilityProcess&) = delete;
    CameraAbilityProcess& operator=(const CameraAbilityProcess&) = delete;
    static std::string PendingKey(uint32_t collaborationId, uint32_t code);

    std::unordered_map<int32_t, RequestHandler> requestHandlers_;
    std::string frameworkName_;
    std::string dataTypeName_;
    std::shared_mutex registryMutex_;  // camera-process, session-id, data-channel, event-process registries
    std::shared_mutex pendingMutex_;
    std::map<std::string, std::shared_ptr<Pending<int32_t>>> pendingWaits_;
    std::map<uint32_t, std::shared_ptr<CameraProcessState>> cameraProcesses_;
    std::map<int32_t, int32_t> dataChannels_;
    std::map<uint32_t, int32_t> sessionIds_;
    std::map<std::string, std::shared_ptr<OnEventProcess>> eventProcesses_;
    std::shared_mutex putPhotoMutex_;
    std::map<int32_t, std::shared_ptr<PutPhotoContext>> putPhotoContexts_;
    std::shared_mutex applyInfoMutex_;
    std::map<std::string, std::shared_ptr<CurrentApplyDeviceInfo>> currentApplyInfos_;
    std::mutex dataChannelMutex_;
    std::mutex spareMutex_;
    std::condition_variable dataChannelCond_;
    std::condition_variable spareCond_;
    std::shared_mutex cachedEventMutex_;
    std::list<CachedEvent> cachedEvents_;
    std::shared_mutex deathPidMutex_;
    std::list<int32_t> deathPids_;
    std::shared_mutex collaborationDataMutex_;
    int32_t collaborationDataSessionId_ = 0;
    std::string collaborationDataBundleName_;

    static CameraAbilityProcess* instance_;
    static std::mutex instanceMutex_;
};

}  // namespace Tandra
}  // namespace QUEX
