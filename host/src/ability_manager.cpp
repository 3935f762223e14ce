// Abilities come from the installed device env; the bundle manager from the platform's system
// ability manager.
#include "ability_manager.h"

#include <algorithm>

#include "device_context.h"
#include "system_ability_manager.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {
// iface_cast needs a proxy factory for the bundle manager's descriptor. The plugin registers
// one too; the registry keeps whichever came first, and both build the same proxy.
Vex::BrokerDelegator<Vex::AppExecFwk::BundleMgrProxy> g_bundleMgrDelegator;

bool Matches(const AbilityInfo& ability, const AbilityFilter& filter)
{
    return ability.abilityType == filter.GetAbilityType() &&
           (filter.GetBundleName().empty() || ability.bundleName == filter.GetBundleName()) &&
           (filter.GetAbilityName().empty() || ability.abilityName == filter.GetAbilityName());
}
}  // namespace

std::shared_ptr<AbilityManager> AbilityManager::GetInstance()
{
    static auto* instance = new std::shared_ptr<AbilityManager>(std::make_shared<AbilityManager>());
    return *instance;
}

std::shared_ptr<AbilityInfo> AbilityManager::GetRemoteAbilityByAbilityFilter(const std::string& peerUdid,
                                                                             const Vex::sptr<AbilityFilter>& filter)
{
    if (filter == nullptr || peerUdid.empty()) {
        return nullptr;
    }
    for (const PeerDevice& peer : DeviceContext::Get().Env()->GetPeerDevices()) {
        if (peer.identity.udid != peerUdid) {
            continue;
        }
        for (const AbilityInfo& ability : peer.abilities) {
            if (Matches(ability, *filter)) {
                return std::make_shared<AbilityInfo>(ability);
            }
        }
    }
    return nullptr;
}

std::vector<AbilityInfo> AbilityManager::GetLocalAbilitiesWithAbilityType(const std::string& abilityType)
{
    std::vector<AbilityInfo> result;
    for (AbilityInfo& ability : DeviceContext::Get().Env()->GetLocalAbilities()) {
        if (ability.abilityType == abilityType) {
            result.push_back(std::move(ability));
        }
    }
    std::sort(result.begin(), result.end(), [](const AbilityInfo& a, const AbilityInfo& b) {
        return a.bundleName != b.bundleName ? a.bundleName < b.bundleName : a.abilityName < b.abilityName;
    });
    return result;
}

Vex::sptr<Vex::AppExecFwk::IBundleMgr> AbilityManager::GetBundleMgr()
{
    Vex::sptr<Vex::ISystemAbilityManager> manager =
        Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager == nullptr) {
        TNDR_HOST_LOGE("no system ability manager");
        return nullptr;
    }
    Vex::sptr<Vex::IRemoteObject> object = manager->GetSystemAbility(Vex::BUNDLE_MGR_SERVICE_SYS_ABILITY_ID);
    if (object == nullptr) {
        TNDR_HOST_LOGE("no bundle manager");
        return nullptr;
    }
    return Vex::iface_cast<Vex::AppExecFwk::IBundleMgr>(object);
}

}  // namespace Tandra
}  // namespace QUEX
