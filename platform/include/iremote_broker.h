// IRemoteBroker and the broker registry: an interface (I...) that can be obtained from any
// remote object through iface_cast. Proxy classes register a factory under their interface
// descriptor with a static BrokerDelegator<Proxy>; iface_cast<I>(object) checks that the
// object's descriptor is I's descriptor and builds the registered proxy around it, so a local
// stub and a remote object are called the same way.
// Thread-safety: the registry is guarded internally; iface_cast may be called from any thread.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "iremote_object.h"
#include "refbase.h"

namespace Vex {

class IRemoteBroker : public virtual RefBase {
public:
    virtual sptr<IRemoteObject> AsObject() = 0;
};

// The descriptor is never destroyed: static BrokerDelegators of other libraries unregister by
// it while the process exits, possibly after the copy in the executable would be gone.
#define DECLARE_INTERFACE_DESCRIPTOR(DESCRIPTOR)                                  \
    static const std::u16string& GetDescriptor()                                  \
    {                                                                             \
        static const std::u16string* descriptor = new std::u16string(DESCRIPTOR); \
        return *descriptor;                                                       \
    }

class BrokerRegistration {
public:
    using Constructor = std::function<sptr<IRemoteBroker>(const sptr<IRemoteObject>& object)>;
    static BrokerRegistration& Get();

    // False when a factory is already registered under the descriptor.
    bool Register(const std::u16string& descriptor, Constructor creator, const void* owner);
    // Removes the factory only if owner registered it.
    void Unregister(const std::u16string& descriptor, const void* owner);
    // Null when the object is null, its descriptor differs, or no factory is registered.
    sptr<IRemoteBroker> NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object);

private:
    std::mutex mutex_;
    std::map<std::u16string, std::pair<Constructor, const void*>> creators_;
};

template <typename T>
class BrokerDelegator {
public:
    BrokerDelegator()
    {
        registered_ = BrokerRegistration::Get().Register(
            T::GetDescriptor(),
            [](const sptr<IRemoteObject>& object) -> sptr<IRemoteBroker> {
                T* proxy = new (std::nothrow) T(object);
                return sptr<IRemoteBroker>(static_cast<IRemoteBroker*>(proxy));
            },
            this);
    }
    ~BrokerDelegator()
    {
        if (registered_) {
            BrokerRegistration::Get().Unregister(T::GetDescriptor(), this);
        }
    }
    BrokerDelegator(const BrokerDelegator&) = delete;
    BrokerDelegator& operator=(const BrokerDelegator&) = delete;

private:
    bool registered_ = false;
};

template <typename INTERFACE>
sptr<INTERFACE> iface_cast(const sptr<IRemoteObject>& object)
{
    sptr<IRemoteBroker> broker = BrokerRegistration::Get().NewInstance(INTERFACE::GetDescriptor(), object);
    if (broker == nullptr) {
        return nullptr;
    }
    return sptr<INTERFACE>(dynamic_cast<INTERFACE*>(broker.GetRefPtr()));
}

}  // namespace Vex
