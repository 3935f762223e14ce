#include "system_ability_manager.h"

namespace Vex {

sptr<IRemoteObject> SystemAbilityManager::GetSystemAbility(int32_t systemAbilityId)
{
    return CheckSystemAbility(systemAbilityId);
}

sptr<IRemoteObject> SystemAbilityManager::CheckSystemAbility(int32_t systemAbilityId)
{
    sptr<IRemoteObject> dead;  // released after unlocking: it may be the last reference
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = abilities_.find(systemAbilityId);
    if (it == abilities_.end()) {
        return nullptr;
    }
    // An ability whose process died is no longer offered, as a real manager forgets it.
    if (it->second->IsObjectDead()) {
        dead = std::move(it->second);
        abilities_.erase(it);
        return nullptr;
    }
    return it->second;
}

int32_t SystemAbilityManager::AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& ability)
{
    if (ability == nullptr) {
        return ERR_INVALID_DATA;
    }
    sptr<IRemoteObject> previous;
    std::lock_guard<std::mutex> lock(mutex_);
    previous = abilities_[systemAbilityId];
    abilities_[systemAbilityId] = ability;
    return ERR_NONE;
}

int32_t SystemAbilityManager::RemoveSystemAbility(int32_t systemAbilityId)
{
    sptr<IRemoteObject> removed;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = abilities_.find(systemAbilityId);
    if (it == abilities_.end()) {
        return ERR_INVALID_DATA;
    }
    removed = std::move(it->second);
    abilities_.erase(it);
    return ERR_NONE;
}

SystemAbilityManagerClient& SystemAbilityManagerClient::GetInstance()
{
    // Never destroyed: abilities held here may be stubs whose destructors need the platform.
    static SystemAbilityManagerClient* client = new SystemAbilityManagerClient();
    return *client;
}

SystemAbilityManagerClient::SystemAbilityManagerClient() : manager_(new SystemAbilityManager()) {}

sptr<ISystemAbilityManager> SystemAbilityManagerClient::GetSystemAbilityManager()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return manager_;
}

void SystemAbilityManagerClient::SetSystemAbilityManager(const sptr<ISystemAbilityManager>& manager)
{
    sptr<ISystemAbilityManager> previous;
    std::lock_guard<std::mutex> lock(mutex_);
    previous = manager_;
    manager_ = manager;
}

}  // namespace Vex
