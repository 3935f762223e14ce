// tandra-camera: the camera application. Started by the device's tandrad when a paired device
// asks for photos (its start parameters in the environment), it subscribes to the framework's
// events, takes the photos (camera, folder or generated test card), hands them to the framework
// as file descriptors, and can cancel. Run by hand with --out, it only saves photos in a folder.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <optional>

#include "camera_app_client.h"
#include "capture_modes.h"
#include "client_codes.h"
#include "device_service.h"
#include "host_types.h"
#include "ipc_client.h"
#include "tandra_paths.h"

#include "capture_session.h"
#include "photo_source.h"
#include "photo_writer.h"

using namespace QUEX::Tandra::CameraApp;

namespace {

constexpr int EXIT_CANCELLED = 3;
constexpr int EXIT_SOURCE = 4;
constexpr int EXIT_SAVE = 5;
constexpr int EXIT_REFUSED = 6;
constexpr int EXIT_NO_SERVICE = 7;

// Puts the terminal in single-key mode for as long as it lives, so Enter, 'c' and 'q' arrive
// as pressed.
class RawTerminal {
public:
    RawTerminal()
    {
        if (isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &saved_) == 0) {
            termios raw = saved_;
            raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
            active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
        }
    }
    ~RawTerminal()
    {
        if (active_) {
            tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
        }
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

private:
    termios saved_{};
    bool active_ = false;
};

// A key within timeoutMs (-1: wait for ever); 0 when none came, END_OF_INPUT at the end.
int ReadKey(int timeoutMs, bool* inputOpen)
{
    if (!*inputOpen) {
        if (timeoutMs > 0) {
            poll(nullptr, 0, timeoutMs);
        }
        return 0;
    }
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (poll(&in, 1, timeoutMs) <= 0) {
        return 0;
    }
    unsigned char c = 0;
    if (read(STDIN_FILENO, &c, 1) != 1) {
        *inputOpen = false;
        return CaptureSession::END_OF_INPUT;
    }
    return c;
}


std::string Env(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// What the framework tells the camera application while it works.
class FrameworkEvents : public QUEX::Tandra::Client::CameraAppObserver {
public:
    void OnPutImageResult(uint32_t code, uint32_t) override { Set(code == QUEX::Tandra::Client::PUT_IMAGE_TAKEN_OVER ? Outcome::TAKEN : Outcome::REFUSED); }
    void OnCancelled(uint32_t, uint32_t) override { Set(Outcome::CANCELLED); }
    void OnServiceLost() override { Set(Outcome::SERVICE_LOST); }

    enum class Outcome { NONE, TAKEN, REFUSED, CANCELLED, SERVICE_LOST };
    Outcome Current()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return outcome_;
    }
    // Waits until the collaboration is released (cancelled) or the service goes.
    void WaitForEnd(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait_for(lock, timeout,
                     [this]() { return outcome_ == Outcome::CANCELLED || outcome_ == Outcome::SERVICE_LOST; });
    }
    // Waits until something is said or the time passes.
    Outcome Wait(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait_for(lock, timeout, [this]() { return outcome_ != Outcome::NONE; });
        return outcome_;
    }

private:
    void Set(Outcome outcome)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (outcome_ == Outcome::NONE || outcome == Outcome::CANCELLED || outcome == Outcome::SERVICE_LOST) {
            outcome_ = outcome;
        }
        cv_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    Outcome outcome_ = Outcome::NONE;
};

enum class CaptureEnd { FINISHED, CANCELLED, ABORTED, FAILED };

// Runs the capture session: countdown, photos, keys, each photo made in `photo` (reused). Each
// saved photo's path goes to onSaved; `abort` ends it early (the framework cancelled).
CaptureEnd RunCapture(CaptureSession& session, PhotoSource& source, const PhotoWriter& writer, Photo& photo,
                      const std::function<void(const std::string&)>& onSaved, const std::function<bool()>& abort)
{
    bool inputOpen = isatty(STDIN_FILENO) != 0 || session.Mode() == CaptureMode::Interactive;
    std::string error;
    CaptureAction action = session.Tick();
    for (;;) {
        if (abort()) {
            return CaptureEnd::ABORTED;
        }
        switch (action.step) {
            case CaptureStep::Wait: {
                int key = ReadKey(200, &inputOpen);
                if (key != 0) {
                    action = session.Key(key);
                }
                continue;
            }
            case CaptureStep::Countdown: {
                std::cout << "Taking photos in " << action.value << "..." << std::endl;
                int key = ReadKey(1000, &inputOpen);
                action = key != 0 ? session.Key(key) : session.Tick();
                if (key != 0 && action.step == CaptureStep::Wait) {
                    action = session.Tick();
                }
                continue;
            }
            case CaptureStep::Take: {
                std::string path;
                if (source.Capture(action.value, photo, &error) != PHOTO_OK ||
                    !writer.Save(action.value, photo, &path, &error)) {
                    std::cerr << "tandra-camera: " << error << "\n";
                    return CaptureEnd::FAILED;
                }
                std::cout << "Saved " << path << " (" << photo.size << " bytes)" << std::endl;
                onSaved(path);
                action = session.Tick();
                continue;
            }
            case CaptureStep::Finish:
                return session.Taken() == 0 ? CaptureEnd::CANCELLED : CaptureEnd::FINISHED;
            case CaptureStep::Cancel:
                return CaptureEnd::CANCELLED;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    using namespace QUEX::Tandra;
    CLI::App app{"tandra-camera: the camera application. Started by tandrad when a paired device asks for photos;\n"
                 "run by hand with --out it takes photos into a folder."};
    PhotoSourceOptions options;
    uint32_t count = 0;
    std::string out;
    std::string size;
    std::string targetSize;
    std::string source = "auto";
    bool interactive = false;
    bool automatic = false;
    uint32_t countdown = 3;
    std::string socketPath = Env("TANDRA_SOCKET").empty() ? DefaultSocketPath() : Env("TANDRA_SOCKET");
    bool neverSubscribe = false;
    bool cancelAtOnce = false;
    app.add_option("--count,-n", count,
                   "Photos to take (default: the number the requesting device asked for, else 1; interactive: 0 for "
                   "no limit)");
    app.add_option("--out,-o", out, "Folder to save the photos in (default: a private temporary folder)");
    app.add_option("--source", source,
                   "Where photos come from: auto (camera, else --from-dir, else generated), "
                   "camera, folder or generated")
        ->check(CLI::IsMember({"auto", "camera", "folder", "generated"}))
        ->capture_default_str();
    app.add_option("--from-dir", options.folder, "Folder of image files to send as they are, in name order");
    app.add_option("--camera", options.cameraPath, "V4L2 camera to use (default: the first usable /dev/video*)");
    app.add_option("--size", size, "Photo size WIDTHxHEIGHT asked of the camera or generated (default 1280x720)");
    app.add_option("--target-size", targetSize,
                   "Pad generated photos to this many bytes (e.g. 4MiB, 128M) with JPEG application segments");
    app.add_option("--quality", options.quality, "JPEG quality 1-100")->capture_default_str();
    app.add_option("--device-name", options.deviceName, "Name written on generated photos")->capture_default_str();
    app.add_flag("--interactive,-i", interactive, "Enter takes a photo, c cancels, q finishes (default on a terminal)");
    app.add_flag("--auto", automatic, "Take the photos after a countdown (default without a terminal)");
    app.add_option("--countdown", countdown, "Seconds counted down before automatic photos")->capture_default_str();
    app.add_option("--socket", socketPath, "Socket of this device's tandrad")->capture_default_str();
    app.add_flag("--never-subscribe", neverSubscribe,
                 "Testing: connect but never subscribe, so the requesting device waits until its time-out");
    app.add_flag("--cancel", cancelAtOnce, "Cancel at once once subscribed, as a user pressing c would");
    app.footer("Exit status: 0 photos taken (and handed over), 2 bad arguments, 3 cancelled, 4 no photo source works,\n"
               "5 a photo could not be taken or saved, 6 the framework refused the photos, 7 tandrad cannot be reached.");
    CLI11_PARSE(app, argc, argv);

    if (!size.empty() && !ParseImageSize(size, &options.width, &options.height)) {
        std::cerr << "tandra-camera: --size " << size << " is not WIDTHxHEIGHT, e.g. 1920x1080\n";
        return 2;
    }
    if (!targetSize.empty() && !ParseByteSize(targetSize, &options.targetBytes)) {
        std::cerr << "tandra-camera: --target-size " << targetSize << " is not a size such as 4MiB or 500k\n";
        return 2;
    }
    const std::map<std::string, SourceKind> kinds = {{"auto", SourceKind::Auto},
                                                     {"camera", SourceKind::Camera},
                                                     {"folder", SourceKind::Folder},
                                                     {"generated", SourceKind::Generated}};
    options.kind = kinds.at(source);

    // Started for a collaboration: the session id and the requester's wishes are in the
    // environment.
    const std::string sessionText = Env("TANDRA_COLLABORATION_SESSION_ID");
    const bool collaboration = !sessionText.empty();
    if (count == 0 && !interactive) {
        const std::string module = Env("TANDRA_REQUESTER_MODULE_NAME");
        count = module.rfind("count=", 0) == 0 ? static_cast<uint32_t>(std::strtoul(module.c_str() + 6, nullptr, 10)) : 0;
        if (count == 0) {
            count = collaboration ? 1 : 3;
        }
    }
    if (!interactive && !automatic) {
        interactive = isatty(STDIN_FILENO) != 0 && !collaboration;
    }
    Client::CaptureMode wanted = Client::CaptureMode::PHOTO;
    if (Client::CaptureModeOfAbilityType(Env("TANDRA_ABILITY_TYPE"), wanted) && wanted == Client::CaptureMode::PICK &&
        options.kind == SourceKind::Auto && !options.folder.empty()) {
        options.kind = SourceKind::Folder;  // picking offers the files of the folder
    }

    if (out.empty()) {
        std::string base = Env("XDG_RUNTIME_DIR").empty() ? "/tmp" : Env("XDG_RUNTIME_DIR");
        std::string pattern = base + "/tandra-camera.XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) == nullptr) {
            std::cerr << "tandra-camera: cannot make a folder for the photos in " << base << ": pass --out\n";
            return EXIT_SAVE;
        }
        out = buffer.data();
    }

    SourceChoice choice = ChoosePhotoSource(options);
    for (const std::string& reason : choice.skipped) {
        std::cerr << (choice.source ? "note: " : "tandra-camera: ") << reason << "\n";
    }
    PhotoWriter writer(out);
    std::string error;
    if (choice.source && !writer.Prepare(&error)) {
        std::cerr << "tandra-camera: " << error << "\n";
        return EXIT_SAVE;
    }

    FrameworkEvents events;
    std::shared_ptr<Vex::IpcClient> ipc;
    std::unique_ptr<Client::CameraAppClient> client;
    Client::PhotoCaller caller;
    if (collaboration) {
        ipc = Vex::IpcClient::Connect(socketPath, &error);
        if (ipc == nullptr) {
            std::cerr << "tandra-camera: cannot reach tandrad at " << socketPath << ": " << error << "\n";
            return EXIT_NO_SERVICE;
        }
        ipc->InstallAsSystemAbilityManager();
        Vex::sptr<Vex::IRemoteObject> service = ipc->GetSystemAbility(TANDRA_SA_ID);
        Vex::sptr<Vex::IRemoteObject> devices = ipc->GetSystemAbility(TANDRA_DEVICE_SA_ID);
        if (service == nullptr || devices == nullptr) {
            std::cerr << "tandra-camera: tandrad at " << socketPath << " does not offer the Tandra services\n";
            return EXIT_NO_SERVICE;
        }
        Vex::sptr<DeviceServiceProxy> deviceService = new DeviceServiceProxy(devices);
        AppRegistration self = deviceService->RegisterApp(false);
        caller.collaborationSessionId = static_cast<int32_t>(std::strtol(sessionText.c_str(), nullptr, 10));
        caller.abilityName = Env("TANDRA_ABILITY_NAME");
        caller.bundleName = Env("TANDRA_BUNDLE_NAME");
        caller.deviceId = self.self.networkId;
        caller.deviceType = self.self.type;
        client = std::make_unique<Client::CameraAppClient>(service, &events);
        if (neverSubscribe) {
            std::cout << "Connected; never subscribing (testing)." << std::endl;
            events.Wait(std::chrono::hours(24));
            return EXIT_CANCELLED;
        }
        int32_t subscribed = client->SubscribeAll();
        if (subscribed != 0) {
            std::cerr << "tandra-camera: the framework refused the subscription (" << subscribed << ")\n";
            return EXIT_NO_SERVICE;
        }
        std::cout << "Asked for " << count << " photo" << (count == 1 ? "" : "s") << " by the device "
                  << Env("TANDRA_REQUESTER_DEVICE_ID").substr(0, 16) << std::endl;
    }
    if (client && cancelAtOnce) {
        int32_t result = client->RemoteCancel(caller, Client::CAMERA_STATUS_USER_CANCELLED);
        std::cout << "Cancelled; the requesting device was told (" << result << ")." << std::endl;
        return EXIT_CANCELLED;
    }
    if (!choice.source) {
        if (client) {
            client->RemoteCancel(caller, Client::CAMERA_STATUS_CAMERA_FAILED);
        }
        return EXIT_SOURCE;
    }
    std::cout << "Photo source: " << choice.source->Describe() << std::endl;
    if (interactive) {
        std::cout << "Press Enter to take a photo, c to cancel, q to finish." << std::endl;
    }

    RawTerminal terminal;
    CaptureSession session(interactive ? CaptureMode::Interactive : CaptureMode::Automatic, count, countdown);
    std::vector<std::string> paths;
    // Freed only after the photos are handed over: unmapping megabytes takes milliseconds that
    // the requesting device would otherwise wait for.
    Photo photo;
    CaptureEnd end = RunCapture(
        session, *choice.source, writer, photo, [&](const std::string& path) { paths.push_back(path); },
        [&]() { return events.Current() == FrameworkEvents::Outcome::CANCELLED ||
                       events.Current() == FrameworkEvents::Outcome::SERVICE_LOST; });

    if (!client) {
        if (end == CaptureEnd::FINISHED) {
            std::cout << "Finished: " << paths.size() << " photo" << (paths.size() == 1 ? "" : "s") << " in " << out
                      << std::endl;
            return 0;
        }
        std::cout << "Cancelled." << std::endl;
        return end == CaptureEnd::FAILED ? EXIT_SAVE : EXIT_CANCELLED;
    }
    switch (end) {
        case CaptureEnd::ABORTED:
            std::cout << (events.Current() == FrameworkEvents::Outcome::CANCELLED
                              ? "The requesting device no longer wants photos; closing."
                              : "tandrad went away; closing.")
                      << std::endl;
            return EXIT_CANCELLED;
        case CaptureEnd::CANCELLED:
        case CaptureEnd::FAILED: {
            const uint32_t status = end == CaptureEnd::CANCELLED ? Client::CAMERA_STATUS_USER_CANCELLED
                                                                 : Client::CAMERA_STATUS_CAMERA_FAILED;
            int32_t result = client->RemoteCancel(caller, status);
            std::cout << (end == CaptureEnd::CANCELLED ? "Cancelled" : "The camera failed")
                      << "; the requesting device was told (" << result << ")." << std::endl;
            return end == CaptureEnd::CANCELLED ? EXIT_CANCELLED : EXIT_SAVE;
        }
        case CaptureEnd::FINISHED:
            break;
    }
    std::vector<int> fds;
    for (const std::string& path : paths) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            std::cerr << "tandra-camera: cannot open " << path << " again to send it\n";
            client->RemoteCancel(caller, Client::CAMERA_STATUS_CAMERA_FAILED);
            return EXIT_SAVE;
        }
        fds.push_back(fd);
    }
    int32_t put = client->PutImage(caller, fds);
    for (int fd : fds) {
        close(fd);
    }
    if (put != 0) {
        std::cerr << "tandra-camera: the framework refused the photos (" << put << ")\n";
        return EXIT_REFUSED;
    }
    std::cout << "Handed " << paths.size() << " photo" << (paths.size() == 1 ? "" : "s") << " to the framework."
              << std::endl;
    // The framework says at once that it has taken the photos over, then sends them from the
    // descriptors it holds. Leaving the subscriptions first makes this process's exit a plain
    // exit rather than a camera death that would end the transfer on the requesting device.
    FrameworkEvents::Outcome outcome = events.Wait(std::chrono::minutes(10));
    if (outcome != FrameworkEvents::Outcome::TAKEN) {
        std::cerr << "tandra-camera: the photos were not taken over ("
                  << (outcome == FrameworkEvents::Outcome::REFUSED ? "refused" : "cancelled or tandrad gone") << ")\n";
        return EXIT_REFUSED;
    }
    client->Unregister(Client::CAMERA_EVENT_CANCEL);
    client->Unregister(Client::CAMERA_EVENT_PUT_IMAGE_RESULT);
    std::cout << "Taken over by the framework, which sends them." << std::endl;
    return 0;
}
