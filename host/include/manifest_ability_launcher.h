// ManifestAbilityLauncher: the device's installed abilities, read from JSON manifest files,
// and the launcher that starts them as child processes. The daemon answers ability lookups
// from GetAbilities, starts the camera application through StartAbility, and names a caller's
// bundle from its executable (BundleForExecutable), so an app cannot claim another's bundle.
//
// Manifest format: every "*.json" file of the folder is one ability:
//   {
//     "bundle":  "com.tandra.camera",                  required
//     "ability": "CameraAbility",                      required
//     "module":  "entry",                              optional
//     "action":  "tandra.CameraAbility.TakePhoto",     optional
//     "type":    "tandra.CameraAbility.TakePhoto",     optional (the ability type)
//     "exec":    { "path": "${bindir}/tandra-camera",  required, absolute after substitution,
//                  "args": ["--verbose"] }             optional, argv[1..]
//   }
// "${name}" in exec.path and exec.args is replaced by the variable of that name given to Load
// (the daemon passes "prefix" = the install prefix and "bindir" = the folder of its programs;
// tests and the demo point "bindir" at build/<preset>/bin); an unknown name is an error.
//
// A started program receives its start parameters in its environment (its arguments are the
// manifest's alone, so an app's own option parser never sees them):
//   TANDRA_COLLABORATION_SESSION_ID, TANDRA_BUNDLE_NAME, TANDRA_ABILITY_NAME, TANDRA_ACTION,
//   TANDRA_ABILITY_TYPE, TANDRA_REQUESTER_DEVICE_ID, TANDRA_REQUESTER_DEVICE_TYPE,
//   TANDRA_REQUESTER_BUNDLE_NAME, TANDRA_REQUESTER_ABILITY_NAME, TANDRA_REQUESTER_MODULE_NAME.
// Each child is reaped by a thread of its own that waits for that pid only (no SIGCHLD handler,
// no interference with other children of the process), so none is left a zombie.
//
// Thread-safety: every member may be called from any thread. The exit observer runs on a
// reaper thread, without the launcher's lock; it may call the launcher but not TerminateAll.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ability_launcher.h"
#include "ability_records.h"

namespace QUEX::Tandra {

struct AbilityManifest {
    std::string file;  // where it was read from
    AbilityInfo info;
    std::string execPath;  // absolute, placeholders replaced
    std::vector<std::string> execArgs;
};

struct ChildExit {
    pid_t pid = 0;
    std::string bundleName;
    std::string abilityName;
    int32_t collaborationSessionId = 0;
    bool exited = false;  // exited normally with exitCode; otherwise killed by signal
    int exitCode = 0;
    int signal = 0;
};

class ManifestAbilityLauncher : public AbilityLauncher {
public:
    using Variables = std::map<std::string, std::string>;
    using ExitObserver = std::function<void(const ChildExit&)>;

    // Reads every manifest of folder. Null, with *error naming the file and the fault, when
    // the folder cannot be read or any manifest is bad (unreadable, not JSON, a required key
    // missing or not a string, an unknown placeholder, a relative or non-executable program,
    // or a bundle and ability already named by another file).
    static std::unique_ptr<ManifestAbilityLauncher> Load(const std::string& folder, const Variables& variables,
                                                         std::string* error);
    // One manifest file, parsed and checked as Load does.
    static bool ParseManifest(const std::string& file, const Variables& variables, AbilityManifest* manifest,
                              std::string* error);

    // Ends every child (TerminateAll with the default grace).
    ~ManifestAbilityLauncher() override;

    std::vector<AbilityInfo> GetAbilities() const;
    const std::vector<AbilityManifest>& Manifests() const { return manifests_; }
    // The bundle whose manifest names the executable at path (compared after resolving links
    // on both sides); empty when no manifest names it.
    std::string BundleForExecutable(const std::string& path) const;

    // Starts the ability named by param's bundle and ability name (the ability name may be
    // empty when the bundle has one ability of param's action). 0 when the child was started,
    // HOST_ERR_START_ABILITY when no manifest names it or the program could not be spawned.
    int32_t StartAbility(int32_t collaborationSessionId, const StartAbilityParam& param) override;
    // A child started for the released session and still running (it never joined the
    // collaboration, or ignored its end) is sent SIGTERM: nothing will ask it for photos again.
    void OnSessionReleased(int32_t collaborationSessionId) override;

    void SetExitObserver(ExitObserver observer);
    std::vector<pid_t> RunningChildren() const;
    // Waits (real time) until no child runs; false on time-out.
    bool WaitForNoChildren(std::chrono::milliseconds timeout) const;
    // SIGTERM to every child, SIGKILL to those still running after grace; returns once all
    // are reaped. Later starts are refused.
    void TerminateAll(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));

private:
    explicit ManifestAbilityLauncher(std::vector<AbilityManifest> manifests);
    void Reap(pid_t pid);
    void JoinFinished();

    struct Child {
        std::string bundleName;
        std::string abilityName;
        int32_t collaborationSessionId = 0;
    };

    const std::vector<AbilityManifest> manifests_;
    mutable std::mutex mutex_;
    mutable std::condition_variable exited_;
    ExitObserver observer_;
    bool terminating_ = false;
    std::map<pid_t, Child> children_;
    std::map<pid_t, std::thread> reapers_;
    std::vector<std::thread> finished_;  // reapers whose child is gone, joined later
};

}  // namespace QUEX::Tandra
