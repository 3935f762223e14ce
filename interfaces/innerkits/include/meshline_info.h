// The records exchanged with the Meshline connection-management service: a resource
// application (ResourceRequest of HardwareRequest entries and one CommunicationRequest), the
// service's collaboration tasks (DistributeTaskInfo) and a device's link state
// (ServiceStateInfo). Their parcel layouts are a wire format shared with the service and keep
// their field order exactly. Records are plain values: not synchronised, one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "parcel.h"
#include "refbase.h"

namespace QUEX::Tandra {
using namespace Vex;

// Only the numbers travel; the plugin asks for 1 (shareable) and 4 (exclusive).
enum class HardwareType : uint32_t {
    UNKNOWN = 0,
    CAMERA = 1,
    DISPLAY = 4,
};

class MeshlineInfo {
public:
    static const std::string EXTRA_PRIVATE_PID;
    static const std::string EXTRA_PRIVATE_UID;
};

class DistributeTaskInfo : public Parcelable {
public:
    DistributeTaskInfo() = default;
    DistributeTaskInfo(std::string deviceId, uint32_t serviceType, uint32_t linkType);

    const std::string& GetDeviceId() const { return deviceId_; }
    uint32_t GetServiceType() const { return serviceType_; }
    uint32_t GetLinkType() const { return linkType_; }
    uint32_t GetConnectState() const { return connectState_; }
    uint32_t GetCanDisconnectFlag() const { return canDisconnectFlag_; }
    void SetConnectState(uint32_t connectState) { connectState_ = connectState; }
    void SetCanDisconnectFlag(uint32_t flag) { canDisconnectFlag_ = flag; }

    bool Marshalling(Parcel& parcel) const override;
    static sptr<DistributeTaskInfo> Unmarshalling(Parcel& parcel);

private:
    std::string deviceId_;
    uint32_t serviceType_ = 0;
    uint32_t linkType_ = 0;
    uint32_t connectState_ = 0;
    uint32_t canDisconnectFlag_ = 0;
};

// Logs its construction and destruction: the service's state notices are traced by them.
class ServiceStateInfo : public Parcelable {
public:
    ServiceStateInfo();
    ServiceStateInfo(std::string deviceId, uint32_t linkType, uint32_t connectState);
    ~ServiceStateInfo() override;

    const std::string& GetDeviceId() const { return deviceId_; }
    void SetDeviceId(std::string deviceId) { deviceId_ = std::move(deviceId); }
    uint32_t GetLinkType() const { return linkType_; }
    void SetLinkType(uint32_t linkType) { linkType_ = linkType; }
    uint32_t GetConnectState() const { return connectState_; }
    void SetConnectState(uint32_t connectState) { connectState_ = connectState; }

    bool Marshalling(Parcel& parcel) const override;
    static sptr<ServiceStateInfo> Unmarshalling(Parcel& parcel);

private:
    std::string deviceId_;
    uint32_t linkType_ = 0;
    uint32_t connectState_ = 0;
};

class HardwareRequest : public Parcelable {
public:
    HardwareRequest(HardwareType type, bool canShare) : hardwareType_(type), canShare_(canShare) {}

    HardwareType GetHardwareType() const { return hardwareType_; }
    bool CanShare() const { return canShare_; }

    bool Marshalling(Parcel& parcel) const override;
    static sptr<HardwareRequest> Unmarshalling(Parcel& parcel);

private:
    HardwareType hardwareType_;
    bool canShare_;
};

class CommunicationRequest : public Parcelable {
public:
    CommunicationRequest(int minBandwidth, int maxLatency, int minLatency, int maxWaitTime, int maxBuffer)
        : minBandwidth_(minBandwidth), maxLatency_(maxLatency), minLatency_(minLatency), maxWaitTime_(maxWaitTime),
          maxBuffer_(maxBuffer)
    {
    }

    int32_t GetMinBandwidth() const { return minBandwidth_; }
    int32_t GetMaxLatency() const { return maxLatency_; }
    int32_t GetMinLatency() const { return minLatency_; }
    int32_t GetMaxWaitTime() const { return maxWaitTime_; }
    int32_t GetMaxBuffer() const { return maxBuffer_; }
    int32_t GetMaxIdleTime() const { return maxIdleTime_; }
    void SetMaxIdleTime(int maxIdleTime) { maxIdleTime_ = maxIdleTime; }
    int32_t GetFirstPackge() const { return firstPackage_; }
    void SetFirstPackge(int firstPackage) { firstPackage_ = firstPackage; }
    int32_t GetTransReliability() const { return transReliability_; }
    void SetTransReliability(int transReliability) { transReliability_ = transReliability; }
    const std::string& GetDataType() const { return dataType_; }
    void SetDataType(std::string dataType) { dataType_ = std::move(dataType); }

    bool Marshalling(Parcel& parcel) const override;
    static sptr<CommunicationRequest> Unmarshalling(Parcel& parcel);

private:
    int32_t minBandwidth_;
    int32_t maxLatency_;
    int32_t minLatency_;
    int32_t maxWaitTime_;
    int32_t maxBuffer_;
    int32_t maxIdleTime_ = 0;
    int32_t firstPackage_ = 0;
    int32_t transReliability_ = 0;
    std::string dataType_;
};

class ResourceRequest : public Parcelable {
public:
    // A parcel may announce at most this many entries per hardware list.
    static constexpr uint32_t MAX_HARDWARE_REQUESTS = 1000;

    ResourceRequest();

    std::vector<sptr<HardwareRequest>> GetRemoteHardwareList() const { return remoteHardwareList_; }
    void SetRemoteHardwareList(std::vector<sptr<HardwareRequest>> list) { remoteHardwareList_ = std::move(list); }
    std::vector<sptr<HardwareRequest>> GetLocalHardwareList() const { return localHardwareList_; }
    void SetLocalHardwareList(std::vector<sptr<HardwareRequest>> list) { localHardwareList_ = std::move(list); }
    sptr<CommunicationRequest> GetCommunicationRequest() const { return communicationRequest_; }
    void SetCommunicationRequest(sptr<CommunicationRequest> request) { communicationRequest_ = std::move(request); }

    bool Marshalling(Parcel& parcel) const override;
    static sptr<ResourceRequest> Unmarshalling(Parcel& parcel);

private:
    std::vector<sptr<HardwareRequest>> remoteHardwareList_;
    std::vector<sptr<HardwareRequest>> localHardwareList_;
    sptr<CommunicationRequest> communicationRequest_;
};

}  // namespace QUEX::Tandra
