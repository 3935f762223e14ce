#include "callback_envelope.h"

#include "client_log.h"

namespace QUEX {
namespace Tandra {
namespace Client {

const std::u16string& CallbackDescriptor()
{
    static const std::u16string descriptor(u"quex.ITandra.ITandraCallback");
    return descriptor;
}

bool ReadCallbackEnvelope(Vex::MessageParcel& data, CallbackEnvelope& envelope)
{
    if (data.ReadInterfaceToken() != CallbackDescriptor()) {
        TNDR_APP_LOGE("callback with a foreign interface token refused");
        return false;
    }
    uint32_t unused = 0;
    if (!data.ReadUint32(envelope.serviceType) || !data.ReadUint32(envelope.subService) ||
        !data.ReadUint32(unused) || !data.ReadUint32(unused) || !data.ReadUint32(unused)) {
        TNDR_APP_LOGE("callback envelope cut short");
        return false;
    }
    return true;
}

bool ReadCallbackEvent(Vex::MessageParcel& data, CallbackEvent& event)
{
    if (!data.ReadUint32(event.code) || !data.ReadUint32(event.collaborationId) || !data.ReadString(event.text)) {
        TNDR_APP_LOGE("callback event cut short");
        return false;
    }
    return true;
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
