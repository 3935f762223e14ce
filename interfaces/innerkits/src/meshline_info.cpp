#include "meshline_info.h"

#include <new>

#include "vex_log_tags.h"

namespace QUEX::Tandra {

const std::string MeshlineInfo::EXTRA_PRIVATE_PID = "privatePid";
const std::string MeshlineInfo::EXTRA_PRIVATE_UID = "privateUid";

namespace {

// Reads one hardware list; null entries stay in the list as they came.
bool ReadHardwareList(Parcel& parcel, std::vector<sptr<HardwareRequest>>& list)
{
    uint32_t count = parcel.ReadUint32();
    if (count > ResourceRequest::MAX_HARDWARE_REQUESTS) {
        MESHLINE_LOGE("Hardware request vector too large.");
        return false;
    }
    list.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        list.push_back(parcel.ReadStrongParcelable<HardwareRequest>());
    }
    return true;
}

}  // namespace

DistributeTaskInfo::DistributeTaskInfo(std::string deviceId, uint32_t serviceType, uint32_t linkType)
    : deviceId_(std::move(deviceId)), serviceType_(serviceType), linkType_(linkType)
{
}

bool DistributeTaskInfo::Marshalling(Parcel& parcel) const
{
    bool written = parcel.WriteString(deviceId_) && parcel.WriteUint32(serviceType_) && parcel.WriteUint32(linkType_) &&
                   parcel.WriteUint32(connectState_) && parcel.WriteUint32(canDisconnectFlag_);
    if (!written) {
        MESHLINE_LOGE("failed:DistributeTaskInfo linkType= %{public}d", linkType_);
        return false;
    }
    MESHLINE_LOGI("success:DistributeTaskInfo linkType= %{public}d", linkType_);
    return true;
}

sptr<DistributeTaskInfo> DistributeTaskInfo::Unmarshalling(Parcel& parcel)
{
    std::string deviceId = parcel.ReadString();
    uint32_t serviceType = parcel.ReadUint32();
    uint32_t linkType = parcel.ReadUint32();
    uint32_t connectState = parcel.ReadUint32();
    uint32_t canDisconnectFlag = parcel.ReadUint32();
    sptr<DistributeTaskInfo> info = new (std::nothrow) DistributeTaskInfo(std::move(deviceId), serviceType, linkType);
    if (info == nullptr) {
        MESHLINE_LOGE("new distributeTaskInfo failed, linkType= %{public}d", linkType);
        return nullptr;
    }
    info->SetConnectState(connectState);
    info->SetCanDisconnectFlag(canDisconnectFlag);
    return info;
}

ServiceStateInfo::ServiceStateInfo()
{
    MESHLINE_LOGI("Create ServiceSateInfo");
}

ServiceStateInfo::ServiceStateInfo(std::string deviceId, uint32_t linkType, uint32_t connectState)
    : deviceId_(std::move(deviceId)), linkType_(linkType), connectState_(connectState)
{
    MESHLINE_LOGI("Create ServiceSateInfo linkType= %{public}d", linkType_);
}

ServiceStateInfo::~ServiceStateInfo()
{
    MESHLINE_LOGI("destory:ServiceSateInfo linkType= %{public}d", linkType_);
}

bool ServiceStateInfo::Marshalling(Parcel& parcel) const
{
    bool written = parcel.WriteString(deviceId_) && parcel.WriteUint32(linkType_) && parcel.WriteUint32(connectState_);
    if (!written) {
        MESHLINE_LOGE("failed:ServiceSateInfo linkType= %{public}d", linkType_);
        return false;
    }
    MESHLINE_LOGI("success:ServiceSateInfo linkType= %{public}d", linkType_);
    return true;
}

sptr<ServiceStateInfo> ServiceStateInfo::Unmarshalling(Parcel& parcel)
{
    std::string deviceId = parcel.ReadString();
    uint32_t linkType = parcel.ReadUint32();
    uint32_t connectState = parcel.ReadUint32();
    sptr<ServiceStateInfo> info = new (std::nothrow) ServiceStateInfo(std::move(deviceId), linkType, connectState);
    if (info == nullptr) {
        MESHLINE_LOGE("new ServiceStateInfo failed, linkType= %{public}d", linkType);
        return nullptr;
    }
    return info;
}

bool HardwareRequest::Marshalling(Parcel& parcel) const
{
    if (!parcel.WriteUint32(static_cast<uint32_t>(hardwareType_)) || !parcel.WriteBool(canShare_)) {
        MESHLINE_LOGE("Hardware request write parcelable failed.");
        return false;
    }
    return true;
}

sptr<HardwareRequest> HardwareRequest::Unmarshalling(Parcel& parcel)
{
    auto type = static_cast<HardwareType>(parcel.ReadUint32());
    bool canShare = parcel.ReadBool();
    sptr<HardwareRequest> request = new (std::nothrow) HardwareRequest(type, canShare);
    if (request == nullptr) {
        MESHLINE_LOGE("New hardwareRequest failed");
        return nullptr;
    }
    return request;
}

bool CommunicationRequest::Marshalling(Parcel& parcel) const
{
    bool written = parcel.WriteInt32(minBandwidth_) && parcel.WriteInt32(maxLatency_) &&
                   parcel.WriteInt32(minLatency_) && parcel.WriteInt32(maxWaitTime_) && parcel.WriteInt32(maxBuffer_) &&
                   parcel.WriteInt32(maxIdleTime_) && parcel.WriteInt32(firstPackage_) &&
                   parcel.WriteInt32(transReliability_) && parcel.WriteString(dataType_);
    if (!written) {
        MESHLINE_LOGE("Communication Request write parcelable failed.");
        return false;
    }
    return true;
}

sptr<CommunicationRequest> CommunicationRequest::Unmarshalling(Parcel& parcel)
{
    int32_t minBandwidth = parcel.ReadInt32();
    int32_t maxLatency = parcel.ReadInt32();
    int32_t minLatency = parcel.ReadInt32();
    int32_t maxWaitTime = parcel.ReadInt32();
    int32_t maxBuffer = parcel.ReadInt32();
    int32_t maxIdleTime = parcel.ReadInt32();
    int32_t firstPackage = parcel.ReadInt32();
    int32_t transReliability = parcel.ReadInt32();
    std::string dataType = parcel.ReadString();
    sptr<CommunicationRequest> request =
        new (std::nothrow) CommunicationRequest(minBandwidth, maxLatency, minLatency, maxWaitTime, maxBuffer);
    if (request == nullptr) {
        MESHLINE_LOGE("New communicationRequest failed");
        return nullptr;
    }
    request->SetMaxIdleTime(maxIdleTime);
    request->SetFirstPackge(firstPackage);
    request->SetTransReliability(transReliability);
    request->SetDataType(std::move(dataType));
    return request;
}

ResourceRequest::ResourceRequest()
{
    // Error level is deliberate for this line; keep it.
    MESHLINE_LOGE("enter.");
}

bool ResourceRequest::Marshalling(Parcel& parcel) const
{
    if (!parcel.WriteUint32(static_cast<uint32_t>(remoteHardwareList_.size()))) {
        MESHLINE_LOGE("RemoteHardware request list size write parcelable failed.");
        return false;
    }
    for (const auto& entry : remoteHardwareList_) {
        if (!parcel.WriteStrongParcelable(entry)) {
            MESHLINE_LOGE("RemoteHardware request list write parcelable failed.");
            return false;
        }
    }
    if (!parcel.WriteUint32(static_cast<uint32_t>(localHardwareList_.size()))) {
        MESHLINE_LOGE("LocalHardware request list size write parcelable failed.");
        return false;
    }
    for (const auto& entry : localHardwareList_) {
        if (!parcel.WriteStrongParcelable(entry)) {
            MESHLINE_LOGE("LocalHardware request list write parcelable failed.");
            return false;
        }
    }
    if (!parcel.WriteStrongParcelable(communicationRequest_)) {
        TNDR_CLIENT_LOGE("write ResourceRequest failed: communicationRequest = %{public}d",
                         communicationRequest_ == nullptr ? 1 : 0);
        return false;
    }
    return true;
}

sptr<ResourceRequest> ResourceRequest::Unmarshalling(Parcel& parcel)
{
    std::vector<sptr<HardwareRequest>> remoteList;
    if (!ReadHardwareList(parcel, remoteList)) {
        return nullptr;
    }
    std::vector<sptr<HardwareRequest>> localList;
    if (!ReadHardwareList(parcel, localList)) {
        return nullptr;
    }
    sptr<CommunicationRequest> communication = parcel.ReadStrongParcelable<CommunicationRequest>();
    sptr<ResourceRequest> request = new (std::nothrow) ResourceRequest();
    if (request == nullptr) {
        // The hardware text is kept for this record too: log scanners match on it.
        MESHLINE_LOGE("New hardwareRequest failed");
        return nullptr;
    }
    request->SetRemoteHardwareList(std::move(remoteList));
    request->SetLocalHardwareList(std::move(localList));
    request->SetCommunicationRequest(std::move(communication));
    return request;
}

}  // namespace QUEX::Tandra
