#include "photo_caller.h"

namespace QUEX {
namespace Tandra {
namespace Client {

bool PhotoCaller::WriteTo(Vex::Parcel& parcel) const
{
    return parcel.WriteInt32(1) && parcel.WriteInt32(collaborationSessionId) && parcel.WriteString(abilityName) &&
           parcel.WriteString(bundleName) && parcel.WriteString(deviceId) && parcel.WriteUint32(deviceType);
}

bool PhotoCaller::ReadFrom(Vex::Parcel& parcel, PhotoCaller& caller)
{
    int32_t present = 0;
    return parcel.ReadInt32(present) && present != 0 && parcel.ReadInt32(caller.collaborationSessionId) &&
           parcel.ReadString(caller.abilityName) && parcel.ReadString(caller.bundleName) &&
           parcel.ReadString(caller.deviceId) && parcel.ReadUint32(caller.deviceType);
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
