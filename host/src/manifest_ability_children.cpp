// Child processes of the launcher: spawning with the start parameters, reaping, termination.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host_types.h"
#include "manifest_ability_launcher.h"
#include "vex_log_tags.h"

extern char** environ;

namespace QUEX::Tandra {

namespace {

std::vector<std::string> ChildEnvironment(int32_t collaborationSessionId, const StartAbilityParam& param,
                                          const AbilityInfo& ability)
{
    const std::pair<const char*, std::string> ours[] = {
        {"TANDRA_COLLABORATION_SESSION_ID", std::to_string(collaborationSessionId)},
        {"TANDRA_BUNDLE_NAME", ability.bundleName},
        {"TANDRA_ABILITY_NAME", ability.abilityName},
        {"TANDRA_ACTION", param.action},
        {"TANDRA_ABILITY_TYPE", param.abilityType},
        {"TANDRA_REQUESTER_DEVICE_ID", param.localDeviceId},
        {"TANDRA_REQUESTER_DEVICE_TYPE", std::to_string(param.localDeviceType)},
        {"TANDRA_REQUESTER_BUNDLE_NAME", param.localBundleName},
        {"TANDRA_REQUESTER_ABILITY_NAME", param.localAbilityName},
        {"TANDRA_REQUESTER_MODULE_NAME", param.localModuleName},
    };
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        // Stale values of ours (a daemon started from a camera app's shell) must not leak in;
        // the daemon's own socket, which it sets for its children, does.
        if (std::strncmp(*entry, "TANDRA_", 7) != 0 || std::strncmp(*entry, "TANDRA_SOCKET=", 14) == 0) {
            environment.emplace_back(*entry);
        }
    }
    for (const auto& [name, value] : ours) {
        environment.push_back(std::string(name) + "=" + value);
    }
    return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (auto& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

ManifestAbilityLauncher::~ManifestAbilityLauncher()
{
    TerminateAll();
}

int32_t ManifestAbilityLauncher::StartAbility(int32_t collaborationSessionId, const StartAbilityParam& param)
{
    JoinFinished();
    const AbilityManifest* chosen = nullptr;
    for (const auto& manifest : manifests_) {
        const AbilityInfo& info = manifest.info;
        if (info.bundleName == param.bundleName &&
            (info.abilityName == param.abilityName || (param.abilityName.empty() && info.action == param.action))) {
            chosen = &manifest;
            break;
        }
    }
    if (chosen == nullptr) {
        TNDR_HOST_LOGE("no installed ability %{public}s/%{public}s: add its manifest to the abilities folder",
                       param.bundleName.c_str(), param.abilityName.c_str());
        return HOST_ERR_START_ABILITY;
    }
    std::vector<std::string> argv{chosen->execPath};
    argv.insert(argv.end(), chosen->execArgs.begin(), chosen->execArgs.end());
    std::vector<std::string> envp = ChildEnvironment(collaborationSessionId, param, chosen->info);
    std::vector<char*> argvPointers = Pointers(argv);
    std::vector<char*> envpPointers = Pointers(envp);

    // The daemon may block signals for its own signal handling: the child starts with none
    // blocked and default dispositions, so SIGTERM ends it.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGCHLD, SIGQUIT}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::lock_guard<std::mutex> lock(mutex_);
    if (terminating_) {
        posix_spawnattr_destroy(&attributes);
        TNDR_HOST_LOGE("launcher is shutting down: %{public}s not started", chosen->info.bundleName.c_str());
        return HOST_ERR_START_ABILITY;
    }
    pid_t pid = 0;
    int result = posix_spawn(&pid, chosen->execPath.c_str(), nullptr, &attributes, argvPointers.data(),
                             envpPointers.data());
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        TNDR_HOST_LOGE("cannot start %{public}s (%{public}s): %{public}s", chosen->info.bundleName.c_str(),
                       chosen->execPath.c_str(), std::strerror(result));
        return HOST_ERR_START_ABILITY;
    }
    TNDR_HOST_LOGI("started %{public}s/%{public}s as pid %{public}d for session %{public}d",
                   chosen->info.bundleName.c_str(), chosen->info.abilityName.c_str(), pid, collaborationSessionId);
    children_[pid] = {chosen->info.bundleName, chosen->info.abilityName, collaborationSessionId};
    // Inserted under the lock the reaper takes first, so it always finds itself.
    reapers_.emplace(pid, std::thread([this, pid]() { Reap(pid); }));
    return 0;
}

void ManifestAbilityLauncher::Reap(pid_t pid)
{
    int status = 0;
    pid_t reaped = -1;
    do {
        reaped = waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    ChildExit exit;
    exit.pid = pid;
    if (reaped == pid) {
        exit.exited = WIFEXITED(status);
        exit.exitCode = exit.exited ? WEXITSTATUS(status) : 0;
        exit.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    ExitObserver observer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const Child& child = children_[pid];
        exit.bundleName = child.bundleName;
        exit.abilityName = child.abilityName;
        exit.collaborationSessionId = child.collaborationSessionId;
        children_.erase(pid);
        observer = observer_;
    }
    TNDR_HOST_LOGI("%{public}s (pid %{public}d) ended: exit code %{public}d, signal %{public}d",
                   exit.bundleName.c_str(), pid, exit.exitCode, exit.signal);
    if (observer) {
        observer(exit);
    }
    // Leaves the reaper list only once its observer ran: an empty list means every exit was told.
    std::lock_guard<std::mutex> lock(mutex_);
    auto self = reapers_.find(pid);
    finished_.push_back(std::move(self->second));
    reapers_.erase(self);
    exited_.notify_all();
}

void ManifestAbilityLauncher::JoinFinished()
{
    std::vector<std::thread> finished;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished.swap(finished_);
    }
    for (auto& thread : finished) {
        if (thread.get_id() == std::this_thread::get_id()) {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_.push_back(std::move(thread));  // an observer starting a child: joined later
        } else {
            thread.join();
        }
    }
}

void ManifestAbilityLauncher::SetExitObserver(ExitObserver observer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(observer);
}

std::vector<pid_t> ManifestAbilityLauncher::RunningChildren() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<pid_t> pids;
    for (const auto& [pid, child] : children_) {
        pids.push_back(pid);
    }
    return pids;
}

bool ManifestAbilityLauncher::WaitForNoChildren(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    // Reapers notify after their observer ran, so "no children" here means observers are done too.
    return exited_.wait_for(lock, timeout, [this]() { return children_.empty() && reapers_.empty(); });
}

void ManifestAbilityLauncher::OnSessionReleased(int32_t collaborationSessionId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [pid, child] : children_) {
        if (child.collaborationSessionId == collaborationSessionId) {
            TNDR_HOST_LOGI("session %{public}d released: ending %{public}s (pid %{public}d)", collaborationSessionId,
                           child.bundleName.c_str(), pid);
            kill(pid, SIGTERM);
        }
    }
}

void ManifestAbilityLauncher::TerminateAll(std::chrono::milliseconds grace)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        terminating_ = true;
        for (const auto& [pid, child] : children_) {
            kill(pid, SIGTERM);
        }
    }
    if (!WaitForNoChildren(grace)) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [pid, child] : children_) {
            TNDR_HOST_LOGE("%{public}s (pid %{public}d) ignored SIGTERM: killing it", child.bundleName.c_str(), pid);
            kill(pid, SIGKILL);
        }
    }
    std::unique_lock<std::mutex> lock(mutex_);
    exited_.wait(lock, [this]() { return children_.empty() && reapers_.empty(); });
    lock.unlock();
    JoinFinished();
}

}  // namespace QUEX::Tandra
