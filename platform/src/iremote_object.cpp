#include "iremote_object.h"

#include "iremote_broker.h"

namespace Vex {

IRemoteObject::IRemoteObject(std::u16string descriptor) : descriptor_(std::move(descriptor)) {}

IRemoteObject::~IRemoteObject() = default;

sptr<IRemoteBroker> IRemoteObject::AsInterface()
{
    return nullptr;
}

}  // namespace Vex
