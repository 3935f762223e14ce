// The records an application hands the framework with a take-photo request: the peer device
// chosen in the device picker (DeviceInfo), the requesting application itself (LocalInfo), the
// kind of ability wanted on the peer (AbilityFilter), and PickerResult, which carries all three.
// Each crosses IPC as a parcelable; parcel layouts (in order):
//   DeviceInfo:    String networkId; String udid; String deviceName; Uint32 deviceType
//   LocalInfo:     String bundleName; String abilityName; String moduleName; String deviceId;
//                  Uint32 deviceType
//   AbilityFilter: String abilityType; String bundleName; String abilityName
//   PickerResult:  each of AbilityFilter, DeviceInfo, LocalInfo as a strong parcelable
//                  (Int32 presence flag, then the record)
// Thread-safety: immutable once built; share freely after construction.
#pragma once

#include <string>

#include "parcel.h"

namespace QUEX {
namespace Tandra {

class DeviceInfo : public Vex::Parcelable {
public:
    DeviceInfo() = default;
    DeviceInfo(std::string networkId, std::string udid, std::string deviceName, uint32_t deviceType);
    const std::string& GetDeviceNetworkId() const { return networkId_; }
    const std::string& GetDeviceUdid() const { return udid_; }
    const std::string& GetDeviceName() const { return deviceName_; }
    uint32_t GetDeviceType() const { return deviceType_; }
    bool Marshalling(Vex::Parcel& parcel) const override;
    static DeviceInfo* Unmarshalling(Vex::Parcel& parcel);

private:
    std::string networkId_;
    std::string udid_;
    std::string deviceName_;
    uint32_t deviceType_ = 0;
};

class LocalInfo : public Vex::Parcelable {
public:
    LocalInfo() = default;
    LocalInfo(std::string bundleName, std::string abilityName, std::string moduleName, std::string deviceId,
              uint32_t deviceType);
    const std::string& GetLocalBundleName() const { return bundleName_; }
    const std::string& GetLocalAbilityName() const { return abilityName_; }
    const std::string& GetLocalModuleName() const { return moduleName_; }
    const std::string& GetLocalDeviceId() const { return deviceId_; }
    uint32_t GetLocalDeviceType() const { return deviceType_; }
    bool Marshalling(Vex::Parcel& parcel) const override;
    static LocalInfo* Unmarshalling(Vex::Parcel& parcel);

private:
    std::string bundleName_;
    std::string abilityName_;
    std::string moduleName_;
    std::string deviceId_;
    uint32_t deviceType_ = 0;
};

class AbilityFilter : public Vex::Parcelable {
public:
    AbilityFilter() = default;
    explicit AbilityFilter(std::string abilityType, std::string bundleName = "", std::string abilityName = "");
    const std::string& GetAbilityType() const { return abilityType_; }
    const std::string& GetBundleName() const { return bundleName_; }
    const std::string& GetAbilityName() const { return abilityName_; }
    bool Marshalling(Vex::Parcel& parcel) const override;
    static AbilityFilter* Unmarshalling(Vex::Parcel& parcel);

private:
    std::string abilityType_;
    std::string bundleName_;
    std::string abilityName_;
};

class PickerResult : public Vex::Parcelable {
public:
    PickerResult() = default;
    PickerResult(Vex::sptr<AbilityFilter> filter, Vex::sptr<DeviceInfo> device, Vex::sptr<LocalInfo> local);
    Vex::sptr<AbilityFilter> GetAbilityFilter() const { return abilityFilter_; }
    Vex::sptr<DeviceInfo> GetDeviceInfo() const { return deviceInfo_; }
    Vex::sptr<LocalInfo> GetLocalDeviceInfo() const { return localInfo_; }
    bool Marshalling(Vex::Parcel& parcel) const override;
    static PickerResult* Unmarshalling(Vex::Parcel& parcel);

private:
    Vex::sptr<AbilityFilter> abilityFilter_;
    Vex::sptr<DeviceInfo> deviceInfo_;
    Vex::sptr<LocalInfo> localInfo_;
};

}  // namespace Tandra
}  // namespace QUEX
