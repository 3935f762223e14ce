// Parcel forms of the take-photo request records; layouts are documented in the header.
#include "collaboration_records.h"

#include <memory>
#include <new>

namespace QUEX {
namespace Tandra {

namespace {

// Reading a record either yields the whole object or nothing.
template <typename T, typename ReadFn>
T* ReadRecord(ReadFn read)
{
    std::unique_ptr<T> record(new (std::nothrow) T());
    if (record == nullptr || !read(*record)) {
        return nullptr;
    }
    return record.release();
}

template <typename T>
bool ReadMember(Vex::Parcel& parcel, Vex::sptr<T>& member)
{
    int32_t present = 0;
    if (!parcel.ReadInt32(present)) {
        return false;
    }
    if (present == 0) {
        return true;
    }
    member = T::Unmarshalling(parcel);
    return member != nullptr;
}

}  // namespace

DeviceInfo::DeviceInfo(std::string networkId, std::string udid, std::string deviceName, uint32_t deviceType)
    : networkId_(std::move(networkId)), udid_(std::move(udid)), deviceName_(std::move(deviceName)),
      deviceType_(deviceType)
{
}

bool DeviceInfo::Marshalling(Vex::Parcel& parcel) const
{
    return parcel.WriteString(networkId_) && parcel.WriteString(udid_) && parcel.WriteString(deviceName_) &&
           parcel.WriteUint32(deviceType_);
}

DeviceInfo* DeviceInfo::Unmarshalling(Vex::Parcel& parcel)
{
    return ReadRecord<DeviceInfo>([&parcel](DeviceInfo& info) {
        return parcel.ReadString(info.networkId_) && parcel.ReadString(info.udid_) &&
               parcel.ReadString(info.deviceName_) && parcel.ReadUint32(info.deviceType_);
    });
}

LocalInfo::LocalInfo(std::string bundleName, std::string abilityName, std::string moduleName, std::string deviceId,
                     uint32_t deviceType)
    : bundleName_(std::move(bundleName)), abilityName_(std::move(abilityName)), moduleName_(std::move(moduleName)),
      deviceId_(std::move(deviceId)), deviceType_(deviceType)
{
}

bool LocalInfo::Marshalling(Vex::Parcel& parcel) const
{
    return parcel.WriteString(bundleName_) && parcel.WriteString(abilityName_) && parcel.WriteString(moduleName_) &&
           parcel.WriteString(deviceId_) && parcel.WriteUint32(deviceType_);
}

LocalInfo* LocalInfo::Unmarshalling(Vex::Parcel& parcel)
{
    return ReadRecord<LocalInfo>([&parcel](LocalInfo& info) {
        return parcel.ReadString(info.bundleName_) && parcel.ReadString(info.abilityName_) &&
               parcel.ReadString(info.moduleName_) && parcel.ReadString(info.deviceId_) &&
               parcel.ReadUint32(info.deviceType_);
    });
}

AbilityFilter::AbilityFilter(std::string abilityType, std::string bundleName, std::string abilityName)
    : abilityType_(std::move(abilityType)), bundleName_(std::move(bundleName)), abilityName_(std::move(abilityName))
{
}

bool AbilityFilter::Marshalling(Vex::Parcel& parcel) const
{
    return parcel.WriteString(abilityType_) && parcel.WriteString(bundleName_) && parcel.WriteString(abilityName_);
}

AbilityFilter* AbilityFilter::Unmarshalling(Vex::Parcel& parcel)
{
    return ReadRecord<AbilityFilter>([&parcel](AbilityFilter& filter) {
        return parcel.ReadString(filter.abilityType_) && parcel.ReadString(filter.bundleName_) &&
               parcel.ReadString(filter.abilityName_);
    });
}

PickerResult::PickerResult(Vex::sptr<AbilityFilter> filter, Vex::sptr<DeviceInfo> device, Vex::sptr<LocalInfo> local)
    : abilityFilter_(std::move(filter)), deviceInfo_(std::move(device)), localInfo_(std::move(local))
{
}

bool PickerResult::Marshalling(Vex::Parcel& parcel) const
{
    return parcel.WriteParcelable(abilityFilter_.GetRefPtr()) && parcel.WriteParcelable(deviceInfo_.GetRefPtr()) &&
           parcel.WriteParcelable(localInfo_.GetRefPtr());
}

PickerResult* PickerResult::Unmarshalling(Vex::Parcel& parcel)
{
    // A member may be absent (presence flag 0); a present member that cannot be read fails the
    // whole record.
    return ReadRecord<PickerResult>([&parcel](PickerResult& result) {
        return ReadMember(parcel, result.abilityFilter_) && ReadMember(parcel, result.deviceInfo_) &&
               ReadMember(parcel, result.localInfo_);
    });
}

}  // namespace Tandra
}  // namespace QUEX
