// Records about abilities (the launchable parts of installed applications): AbilityInfo, one
// ability as the device's ability manager knows it; StartAbilityParam, what a command asks the
// launcher to start and on whose behalf; ServiceInfo, what a control session to a peer carries.
// Thread-safety: plain values; a shared StartAbilityParam/ServiceInfo is not changed once
// handed to another thread.
#pragma once

#include <cstdint>
#include <string>

namespace QUEX {
namespace Tandra {

struct AbilityInfo {
    std::string bundleName;
    std::string abilityName;
    std::string moduleName;
    std::string action;
    std::string abilityType;
};

struct StartAbilityParam {
    std::string bundleName;
    std::string abilityName;
    std::string action;
    std::string localAbilityName;
    std::string localBundleName;
    std::string localDeviceId;
    std::string localModuleName;
    int32_t localDeviceType = 0;
    std::string abilityType;
    bool chooseAbilityAtPeer = false;
};

// serviceType 2: a camera collaboration; sessionType 1: a control session whose opening
// carries a command text for the peer's plugin.
struct ServiceInfo {
    ServiceInfo(int32_t serviceType, int32_t sessionType, std::string sessionName, std::string commandText)
        : serviceType(serviceType), sessionType(sessionType), sessionName(std::move(sessionName)),
          commandText(std::move(commandText))
    {
    }
    int32_t serviceType;
    int32_t sessionType;
    std::string sessionName;
    std::string commandText;
};

}  // namespace Tandra
}  // namespace QUEX
