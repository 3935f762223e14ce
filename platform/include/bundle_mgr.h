// The bundle manager: names the installed bundle (application) that a uid belongs to.
// IBundleMgr is the interface, BundleMgrProxy its client (registered by whoever needs it with
// a BrokerDelegator), BundleMgrService the device's in-process service, registered as system
// ability 401 and filled by tests and by the daemon.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "iremote_broker.h"
#include "iremote_proxy.h"
#include "iremote_stub.h"

namespace Vex {
namespace AppExecFwk {

class IBundleMgr : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"Vex.AppExecFwk.BundleMgr");
    enum : uint32_t { GET_BUNDLE_NAME_FOR_UID = 1 };
    // False when the uid belongs to no bundle.
    virtual bool GetBundleNameForUid(int32_t uid, std::string& bundleName) = 0;
};

class BundleMgrProxy : public IRemoteProxy<IBundleMgr> {
public:
    explicit BundleMgrProxy(const sptr<IRemoteObject>& object);
    bool GetBundleNameForUid(int32_t uid, std::string& bundleName) override;
};

class BundleMgrService : public IRemoteStub<IBundleMgr> {
public:
    // The device's service, created and registered as system ability 401 on first use.
    static sptr<BundleMgrService> GetOrRegister();

    bool GetBundleNameForUid(int32_t uid, std::string& bundleName) override;
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    void SetBundleName(int32_t uid, const std::string& bundleName);
    void RemoveBundle(int32_t uid);

private:
    std::mutex mutex_;
    std::map<int32_t, std::string> bundles_;
};

}  // namespace AppExecFwk
}  // namespace Vex
