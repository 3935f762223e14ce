// The bundle manager's proxy and in-process service. Request GET_BUNDLE_NAME_FOR_UID:
// data = interface token, Int32 uid; reply = Bool found, String bundle name.
#include "bundle_mgr.h"

#include <unistd.h>

#include "ipc_skeleton.h"
#include "system_ability_manager.h"

namespace Vex {
namespace AppExecFwk {

BundleMgrProxy::BundleMgrProxy(const sptr<IRemoteObject>& object) : IRemoteProxy<IBundleMgr>(object) {}

bool BundleMgrProxy::GetBundleNameForUid(int32_t uid, std::string& bundleName)
{
    sptr<IRemoteObject> remote = Remote();
    if (remote == nullptr) {
        return false;
    }
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    if (!data.WriteInterfaceToken(GetDescriptor()) || !data.WriteInt32(uid)) {
        return false;
    }
    if (remote->SendRequest(GET_BUNDLE_NAME_FOR_UID, data, reply, option) != ERR_NONE) {
        return false;
    }
    bool found = false;
    std::string name;
    if (!reply.ReadBool(found) || !found || !reply.ReadString(name)) {
        return false;
    }
    bundleName = name;
    return true;
}

sptr<BundleMgrService> BundleMgrService::GetOrRegister()
{
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager == nullptr) {
        return nullptr;
    }
    sptr<IRemoteObject> object = manager->CheckSystemAbility(BUNDLE_MGR_SERVICE_SYS_ABILITY_ID);
    if (object != nullptr) {
        auto* existing = dynamic_cast<BundleMgrService*>(object.GetRefPtr());
        if (existing != nullptr) {
            return existing;
        }
    }
    sptr<BundleMgrService> service;
    {
        // The service belongs to the device itself, even when the first caller is a thread
        // acting as some app's process.
        ScopedIdentity device(static_cast<int32_t>(getpid()), static_cast<int32_t>(getuid()));
        service = new BundleMgrService();
    }
    if (manager->AddSystemAbility(BUNDLE_MGR_SERVICE_SYS_ABILITY_ID, service->AsObject()) != ERR_NONE) {
        return nullptr;
    }
    return service;
}

bool BundleMgrService::GetBundleNameForUid(int32_t uid, std::string& bundleName)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = bundles_.find(uid);
    if (it == bundles_.end()) {
        return false;
    }
    bundleName = it->second;
    return true;
}

int BundleMgrService::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (code != GET_BUNDLE_NAME_FOR_UID) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        return ERR_INVALID_DATA;
    }
    int32_t uid = 0;
    if (!data.ReadInt32(uid)) {
        return ERR_INVALID_DATA;
    }
    std::string name;
    bool found = GetBundleNameForUid(uid, name);
    if (!reply.WriteBool(found) || (found && !reply.WriteString(name))) {
        return ERR_TRANSACTION_FAILED;
    }
    return ERR_NONE;
}

void BundleMgrService::SetBundleName(int32_t uid, const std::string& bundleName)
{
    std::lock_guard<std::mutex> lock(mutex_);
    bundles_[uid] = bundleName;
}

void BundleMgrService::RemoveBundle(int32_t uid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    bundles_.erase(uid);
}

}  // namespace AppExecFwk
}  // namespace Vex
