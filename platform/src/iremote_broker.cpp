// The broker registry: one proxy factory per interface descriptor.
#include "iremote_broker.h"

namespace Vex {

BrokerRegistration& BrokerRegistration::Get()
{
    // Never destroyed: delegators of unloaded libraries unregister during exit.
    static BrokerRegistration* registration = new BrokerRegistration();
    return *registration;
}

bool BrokerRegistration::Register(const std::u16string& descriptor, Constructor creator, const void* owner)
{
    if (descriptor.empty() || !creator) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return creators_.emplace(descriptor, std::make_pair(std::move(creator), owner)).second;
}

void BrokerRegistration::Unregister(const std::u16string& descriptor, const void* owner)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = creators_.find(descriptor);
    if (it != creators_.end() && it->second.second == owner) {
        creators_.erase(it);
    }
}

sptr<IRemoteBroker> BrokerRegistration::NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object)
{
    if (object == nullptr || object->GetObjectDescriptor() != descriptor) {
        return nullptr;
    }
    Constructor creator;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = creators_.find(descriptor);
        if (it == creators_.end()) {
            return nullptr;
        }
        creator = it->second.first;
    }
    // Always the registered proxy, also around a local stub: callers then go through the same
    // parcels whether the object lives here or in another process.
    return creator(object);
}

}  // namespace Vex
