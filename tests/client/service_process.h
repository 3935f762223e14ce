// The framework service as a process of its own, for client tests that kill it: it hands each
// request to the host's real service stub with the caller's identity, as the daemon would.
// Thread-safety: requests may arrive on any thread; the object keeps no state of its own.
#pragma once

#include "host_service_stub.h"
#include "ipc_skeleton.h"

namespace QUEX::Tandra::ClientTesting {

class ServiceProcess : public Vex::IPCObjectStub {
public:
    static Vex::sptr<ServiceProcess> Start(int32_t pid)
    {
        Vex::ScopedIdentity as(pid, 1000);
        return new ServiceProcess();
    }
    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override
    {
        Vex::ScopedCallingIdentity call(Vex::IPCSkeleton::GetCallingIdentity(), Vex::IPCSkeleton::GetSelfIdentity());
        return host_->OnRemoteRequest(code, data, reply, option);
    }

private:
    ServiceProcess() : Vex::IPCObjectStub(HostServiceStub::GetDescriptor()) {}
    Vex::sptr<HostServiceStub> host_ = new HostServiceStub();
};

}  // namespace QUEX::Tandra::ClientTesting
