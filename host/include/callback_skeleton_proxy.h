// CallbackSkeletonProxy: the host's client of an application's callback object (interface
// "quex.ITandra.ITandraCallback"). Every callback parcel starts with the callback envelope that
// BuildCollaborationCallbackCode writes:
//   String16 interface token "quex.ITandra.ITandraCallback";
//   Uint32 service type; Uint32 sub-service type; Uint32 operate code; Uint32 sub-operate code;
//   Uint32 command;
// and is sent with the request code that BuildCollaborationCallbackCode returns: 101
// (collaboration to device) for service types 101 (events: sub-service 103 put-image result,
// 104 collaboration event, 106 cancel; then Uint32 code, Uint32 collaboration id, String text),
// 102 (photo data: sub-service 105; then Uint32 status, Uint32 collaboration id, Uint32 size,
// raw data of size bytes) and 103 (ability state/data). The application replies with an Int32.
// Thread-safety: calls may come from any thread.
#pragma once

#include <cstdint>

#include "iremote_broker.h"
#include "iremote_proxy.h"

namespace QUEX {
namespace Tandra {

class ICollaborationCallback : public Vex::IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"quex.ITandra.ITandraCallback");
    virtual int32_t SendRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                Vex::MessageOption& option) = 0;
};

class CallbackSkeletonProxy : public Vex::IRemoteProxy<ICollaborationCallback> {
public:
    explicit CallbackSkeletonProxy(const Vex::sptr<Vex::IRemoteObject>& object);
    // Writes the envelope; the request code to send with (> 0), or -1 when a write failed.
    static int32_t BuildCollaborationCallbackCode(Vex::MessageParcel& data, uint32_t serviceType,
                                                  uint32_t subServiceType, uint32_t operateCode,
                                                  uint32_t subOperateCode, uint32_t command);
    // Sends to the application's callback object; the transport's result.
    int32_t SendRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;
    Vex::sptr<Vex::IRemoteObject> GetRemote() const { return Remote(); }
};

}  // namespace Tandra
}  // namespace QUEX
