// AppRegistry: the applications connected to this daemon, each known by the pid and uid the
// socket's peer credentials gave, and by the bundle its executable belongs to
// (/proc/<pid>/exe matched against the ability manifests; never what the app says). It keeps
// which one is in the foreground and tells the platform's ability manager, and answers the
// bundle manager's question "which bundle is this uid" for the app whose request is being
// served on the calling thread (apps of one user share a uid, so the uid alone cannot tell).
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "bundle_mgr.h"

namespace QUEX {
namespace Tandra {

class AppRegistry {
public:
    // Names the bundle of an executable path; empty when no manifest names it.
    using BundleResolver = std::function<std::string(const std::string& executable)>;
    explicit AppRegistry(BundleResolver resolver);

    void OnConnected(int32_t pid, int32_t uid);
    // The app's process is gone: it leaves the foreground and the registry.
    void OnDisconnected(int32_t pid);

    // The bundle of a connected app; empty when unknown.
    std::string BundleOf(int32_t pid);
    // 0; DEVICE_ERR_NOT_AN_APP when the process's executable is no installed app.
    int32_t SetForeground(int32_t pid, bool foreground);
    int32_t ForegroundPid();
    size_t Count();

    // The bundle of uid as seen from the request being served on this thread.
    std::string BundleForUid(int32_t uid);

    // Marks the app whose request the current thread serves, until the scope ends.
    class CallerScope {
    public:
        explicit CallerScope(int32_t pid);
        ~CallerScope();
        CallerScope(const CallerScope&) = delete;
        CallerScope& operator=(const CallerScope&) = delete;

    private:
        int32_t saved_;
    };

    AppRegistry(const AppRegistry&) = delete;
    AppRegistry& operator=(const AppRegistry&) = delete;

private:
    struct App {
        int32_t uid = -1;
        std::string bundle;
    };
    void PublishForeground();  // REQUIRES: mutex_ held

    const BundleResolver resolver_;
    std::mutex mutex_;
    std::map<int32_t, App> apps_;
    int32_t foregroundPid_ = -1;
};

// The daemon's bundle manager (system ability 401): answers from the registry.
class DaemonBundleMgr : public Vex::AppExecFwk::BundleMgrService {
public:
    explicit DaemonBundleMgr(AppRegistry& registry) : registry_(registry) {}
    bool GetBundleNameForUid(int32_t uid, std::string& bundleName) override;

private:
    AppRegistry& registry_;
};

// The executable of a running process (resolved link of /proc/<pid>/exe), empty if unreadable.
std::string ExecutableOfPid(int32_t pid);

}  // namespace Tandra
}  // namespace QUEX
