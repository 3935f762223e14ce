#include "photo_callerInfo.h"

#include <new>

#include "vex_log_tags.h"

namespace QUEX::Tandra {

bool PhotoCallerInfo::Marshalling(Parcel& parcel) const
{
    // The module name stays on this device: the peer of this parcel never needs it.
    bool written = parcel.WriteInt32(collaborationSessionId_) && parcel.WriteString(abilityName_) &&
                   parcel.WriteString(bundleName_) && parcel.WriteString(deviceId_) && parcel.WriteUint32(deviceType_);
    if (!written) {
        TNDR_PROXY_LOGE("parcel parse failed");
        return false;
    }
    return true;
}

sptr<PhotoCallerInfo> PhotoCallerInfo::Unmarshalling(Parcel& parcel)
{
    int32_t collaborationSessionId = parcel.ReadInt32();
    std::string abilityName = parcel.ReadString();
    std::string bundleName = parcel.ReadString();
    std::string deviceId = parcel.ReadString();
    uint32_t deviceType = parcel.ReadUint32();
    sptr<PhotoCallerInfo> info = new (std::nothrow) PhotoCallerInfo();
    if (info == nullptr) {
        return nullptr;
    }
    info->collaborationSessionId_ = collaborationSessionId;
    info->abilityName_ = std::move(abilityName);
    info->bundleName_ = std::move(bundleName);
    info->deviceId_ = std::move(deviceId);
    info->deviceType_ = deviceType;
    return info;
}

bool PhotoInfo::Marshalling(Parcel& /*parcel*/) const
{
    return false;
}

sptr<PhotoInfo> PhotoInfo::Unmarshalling(Parcel& /*parcel*/)
{
    return nullptr;
}

}  // namespace QUEX::Tandra
