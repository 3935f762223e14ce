#include "ipc_system_abilities.h"

namespace Vex {

int SystemAbilityManagerStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                              MessageOption& option)
{
    if (code != GET_SYSTEM_ABILITY) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    int32_t id = 0;
    if (!data.ReadInt32(id)) {
        return ERR_INVALID_DATA;
    }
    sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    sptr<IRemoteObject> ability = manager != nullptr ? manager->GetSystemAbility(id) : nullptr;
    return reply.WriteRemoteObject(ability) ? ERR_NONE : ERR_INVALID_DATA;
}

sptr<IRemoteObject> QueryRemoteSystemAbility(const sptr<IRemoteObject>& remoteManager, int32_t systemAbilityId)
{
    if (remoteManager == nullptr) {
        return nullptr;
    }
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    data.WriteInt32(systemAbilityId);
    if (remoteManager->SendRequest(SystemAbilityManagerStub::GET_SYSTEM_ABILITY, data, reply, option) != ERR_NONE) {
        return nullptr;
    }
    return reply.ReadRemoteObject();
}

RemoteSystemAbilityManager::RemoteSystemAbilityManager(sptr<ISystemAbilityManager> local,
                                                       sptr<IRemoteObject> remoteManager)
    : local_(std::move(local)), remoteManager_(std::move(remoteManager))
{
}

sptr<IRemoteObject> RemoteSystemAbilityManager::GetSystemAbility(int32_t systemAbilityId)
{
    sptr<IRemoteObject> ability = local_ != nullptr ? local_->GetSystemAbility(systemAbilityId) : nullptr;
    return ability != nullptr ? ability : QueryRemoteSystemAbility(remoteManager_, systemAbilityId);
}

sptr<IRemoteObject> RemoteSystemAbilityManager::CheckSystemAbility(int32_t systemAbilityId)
{
    return GetSystemAbility(systemAbilityId);
}

int32_t RemoteSystemAbilityManager::AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& ability)
{
    return local_ != nullptr ? local_->AddSystemAbility(systemAbilityId, ability) : ERR_INVALID_DATA;
}

int32_t RemoteSystemAbilityManager::RemoveSystemAbility(int32_t systemAbilityId)
{
    return local_ != nullptr ? local_->RemoveSystemAbility(systemAbilityId) : ERR_INVALID_DATA;
}

}  // namespace Vex
