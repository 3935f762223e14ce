// System abilities across a connection: the server exports a stub that answers look-ups from
// its own system ability manager as handle 0, and a client may install a manager that asks
// the server for what it does not have itself.
// Thread-safety: both classes may be called from any thread.
#pragma once

#include <memory>

#include "iremote_stub.h"
#include "system_ability_manager.h"

namespace Vex {

constexpr char16_t SYSTEM_ABILITY_MANAGER_DESCRIPTOR[] = u"vex.ISystemAbilityManager";

class SystemAbilityManagerStub : public IPCObjectStub {
public:
    enum : uint32_t { GET_SYSTEM_ABILITY = 1 };
    SystemAbilityManagerStub() : IPCObjectStub(SYSTEM_ABILITY_MANAGER_DESCRIPTOR) {}
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
};

// Asks the server's manager (handle 0) for an ability; null when absent or unreachable.
sptr<IRemoteObject> QueryRemoteSystemAbility(const sptr<IRemoteObject>& remoteManager, int32_t systemAbilityId);

class RemoteSystemAbilityManager : public ISystemAbilityManager {
public:
    RemoteSystemAbilityManager(sptr<ISystemAbilityManager> local, sptr<IRemoteObject> remoteManager);
    // Local abilities first, then the server's.
    sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) override;
    sptr<IRemoteObject> CheckSystemAbility(int32_t systemAbilityId) override;
    // Registrations stay local: a client publishes nothing to the server.
    int32_t AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& ability) override;
    int32_t RemoveSystemAbility(int32_t systemAbilityId) override;

private:
    const sptr<ISystemAbilityManager> local_;
    const sptr<IRemoteObject> remoteManager_;
};

}  // namespace Vex
