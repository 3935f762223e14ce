#include "death_recipient.h"

#include <utility>

#include "ipc_result_codes.h"
#include "meshline_manager.h"
#include "tandrakit_proxy.h"
#include "vex_log_tags.h"

namespace QUEX::Tandra {

DeathRecipient::DeathRecipient(sptr<CallbackSkeleton> callback, uint32_t id, std::string category)
    : id_(id), category_(std::move(category)), callback_(std::move(callback))
{
}

void DeathRecipient::SetDeathRecipientid(uint32_t id)
{
    TNDR_CLIENT_LOGI("enter");
    std::lock_guard<std::mutex> lock(mutex_);
    id_ = id;
}

void DeathRecipient::SetCategory(std::string category)
{
    TNDR_CLIENT_LOGI("enter");
    std::lock_guard<std::mutex> lock(mutex_);
    category_ = std::move(category);
}

void DeathRecipient::SetCallback(sptr<CallbackSkeleton> callback)
{
    TNDR_CLIENT_LOGI("enter");
    std::lock_guard<std::mutex> lock(mutex_);
    if (callback_ == nullptr) {
        callback_ = std::move(callback);
    }
}

void DeathRecipient::DestroyData()
{
    sptr<RefBase> held;
    sptr<CallbackSkeleton> callback;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        id_ = 0;
        held = std::move(heldObject_);
        callback = std::move(callback_);
        category_ = DEFAULT_CATEGORY;
    }
}

uint32_t DeathRecipient::GetDeathRecipientid() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return id_;
}

std::string DeathRecipient::GetCategory() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return category_;
}

sptr<CallbackSkeleton> DeathRecipient::GetCallback() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return callback_;
}

void DeathRecipient::OnRemoteDied(const wptr<IRemoteObject>&)
{
    TNDR_CLIENT_LOGI("enter");
    // The manager may drop its reference below; this call must outlive that.
    sptr<DeathRecipient> self(this);
    sptr<CallbackSkeleton> callback;
    uint32_t id = 0;
    std::string category;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callback = callback_;
        id = id_;
        category = category_;
    }
    if (callback != nullptr) {
        (void)callback->OnEvent(IpcResult::SERVICE_DEAD, id, category);
    } else {
        TNDR_CLIENT_LOGI("callback is nullptr.");
    }
    // This recipient watched the dead object only: a later registration must attach anew.
    MeshlineManager::GetInstance().ForgetDeathRecipient(this);
    if (TandraProxy::GetInstance() == nullptr) {
        TNDR_PROXY_LOGE("tandrakit_proxy is null.");
        return;
    }
    sptr<RefBase> held;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        id_ = 0;
        // Releasing the held object is all the proxy would do with it.
        held = std::move(heldObject_);
        callback = std::move(callback_);
    }
    TandraProxy::DestoryInstance();
    TNDR_CLIENT_LOGI("leave");
}

}  // namespace QUEX::Tandra
