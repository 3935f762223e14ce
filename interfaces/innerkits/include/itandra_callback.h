// ITandraCallback: the interface through which the framework's system service calls back into
// the plugin. It carries only its descriptor; CallbackSkeleton decodes the calls.
// Thread-safety: as the implementing stub.
#pragma once

#include <cstdint>

#include "iremote_broker.h"

namespace QUEX::Tandra {
using namespace Vex;

class ITandraCallback : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"quex.ITandra.ITandraCallback");

    // Request codes of the callbacks; the values mirror the service's request codes.
    enum CallbackCode : uint32_t {
        GET_COLLABORATION_SERVICE = 1,
        COLLABORATION_TO_DEVICE = 101,
        DEVICE_PICKER = 201,
        COMMON_DATA_CHANNEL = 301,
        ICONNECT_DOWN_MESSAGE = 401,
        MESHLINE = 501,
        SURFACE_TRANSFER = 601,
    };

    ~ITandraCallback() override = default;
};

}  // namespace QUEX::Tandra
