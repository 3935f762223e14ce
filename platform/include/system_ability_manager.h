// System abilities: the device's well-known services, each a remote object under a numeric
// id. SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager() is the way in.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "iremote_object.h"
#include "refbase.h"

namespace Vex {

constexpr int32_t BUNDLE_MGR_SERVICE_SYS_ABILITY_ID = 401;

class ISystemAbilityManager : public virtual RefBase {
public:
    // Null when no ability is registered under the id.
    virtual sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) = 0;
    virtual sptr<IRemoteObject> CheckSystemAbility(int32_t systemAbilityId) = 0;
    virtual int32_t AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& ability) = 0;
    virtual int32_t RemoveSystemAbility(int32_t systemAbilityId) = 0;
};

// The in-process registry: the device's own system abilities.
class SystemAbilityManager : public ISystemAbilityManager {
public:
    sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) override;
    sptr<IRemoteObject> CheckSystemAbility(int32_t systemAbilityId) override;
    int32_t AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& ability) override;
    int32_t RemoveSystemAbility(int32_t systemAbilityId) override;

private:
    std::mutex mutex_;
    std::map<int32_t, sptr<IRemoteObject>> abilities_;
};

class SystemAbilityManagerClient {
public:
    static SystemAbilityManagerClient& GetInstance();
    // Null only while a test has taken the manager away.
    sptr<ISystemAbilityManager> GetSystemAbilityManager();
    // Test and daemon seam: replace the manager (null simulates a device without one).
    void SetSystemAbilityManager(const sptr<ISystemAbilityManager>& manager);

private:
    SystemAbilityManagerClient();
    std::mutex mutex_;
    sptr<ISystemAbilityManager> manager_;
};

}  // namespace Vex
