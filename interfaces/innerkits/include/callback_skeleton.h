// CallbackSkeleton: the stub through which the framework's system service calls back into the
// plugin. It checks the interface token, decodes each call by request code and sub-service
// type, and calls one virtual operation; the defaults only log and return 0, so a concrete
// callback overrides the one operation it needs. Results go back as the reply's Int32 where
// the call has one.
// Thread-safety: calls arrive on IPC threads, several at once; the skeleton holds no state,
// so overriding classes guard their own data.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "iremote_stub.h"
#include "itandra_callback.h"
#include "meshline_info.h"

namespace QUEX::Tandra {

class CallbackSkeleton : public IRemoteStub<ITandraCallback> {
public:
    // Sub-service types of the Meshline callbacks (request code 501).
    enum MeshlineEventType : uint32_t {
        DISCONNECT_DEVICE = 502,
        STATE_NOTIFY = 503,
        SERVICE_STATE_CHANGED = 504,
        DISCONNECTED = 505,
        APPLY_RESULT = 506,
    };
    // Longest photo data accepted in one call (128 MiB).
    static constexpr uint32_t MAX_PHOTO_DATA_LENGTH = 0x8000000;

    CallbackSkeleton();
    ~CallbackSkeleton() override;
    CallbackSkeleton(const CallbackSkeleton&) = delete;
    CallbackSkeleton& operator=(const CallbackSkeleton&) = delete;

    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    // The events, one per kind of call; override the ones a callback cares about.
    virtual int32_t OnDataCallback(uint32_t code, uint32_t type, uint32_t length, std::unique_ptr<char[]> data);
    virtual int32_t OnEvent(uint32_t code, uint32_t eventId, std::string& data);
    virtual int32_t DisconnectDevice(std::string deviceId, uint32_t serviceType);
    virtual int32_t StateNotify(int32_t state, std::vector<uint32_t> ids, std::vector<sptr<ServiceStateInfo>> infos);
    virtual int32_t OnServiceStateChanged(std::string first, std::string second, std::string third, int32_t state,
                                          int32_t value);
    virtual int32_t OnDisconnected(std::string first, int32_t value);
    virtual int32_t OnDisconnected(std::string second, std::string third);
    virtual int32_t ApplyResult(std::string first, std::string second, std::string third, int32_t value,
                                int32_t resultCode);
    virtual void OnCollaborationAbilityState(int32_t state);
    virtual void OnCollaborationAbilityData(int32_t type, const uint8_t* buffer, uint32_t length);

    // Decoders, one per request code; each returns the result of the call.
    virtual int32_t MeshlineCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);
    virtual int32_t CollaborationToDeviceCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);
    virtual int32_t CommonDataChannelCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);
    virtual int32_t DevicePickerCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);
    virtual int32_t GetCollaborationServiceCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);
    virtual int32_t SurfaceTransferCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);
    virtual int32_t IConnectDownMessageCallback(MessageParcel& data, MessageParcel& reply, MessageOption& option);

protected:
    // The ids and state records of a state notice; 0, or 1001 when the lists are unreadable.
    static int32_t ParseNotifyStateCallback(MessageParcel& data, std::vector<uint32_t>& ids,
                                            std::vector<sptr<ServiceStateInfo>>& infos);

private:
    struct Header {
        uint32_t serviceType;
        uint32_t subServiceType;
        uint32_t operateCode;
        uint32_t subOperateCode;
        uint32_t command;
    };
    static Header ReadHeader(MessageParcel& data);
    static int32_t ReadSubCode(MessageParcel& data);
    int32_t DataPretreatment(MessageParcel& data);
};

}  // namespace QUEX::Tandra
