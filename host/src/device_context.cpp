// The per-process device: the installed env, the session layer bound to its bus, the pool.
#include "device_context.h"

#include "collaboration_sessions.h"
#include "listener_manager.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {
// Enough that blocked tasks never hold up new ones in practice; each blocked collaboration
// holds one or two workers.
constexpr size_t POOL_CORE_THREADS = 2;
constexpr size_t POOL_MAX_THREADS = 256;
constexpr std::chrono::milliseconds POOL_IDLE_TIMEOUT(10000);
}  // namespace

DeviceContext& DeviceContext::Get()
{
    static DeviceContext* context = new DeviceContext();
    return *context;
}

DeviceContext::DeviceContext()
    : env_(std::make_shared<DefaultDeviceEnv>()), sessions_(new CollaborationSessions()),
      pool_(new ThreadPool(POOL_CORE_THREADS, POOL_MAX_THREADS, POOL_IDLE_TIMEOUT,
                           [this] { return Env()->GetServiceIdentity(); }))
{
    env_->GetSoftBus().SetListener(sessions_.get());
}

DeviceContext::~DeviceContext() = default;

std::shared_ptr<DeviceEnv> DeviceContext::Env()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return env_;
}

std::shared_ptr<DeviceEnv> DeviceContext::InstallEnv(std::shared_ptr<DeviceEnv> env)
{
    if (env == nullptr) {
        env = std::make_shared<DefaultDeviceEnv>();
    }
    std::shared_ptr<DeviceEnv> previous;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        previous = env_;
        env_ = env;
    }
    // A wrapper around the same env keeps the same bus, and with it the sessions.
    if (previous == nullptr || &previous->GetSoftBus() != &env->GetSoftBus()) {
        if (previous != nullptr) {
            previous->GetSoftBus().SetListener(nullptr);
        }
        sessions_->Reset();
        env->GetSoftBus().SetListener(sessions_.get());
    }
    return previous;
}

ThreadPool& DeviceContext::Pool()
{
    return *pool_;
}

CollaborationSessions& DeviceContext::Sessions()
{
    return *sessions_;
}

void DeviceContext::NotifyWifiStateChanged(bool active)
{
    TNDR_HOST_LOGI("wifi %{public}s", active ? "on" : "off");
    if (!active) {
        ListenerManager::GetInstance()->NotifyWiFiShutDown();
    }
}

}  // namespace Tandra
}  // namespace QUEX
