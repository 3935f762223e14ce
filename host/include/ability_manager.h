// AbilityManager: the host's knowledge of abilities: those of peer devices (learned with the
// device list) and the local ones, and the platform's bundle manager.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ability_records.h"
#include "bundle_mgr.h"
#include "collaboration_records.h"

namespace QUEX {
namespace Tandra {

class AbilityManager {
public:
    static std::shared_ptr<AbilityManager> GetInstance();

    // The ability of the peer (identified by its UDID) that matches the filter: same ability
    // type, and same bundle/ability name where the filter names them. Null when none does.
    std::shared_ptr<AbilityInfo> GetRemoteAbilityByAbilityFilter(const std::string& peerUdid,
                                                                 const Vex::sptr<AbilityFilter>& filter);
    // The local abilities of a type, ordered by bundle name then ability name.
    std::vector<AbilityInfo> GetLocalAbilitiesWithAbilityType(const std::string& abilityType);
    // The platform's bundle manager (system ability 401), null when it cannot be reached.
    Vex::sptr<Vex::AppExecFwk::IBundleMgr> GetBundleMgr();
};

}  // namespace Tandra
}  // namespace QUEX
