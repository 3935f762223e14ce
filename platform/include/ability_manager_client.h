// AbilityManagerClient: the device's ability manager as seen by a service: which ability is
// in the foreground. Set by tests and by the daemon when the foreground app changes.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>

namespace Vex {
namespace AppExecFwk {

class ElementName {
public:
    ElementName() = default;
    ElementName(std::string deviceId, std::string bundleName, std::string abilityName, std::string moduleName = "")
        : deviceId_(std::move(deviceId)), bundleName_(std::move(bundleName)), abilityName_(std::move(abilityName)),
          moduleName_(std::move(moduleName))
    {
    }
    const std::string& GetDeviceID() const { return deviceId_; }
    const std::string& GetBundleName() const { return bundleName_; }
    const std::string& GetAbilityName() const { return abilityName_; }
    const std::string& GetModuleName() const { return moduleName_; }

private:
    std::string deviceId_;
    std::string bundleName_;
    std::string abilityName_;
    std::string moduleName_;
};

}  // namespace AppExecFwk

namespace AAFwk {

class AbilityManagerClient {
public:
    static std::shared_ptr<AbilityManagerClient> GetInstance();
    // The foreground ability; empty names when none is.
    AppExecFwk::ElementName GetTopAbility();
    void SetTopAbility(const AppExecFwk::ElementName& element);

private:
    std::mutex mutex_;
    AppExecFwk::ElementName top_;
};

}  // namespace AAFwk
}  // namespace Vex
