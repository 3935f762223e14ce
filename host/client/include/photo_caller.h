// PhotoCaller: who a camera application's put-image and remote-cancel requests come from: the
// collaboration session it was started for, its own ability and bundle, this device's id and
// type. Written into the request as a present-flagged record in this order:
//   Int32 1 (present); Int32 collaborationSessionId; String abilityName; String bundleName;
//   String deviceId; Uint32 deviceType.
// Thread-safety: a plain value.
#pragma once

#include <cstdint>
#include <string>

#include "parcel.h"

namespace QUEX {
namespace Tandra {
namespace Client {

struct PhotoCaller {
    int32_t collaborationSessionId = 0;  // given to the camera application when it is started
    std::string abilityName;
    std::string bundleName;
    std::string deviceId;
    uint32_t deviceType = 0;

    // The presence flag, then the record; false when a write failed.
    bool WriteTo(Vex::Parcel& parcel) const;
    // Reads what WriteTo wrote (flag included); false when the flag is 0 or the parcel is short.
    static bool ReadFrom(Vex::Parcel& parcel, PhotoCaller& caller);
};

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
