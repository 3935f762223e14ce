// Reading the framework's callback envelope, the start of every callback to an application:
// String16 interface token "quex.ITandra.ITandraCallback", Uint32 service type, Uint32
// sub-service, then three Uint32 words the applications do not use.
// Thread-safety: stateless functions.
#pragma once

#include <cstdint>
#include <string>

#include "iremote_object.h"

namespace QUEX {
namespace Tandra {
namespace Client {

const std::u16string& CallbackDescriptor();

struct CallbackEnvelope {
    uint32_t serviceType = 0;
    uint32_t subService = 0;
};

// False (with a log line) when the token is wrong or the parcel ends inside the envelope.
bool ReadCallbackEnvelope(Vex::MessageParcel& data, CallbackEnvelope& envelope);

// The event arguments: Uint32 code, Uint32 collaboration id, String text.
struct CallbackEvent {
    uint32_t code = 0;
    uint32_t collaborationId = 0;
    std::string text;
};
bool ReadCallbackEvent(Vex::MessageParcel& data, CallbackEvent& event);

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
