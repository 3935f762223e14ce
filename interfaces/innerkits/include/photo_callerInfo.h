// The photo records of a put-image request on the serving device. PhotoCallerInfo names the
// camera application and the collaboration it works for; it travels inside the put-image and
// remote-cancel request parcels (the module name stays local: it is never written). PhotoInfo
// holds the photos as file descriptors; it never crosses IPC (its parcel operations refuse on
// purpose) and does not own the descriptors: the put-image flow closes them.
// Thread-safety: plain records; one thread at a time, shared read-only once handed on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "parcel.h"
#include "refbase.h"

namespace QUEX::Tandra {
using namespace Vex;

class PhotoCallerInfo : public Parcelable {
public:
    PhotoCallerInfo() = default;
    ~PhotoCallerInfo() override = default;

    int32_t GetCollaborationSessionId() const { return collaborationSessionId_; }
    void SetCollaborationSessionId(int32_t collaborationSessionId) { collaborationSessionId_ = collaborationSessionId; }
    std::string GetAbilityName() const { return abilityName_; }
    void SetAbilityName(std::string abilityName) { abilityName_ = std::move(abilityName); }
    std::string GetBundleName() const { return bundleName_; }
    void SetBundleName(std::string bundleName) { bundleName_ = std::move(bundleName); }
    std::string GetDeviceId() const { return deviceId_; }
    void SetDeviceId(std::string deviceId) { deviceId_ = std::move(deviceId); }
    std::string GetModuleName() const { return moduleName_; }
    void SetModuleName(std::string moduleName) { moduleName_ = std::move(moduleName); }
    uint32_t GetDeviceType() const { return deviceType_; }
    void SetDeviceType(uint32_t deviceType) { deviceType_ = deviceType; }

    // Int32 session id, String ability, String bundle, String device id, Uint32 device type.
    bool Marshalling(Parcel& parcel) const override;
    // Reads the same five values; null only when the record cannot be allocated.
    static sptr<PhotoCallerInfo> Unmarshalling(Parcel& parcel);

private:
    int32_t collaborationSessionId_ = 0;
    std::string abilityName_;
    std::string bundleName_;
    std::string deviceId_;
    std::string moduleName_;
    uint32_t deviceType_ = 0;
};

class PhotoInfo : public Parcelable {
public:
    // Every record built by the put-image and remote-cancel requests carries this id.
    static constexpr uint32_t PUT_IMAGE_INTERFACE_ID = 1;

    PhotoInfo() = default;
    ~PhotoInfo() override = default;

    int32_t GetPhotoFd() const { return photoFd_; }
    uint32_t GetErrCode() const { return errCode_; }
    void SetErrCode(uint32_t errCode) { errCode_ = errCode; }
    // Set apart from the list: the request states a count, the list holds what was read.
    uint32_t GetPhotoCount() const { return photoCount_; }
    void SetPhotoCount(uint32_t photoCount) { photoCount_ = photoCount; }
    std::vector<int32_t> GetPhotoFdList() const { return photoFdList_; }
    void SetPhotoFdList(std::vector<int32_t> photoFdList) { photoFdList_ = std::move(photoFdList); }
    uint32_t GetInterfaceId() const { return interfaceId_; }
    void SetInterfaceId(uint32_t interfaceId) { interfaceId_ = interfaceId; }

    // The descriptors cannot travel inside a plain parcel: the request carries them as
    // separate values. Writes nothing and returns false.
    bool Marshalling(Parcel& parcel) const override;
    // Always null, for the same reason.
    static sptr<PhotoInfo> Unmarshalling(Parcel& parcel);

private:
    int32_t photoFd_ = 0;
    uint32_t errCode_ = 0;
    uint32_t photoCount_ = 0;
    std::vector<int32_t> photoFdList_;
    uint32_t interfaceId_ = PUT_IMAGE_INTERFACE_ID;
};

}  // namespace QUEX::Tandra
