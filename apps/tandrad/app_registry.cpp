#include "app_registry.h"

#include <limits.h>
#include <unistd.h>

#include "ability_manager_client.h"
#include "device_service.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {
thread_local int32_t t_callerPid = -1;
}

std::string ExecutableOfPid(int32_t pid)
{
    char path[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t length = readlink(link.c_str(), path, sizeof(path) - 1);
    if (length <= 0) {
        return "";
    }
    return std::string(path, static_cast<size_t>(length));
}

AppRegistry::AppRegistry(BundleResolver resolver) : resolver_(std::move(resolver)) {}

void AppRegistry::OnConnected(int32_t pid, int32_t uid)
{
    const std::string executable = ExecutableOfPid(pid);
    App app;
    app.uid = uid;
    app.bundle = executable.empty() ? "" : resolver_(executable);
    TNDR_HOST_LOGI("app connected: pid %{public}d uid %{public}d exe %{public}s bundle %{public}s", pid, uid,
                   executable.c_str(), app.bundle.empty() ? "(none)" : app.bundle.c_str());
    std::lock_guard<std::mutex> lock(mutex_);
    apps_[pid] = std::move(app);
}

void AppRegistry::OnDisconnected(int32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    apps_.erase(pid);
    if (foregroundPid_ == pid) {
        foregroundPid_ = -1;
        PublishForeground();
    }
}

std::string AppRegistry::BundleOf(int32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = apps_.find(pid);
    return it != apps_.end() ? it->second.bundle : "";
}

int32_t AppRegistry::SetForeground(int32_t pid, bool foreground)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = apps_.find(pid);
    if (it == apps_.end() || it->second.bundle.empty()) {
        return DEVICE_ERR_NOT_AN_APP;
    }
    if (foreground) {
        foregroundPid_ = pid;
    } else if (foregroundPid_ == pid) {
        foregroundPid_ = -1;
    }
    PublishForeground();
    return 0;
}

int32_t AppRegistry::ForegroundPid()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return foregroundPid_;
}

size_t AppRegistry::Count()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return apps_.size();
}

void AppRegistry::PublishForeground()
{
    std::string bundle;
    auto it = apps_.find(foregroundPid_);
    if (it != apps_.end()) {
        bundle = it->second.bundle;
    }
    Vex::AAFwk::AbilityManagerClient::GetInstance()->SetTopAbility(
        Vex::AppExecFwk::ElementName("", bundle, bundle.empty() ? "" : "MainAbility"));
}

std::string AppRegistry::BundleForUid(int32_t uid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = apps_.find(t_callerPid);
    if (it != apps_.end() && it->second.uid == uid) {
        return it->second.bundle;
    }
    return "";
}

AppRegistry::CallerScope::CallerScope(int32_t pid) : saved_(t_callerPid)
{
    t_callerPid = pid;
}

AppRegistry::CallerScope::~CallerScope()
{
    t_callerPid = saved_;
}

bool DaemonBundleMgr::GetBundleNameForUid(int32_t uid, std::string& bundleName)
{
    std::string bundle = registry_.BundleForUid(uid);
    if (bundle.empty()) {
        return false;
    }
    bundleName = bundle;
    return true;
}

}  // namespace Tandra
}  // namespace QUEX
