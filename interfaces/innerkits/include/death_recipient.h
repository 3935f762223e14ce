// DeathRecipient: watches the framework service's remote object. When the service's process
// dies it tells its callback (OnEvent 1012 with its id and category) and drops the cached
// service proxy, so that the next request looks the service up anew.
// Thread-safety: the setters may race with OnRemoteDied (a platform death-notice thread); the
// fields sit behind an internal mutex, which is never held while the callback runs.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "callback_skeleton.h"
#include "iremote_object.h"

namespace QUEX::Tandra {

class DeathRecipient : public IRemoteObject::DeathRecipient {
public:
    static constexpr const char* DEFAULT_CATEGORY = "errorcode";

    explicit DeathRecipient(sptr<CallbackSkeleton> callback = nullptr, uint32_t id = 0,
                            std::string category = DEFAULT_CATEGORY);
    ~DeathRecipient() override = default;

    void OnRemoteDied(const wptr<IRemoteObject>& object) override;

    void SetDeathRecipientid(uint32_t id);
    void SetCategory(std::string category);
    // Keeps the first callback: a second one is ignored until DestroyData cleared the first.
    void SetCallback(sptr<CallbackSkeleton> callback);
    // Back to the initial state: id 0, category "errorcode", no callback, no held object.
    void DestroyData();

    uint32_t GetDeathRecipientid() const;
    std::string GetCategory() const;
    sptr<CallbackSkeleton> GetCallback() const;

private:
    mutable std::mutex mutex_;
    uint32_t id_;
    std::string category_;
    sptr<CallbackSkeleton> callback_;
    // Reserved for an object whose life ends with the service's; nothing sets it today.
    sptr<RefBase> heldObject_;
};

}  // namespace QUEX::Tandra
