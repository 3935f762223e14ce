// Real processes for tests of the daemon, the applications and the whole system: a child
// process with its output in a file and its end awaited with a deadline; a device (one tandrad
// on a temporary socket, state folder, manifests folder and ports); and two linked devices.
// Every process started here is killed and reaped by its owner's destructor, so none
// outlives its test. Waits poll a condition with a real-time deadline: processes, sockets and
// TLS run in real time.
// Thread-safety: objects belong to the test's thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace QUEX::Tandra::ProcessTesting {

using namespace std::chrono_literals;

// Polls until the condition holds; false when the deadline passes first.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline = 20s);

std::string ReadFile(const std::string& path);
// A fresh folder under the test temporary directory, removed with its contents by the owner.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return path_; }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

private:
    std::string path_;
};

// A free TCP/UDP port on the loopback (bound, read back, released).
uint16_t FreePort();

class ChildProcess {
public:
    // Starts argv[0] with the arguments; stdout and stderr go to outputPath. extraEnv is added to
    // (and overrides) the test's environment. stdin is /dev/null.
    ChildProcess(std::vector<std::string> argv, std::string outputPath,
                 std::map<std::string, std::string> extraEnv = {});
    ~ChildProcess();  // SIGKILL and reap when still running

    pid_t Pid() const { return pid_; }
    bool Running();
    void Signal(int signal);
    // The exit status (WEXITSTATUS), or 128 + signal; nullopt when still running at the deadline.
    std::optional<int> Wait(std::chrono::milliseconds deadline = 20s);
    std::string Output() const { return ReadFile(outputPath_); }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

private:
    pid_t pid_ = -1;
    std::string outputPath_;
    std::optional<int> status_;
};

struct DeviceOptions {
    std::string name;
    uint16_t port = 0;            // 0: a free one
    uint16_t discoveryPort = 0;   // 0: no broadcast discovery
    std::vector<std::string> peers;
    std::string bindAddress = "127.0.0.1";
    std::string broadcastAddress = "127.255.255.255";
    std::string interfaceName;
    bool trustOnFirstUse = true;
    std::vector<std::string> cameraArgs = {"--countdown", "0", "--source", "generated"};
    std::vector<std::string> extraArgs;      // more tandrad flags
    std::string runner;                      // e.g. "ip netns exec NS": the daemon runs inside it
    // More installed apps: bundle name -> executable.
    std::map<std::string, std::string> extraApps;
};

// One device: its tandrad and its folders. The manifests name the real tandra-photo and
// tandra-camera, with the camera's arguments from the options.
class Device {
public:
    explicit Device(DeviceOptions options);
    ~Device();

    // Starts tandrad and waits until it says it is ready; false (with its output) otherwise.
    bool Start(std::string* output = nullptr);
    // SIGTERM, then the exit status (nullopt when it did not end in time).
    std::optional<int> Stop(std::chrono::milliseconds deadline = 20s);
    void Kill();

    const std::string& Name() const { return options_.name; }
    uint16_t Port() const { return options_.port; }
    const std::string& Socket() const { return socket_; }
    const std::string& StateDir() const { return stateDir_; }
    const std::string& CameraOut() const { return cameraOut_; }  // where its camera app saves photos
    std::string Log() const;
    pid_t Pid() const { return daemon_ ? daemon_->Pid() : -1; }
    ChildProcess* Daemon() { return daemon_.get(); }
    std::string Events() const { return ReadFile(stateDir_ + "/events.jsonl"); }

    // Runs tandra-photo against this device and waits for it. extraEnv for the child.
    struct Result {
        int status = -1;
        std::string output;
    };
    Result Photo(const std::vector<std::string>& args, std::chrono::milliseconds deadline = 30s);
    // Starts tandra-photo against this device without waiting.
    std::unique_ptr<ChildProcess> StartPhoto(const std::vector<std::string>& args);

    // The pids of the camera applications this daemon started (from its log).
    std::vector<pid_t> CameraPids() const;

    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

private:
    void WriteManifests();

    DeviceOptions options_;
    TempDir dir_;
    std::string socket_, stateDir_, abilitiesDir_, cameraOut_;
    std::unique_ptr<ChildProcess> daemon_;
    int photoRuns_ = 0;
};

// Two devices on the loopback that know each other as static peers and trust on first use.
// Start() returns when A lists B as linked with a camera.
class TwoDevices {
public:
    explicit TwoDevices(std::vector<std::string> cameraArgs = {"--countdown", "0", "--source", "generated"});
    bool Start(std::string* why);
    Device& A() { return *a_; }
    Device& B() { return *b_; }

private:
    std::unique_ptr<Device> a_, b_;
};

// Waits until `from` lists the device `name` as linked with a camera, and still does on a few
// polls in a row (a link that is being set up may start over once).
bool AwaitCamera(Device& from, const std::string& name, std::chrono::milliseconds deadline = 20s);

// Paths of the binaries under test (set by the build).
std::string TandradPath();
std::string PhotoPath();
std::string CameraPath();
std::string PluginPath();

// Open descriptors, threads and child processes of a process, for leak checks.
struct ProcessFigures {
    size_t fds = 0;
    size_t threads = 0;
    size_t children = 0;
    size_t rssKiB = 0;
};
ProcessFigures FiguresOf(pid_t pid);

}  // namespace QUEX::Tandra::ProcessTesting
