// Event subscriptions of applications on the serving side (one per process, user and event
// name) and the cache of events that fell due while their addressee had not subscribed yet.
#include <algorithm>

#include "ability_manager.h"
#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_app_callback.h"
#include "camera_result_codes.h"
#include "host_death_recipient.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t ERR_NOT_DELIVERED = 1007;
constexpr int32_t ERR_NOT_REGISTERED = 1907;
constexpr uint32_t UNREGISTER_OK = 1;
constexpr uint32_t UNREGISTER_FAILED = 2;
}  // namespace

int32_t CameraAbilityProcess::CollaborationToEventReq(MessageParcel& data, MessageParcel& /* reply */,
                                                      MessageOption& /* option */, IPCContext context)
{
    TNDR_SERVICE_LOGI("enter.");
    uint32_t collaborationId = data.ReadUint32();
    std::string event = data.ReadString();
    sptr<IRemoteObject> callback = data.ReadRemoteObject();
    sptr<CallbackSkeletonProxy> proxy = iface_cast<CallbackSkeletonProxy>(callback);
    if (proxy == nullptr) {
        TNDR_SERVICE_LOGE("failed to if cast");
        return ERR_INVALID_PARAM;
    }
    if (RegistDeathRecipientByPid(context.pid, collaborationId, HostDeathRecipient::DEATH_KIND_SUBSCRIBER, callback) !=
        0) {
        TNDR_SERVICE_LOGE("failed to add death recipient");
        return ERR_INVALID_PARAM;
    }
    int32_t result = ProcessOnEventRequest(context.pid, context.uid, collaborationId, event, proxy);
    TNDR_SERVICE_LOGI("leave, return result = %{public}d", result);
    return result;
}

int32_t CameraAbilityProcess::CollaborationToUnregister(MessageParcel& data, MessageParcel& reply,
                                                        MessageOption& /* option */, IPCContext context)
{
    TNDR_SERVICE_LOGI("enter.");
    std::string event = data.ReadString();
    auto [result, collaborationId] = ProcessOnEventUnregister(context.pid, context.uid, event);
    reply.WriteUint32(result == 0 ? UNREGISTER_OK : UNREGISTER_FAILED);
    reply.WriteUint32(collaborationId);
    TNDR_SERVICE_LOGI("return result = %{public}d", result);
    return result;
}

int32_t CameraAbilityProcess::ProcessOnEventRequest(int32_t pid, int32_t uid, uint32_t collaborationId,
                                                    std::string event, sptr<CallbackSkeletonProxy> callback)
{
    TNDR_SERVICE_LOGI("enter");
    if (callback == nullptr) {
        TNDR_SERVICE_LOGE("callback = %{public}d", 1);
        return ERR_INVALID_PARAM;
    }
    if (QueryOnEventProcess(pid, uid, event) != nullptr) {
        // The first subscription and its callback stay.
        TNDR_SERVICE_LOGE("on regist event = %{public}s", event.c_str());
        return 0;
    }
    std::shared_ptr<AbilityManager> abilityManager = AbilityManager::GetInstance();
    sptr<AppExecFwk::IBundleMgr> bms = abilityManager != nullptr ? abilityManager->GetBundleMgr() : nullptr;
    if (bms == nullptr) {
        TNDR_SERVICE_LOGE("failed to get bms proxy");
        return ERR_INVALID_PARAM;
    }
    std::string bundleName;
    bms->GetBundleNameForUid(uid, bundleName);
    TNDR_SERVICE_LOGI("new event register, bundleName is %{public}s", bundleName.c_str());

    auto process = std::make_shared<OnEventProcess>();
    process->pid = pid;
    process->uid = uid;
    process->collaborationId = collaborationId;
    process->event = event;
    process->bundleName = bundleName;
    process->callback = callback;
    if (!AddOnEventProcess(pid, uid, event, process)) {
        TNDR_SERVICE_LOGE("AddCameraProcess is failed");
        return ERR_INVALID_PARAM;
    }
    if (QueryCacheEventSize() > 0) {
        int32_t post = AsynThreadPool::AddAsynTask([this]() { InvokeCachedEvent(); });
        TNDR_SERVICE_LOGI("leave with asyn task result = %{public}d", post);
    } else {
        TNDR_SERVICE_LOGE("no cached event");
    }
    return 0;
}

std::pair<int32_t, uint32_t> CameraAbilityProcess::ProcessOnEventUnregister(int32_t pid, int32_t uid,
                                                                            std::string& event)
{
    TNDR_SERVICE_LOGI("enter, unRegister event == %{public}s", event.c_str());
    std::string key = StitchingEventToKey(pid, uid, event);
    if (key.empty()) {
        TNDR_SERVICE_LOGE("Key stitching failed.");
        return {ERR_INVALID_PARAM, 0};
    }
    if (QueryOnEventProcess(key) == nullptr) {
        TNDR_SERVICE_LOGE("event:%{public}s is registerd", event.c_str());
        return {ERR_NOT_REGISTERED, 0};
    }
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    auto it = eventProcesses_.find(key);
    if (it == eventProcesses_.end()) {
        // Removed by a concurrent unregistration or a subscriber's death in between.
        lock.unlock();
        TNDR_SERVICE_LOGE("event:%{public}s is registerd", event.c_str());
        return {ERR_NOT_REGISTERED, 0};
    }
    uint32_t collaborationId = it->second != nullptr ? it->second->collaborationId : 0;
    eventProcesses_.erase(it);
    return {0, collaborationId};
}

std::string CameraAbilityProcess::StitchingEventToKey(int32_t pid, int32_t uid, const std::string& event)
{
    // Joined without a separator: pid 12 with uid 345 and pid 123 with uid 45 give one key.
    std::string pidText = std::to_string(pid);
    std::string uidText = std::to_string(uid);
    if (pidText.empty() || uidText.empty()) {
        TNDR_SERVICE_LOGE("string is None");
        return std::string();
    }
    return pidText + uidText + event;
}

bool CameraAbilityProcess::AddOnEventProcess(int32_t pid, int32_t uid, std::string& event,
                                             std::shared_ptr<OnEventProcess> process)
{
    std::string key = StitchingEventToKey(pid, uid, event);
    if (key.empty()) {
        TNDR_SERVICE_LOGE("Key stitching failed.");
        return false;
    }
    return AddOnEventProcess(key, std::move(process));
}

bool CameraAbilityProcess::AddOnEventProcess(std::string key, std::shared_ptr<OnEventProcess> process)
{
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return eventProcesses_.emplace(std::move(key), std::move(process)).second;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(std::string key)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    auto it = eventProcesses_.find(key);
    return it == eventProcesses_.end() ? nullptr : it->second;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(int32_t pid, int32_t uid, std::string& event)
{
    std::string key = StitchingEventToKey(pid, uid, event);
    if (key.empty()) {
        TNDR_SERVICE_LOGE("Key stitching failed.");
        return nullptr;
    }
    return QueryOnEventProcess(key);
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(uint32_t collaborationId)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    for (const auto& [key, process] : eventProcesses_) {
        if (process != nullptr && process->collaborationId == collaborationId) {
            return process;
        }
    }
    return nullptr;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(int32_t pid)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    for (const auto& [key, process] : eventProcesses_) {
        if (process != nullptr && process->pid == pid) {
            return process;
        }
    }
    return nullptr;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnBundleNameProcess(std::string& event,
                                                                               std::string& bundleName)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    for (const auto& [key, process] : eventProcesses_) {
        if (process != nullptr && process->event == event && process->bundleName == bundleName) {
            return process;
        }
    }
    return nullptr;
}

bool CameraAbilityProcess::EraseOnEventProcess(std::string key)
{
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return eventProcesses_.erase(key) > 0;
}

bool CameraAbilityProcess::EraseOnEventByPid(int32_t pid)
{
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    for (auto it = eventProcesses_.begin(); it != eventProcesses_.end();) {
        if (it->second != nullptr && it->second->pid == pid) {
            it = eventProcesses_.erase(it);
        } else {
            ++it;
        }
    }
    TNDR_SERVICE_LOGI("eventProcessingSessions size is %{public}lu",
                      static_cast<unsigned long>(eventProcesses_.size()));
    return true;
}

void CameraAbilityProcess::AddCachedEvent(uint32_t code, std::string& event, std::string& bundleName)
{
    std::unique_lock<std::shared_mutex> lock(cachedEventMutex_);
    cachedEvents_.push_back(CachedEvent{code, event, bundleName});
}

CachedEvent CameraAbilityProcess::PopCachedEvent()
{
    std::unique_lock<std::shared_mutex> lock(cachedEventMutex_);
    if (cachedEvents_.empty()) {
        return CachedEvent();
    }
    CachedEvent front = std::move(cachedEvents_.front());
    cachedEvents_.pop_front();
    return front;
}

size_t CameraAbilityProcess::QueryCacheEventSize()
{
    std::shared_lock<std::shared_mutex> lock(cachedEventMutex_);
    return cachedEvents_.size();
}

void CameraAbilityProcess::InvokeCachedEvent()
{
    // Only the entries present now: one that still finds no subscriber is appended again and
    // must wait for the next subscription rather than be retried in this pass.
    const size_t count = QueryCacheEventSize();
    for (size_t i = 0; i < count; ++i) {
        CachedEvent entry = PopCachedEvent();
        if (entry.code != 0) {
            ProcessCancelTakePhotoCallBack(entry.code, entry.event, entry.bundleName);
        }
    }
}

void CameraAbilityProcess::ClearCachedEvent(const std::string& bundleName)
{
    TNDR_SERVICE_LOGI("clear all cached event about bundleName=%{public}s", bundleName.c_str());
    std::unique_lock<std::shared_mutex> lock(cachedEventMutex_);
    cachedEvents_.remove_if([&bundleName](const CachedEvent& entry) { return entry.bundleName == bundleName; });
}

bool CameraAbilityProcess::IsSubscribedCameraApp(const std::shared_ptr<PutPhotoContext>& context, int32_t pid,
                                                 int32_t uid)
{
    if (context == nullptr) {
        return false;
    }
    const std::string bundleName = context->GetCameraBundleName();
    if (bundleName.empty()) {
        return false;
    }
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    return std::any_of(eventProcesses_.begin(), eventProcesses_.end(), [&](const auto& entry) {
        const std::shared_ptr<OnEventProcess>& process = entry.second;
        return process != nullptr && process->pid == pid && process->uid == uid && process->bundleName == bundleName;
    });
}

int32_t CameraAbilityProcess::ProcessCancelTakePhotoCallBack(uint32_t code, std::string& event, std::string& bundleName)
{
    TNDR_SERVICE_LOGI("enter");
    std::shared_ptr<OnEventProcess> process = QueryOnBundleNameProcess(event, bundleName);
    if (process == nullptr) {
        TNDR_SERVICE_LOGI("onEvent is null, code will be cached");
        AddCachedEvent(code, event, bundleName);
        return ERR_NOT_DELIVERED;
    }
    MessageParcel data;
    int32_t requestCode = CallbackSkeletonProxy::BuildCollaborationCallbackCode(data, CALLBACK_SERVICE_EVENT,
                                                                                CALLBACK_SUB_CANCEL, 0, 0, 0);
    if (requestCode < 0) {
        TNDR_SERVICE_LOGE("build callback five code failed");
        return ERR_INVALID_PARAM;
    }
    if (!data.WriteUint32(code) || !data.WriteUint32(process->collaborationId) ||
        !data.WriteString(CALLBACK_FILLER_TEXT)) {
        TNDR_SERVICE_LOGE("errorCode write failed");
        return ERR_INVALID_PARAM;
    }
    if (process->callback == nullptr) {
        TNDR_SERVICE_LOGE("callback proxy is null");
        return ERR_INVALID_PARAM;
    }
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, CALLBACK_WAIT_SECONDS);
    return process->callback->SendRequest(static_cast<uint32_t>(requestCode), data, reply, option);
}

}  // namespace Tandra
}  // namespace QUEX
