#include "tandra_service_client.h"

#include "client_codes.h"
#include "client_log.h"
#include "host_service_stub.h"
#include "host_types.h"
#include "system_ability_manager.h"

namespace QUEX {
namespace Tandra {
namespace Client {

class TandraServiceClient::DeathWatch : public Vex::IRemoteObject::DeathRecipient {
public:
    explicit DeathWatch(std::function<void()> onDeath) : onDeath_(std::move(onDeath)) {}
    void OnRemoteDied(const Vex::wptr<Vex::IRemoteObject>&) override { Fire(); }
    void Fire()
    {
        std::function<void()> onDeath;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            onDeath = std::move(onDeath_);
            onDeath_ = nullptr;
        }
        if (onDeath) {
            onDeath();
        }
    }
    // After this, the watch never calls out (a notice already running finishes first).
    void Disarm()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        onDeath_ = nullptr;
    }

private:
    std::mutex mutex_;
    std::function<void()> onDeath_;
};

Vex::sptr<Vex::IRemoteObject> TandraServiceClient::FindService()
{
    Vex::sptr<Vex::ISystemAbilityManager> manager =
        Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    return manager != nullptr ? manager->GetSystemAbility(TANDRA_SA_ID) : nullptr;
}

TandraServiceClient::TandraServiceClient(Vex::sptr<Vex::IRemoteObject> service) : service_(std::move(service)) {}

TandraServiceClient::~TandraServiceClient()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (watch_ != nullptr) {
        watch_->Disarm();
        if (service_ != nullptr) {
            service_->RemoveDeathRecipient(watch_);
        }
    }
}

int32_t TandraServiceClient::Send(uint32_t request, const ArgsWriter& writeArgs, Vex::MessageParcel& reply,
                                  int waitSeconds) const
{
    if (service_ == nullptr) {
        TNDR_APP_LOGE("no framework service to send request %{public}u to", request);
        return Vex::ERR_DEAD_OBJECT;
    }
    Vex::MessageParcel data;
    bool written = data.WriteInterfaceToken(HostServiceStub::GetDescriptor()) &&
                   data.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
    for (uint32_t word : {request, 0u, 0u, 0u}) {
        written = written && data.WriteUint32(word);
    }
    if (!written || (writeArgs && !writeArgs(data))) {
        TNDR_APP_LOGE("arguments of request %{public}u could not be written", request);
        return RESULT_INVALID;
    }
    Vex::MessageOption option(Vex::MessageOption::TF_SYNC, waitSeconds);
    int32_t status = service_->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option);
    if (status != Vex::ERR_NONE) {
        TNDR_APP_LOGE("request %{public}u did not reach the service: %{public}d", request, status);
        // A positive transport status would read as a result of the request.
        return status < 0 ? status : Vex::ERR_TRANSACTION_FAILED;
    }
    return 0;
}

int32_t TandraServiceClient::SendForResult(uint32_t request, const ArgsWriter& writeArgs, int waitSeconds) const
{
    Vex::MessageParcel reply;
    int32_t status = Send(request, writeArgs, reply, waitSeconds);
    if (status != 0) {
        return status;
    }
    int32_t result = 0;
    if (!reply.ReadInt32(result)) {
        TNDR_APP_LOGE("the reply to request %{public}u carries no result", request);
        return Vex::ERR_INVALID_DATA;
    }
    return result;
}

void TandraServiceClient::WatchDeath(std::function<void()> onDeath)
{
    Vex::sptr<DeathWatch> watch = new DeathWatch(std::move(onDeath));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (watch_ != nullptr) {
            watch_->Disarm();
            if (service_ != nullptr) {
                service_->RemoveDeathRecipient(watch_);
            }
        }
        watch_ = watch;
        if (service_ != nullptr && service_->AddDeathRecipient(watch)) {
            return;
        }
    }
    TNDR_APP_LOGE("the framework service is gone");
    watch->Fire();
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
