// IRemoteProxy<I>: the client side of interface I; it holds the remote object and sends each
// call as a request on it (Remote()). The same proxy works over any transport.
// Thread-safety: the held object is set once; calls may come from any thread.
#pragma once

#include "iremote_broker.h"
#include "iremote_object.h"

namespace Vex {

class PeerHolder {
protected:
    explicit PeerHolder(const sptr<IRemoteObject>& object) : remoteObject_(object) {}
    ~PeerHolder() = default;
    sptr<IRemoteObject> Remote() const { return remoteObject_; }

private:
    const sptr<IRemoteObject> remoteObject_;
};

template <typename INTERFACE>
class IRemoteProxy : public PeerHolder, public INTERFACE {
public:
    explicit IRemoteProxy(const sptr<IRemoteObject>& object) : PeerHolder(object) {}
    sptr<IRemoteObject> AsObject() override { return Remote(); }
};

}  // namespace Vex
