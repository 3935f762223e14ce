// ITandraService: the framework's system service (system ability 70633) as the plugin calls
// it. Every operation carries one request parcel that starts with the request envelope (see
// TandraProxy::BuildCollaborationServiceCode) and returns a 32-bit result; the slot order is
// part of the interface and differs from the numeric order of the request codes.
// Thread-safety: implementations may be called from any thread.
#pragma once

#include <cstdint>

#include "iremote_broker.h"
#include "message_option.h"
#include "message_parcel.h"

namespace QUEX::Tandra {
using namespace Vex;

class ITandraService : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"quex.ITandra.ITandraService");

    // Request codes, also the service type written first in the envelope.
    enum ServiceCode : uint32_t {
        GET_COLLABORATION_SERVICE = 1,
        COLLABORATION_TO_DEVICE = 101,
        DEVICE_PICKER = 201,
        COMMON_DATA_CHANNEL = 301,
        ICONNECT_DOWN_MESSAGE = 401,
        MESHLINE = 501,
        SURFACE_TRANSFER = 601,
    };

    ~ITandraService() override = default;

    virtual int32_t GetCollaborationServiceEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    virtual int32_t CollaborationToDeviceEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    virtual int32_t DevicePickerEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    virtual int32_t CommonDataChannelEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    virtual int32_t SurfaceTransferEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    virtual int32_t IConnectDownMessageEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    virtual int32_t MeshlineEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
};

}  // namespace QUEX::Tandra
