// tandra-photo: take photos with the camera of another device. Subcommands: devices, take,
// pair, unpair. main parses the command line and runs one subcommand; each subcommand talks
// to this device's tandrad over its socket.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "capture_modes.h"
#include "collaboration_endings.h"
#include "device_service.h"
#include "host_types.h"
#include "ipc_client.h"
#include "photo_saver.h"
#include "progress.h"
#include "take_photo_client.h"
#include "tandra_paths.h"

using namespace QUEX::Tandra;
using namespace QUEX::Tandra::Client;

namespace {

// Exit statuses of failures outside a collaboration; a collaboration's endings have their own
// (see --help).
constexpr int EXIT_NO_SUCH_DEVICE = 23;
constexpr int EXIT_PAIRING_FAILED = 24;
constexpr int EXIT_CANNOT_SAVE = 25;

struct Connection {
    std::shared_ptr<Vex::IpcClient> ipc;
    Vex::sptr<DeviceServiceProxy> devices;
    Vex::sptr<Vex::IRemoteObject> service;
};

int ServiceUnavailable(const std::string& socketPath, const std::string& why)
{
    std::fprintf(stderr, "tandra-photo: cannot reach tandrad at %s (%s). Start it (tandrad --help), or pass the "
                 "socket it serves with --socket.\n",
                 socketPath.c_str(), why.c_str());
    return GetEndingInfo(EndingKind::SERVICE_UNAVAILABLE).exitStatus;
}

std::optional<Connection> Connect(const std::string& socketPath, int* status)
{
    std::string error;
    Connection connection;
    connection.ipc = Vex::IpcClient::Connect(socketPath, &error);
    if (connection.ipc == nullptr) {
        *status = ServiceUnavailable(socketPath, error);
        return std::nullopt;
    }
    connection.ipc->InstallAsSystemAbilityManager();
    Vex::sptr<Vex::IRemoteObject> devices = connection.ipc->GetSystemAbility(TANDRA_DEVICE_SA_ID);
    connection.service = connection.ipc->GetSystemAbility(TANDRA_SA_ID);
    if (devices == nullptr || connection.service == nullptr) {
        *status = ServiceUnavailable(socketPath, "it does not offer the Tandra services");
        return std::nullopt;
    }
    connection.devices = new DeviceServiceProxy(devices);
    return connection;
}

// The device named by name or id (network id, UDID, or a unique prefix of either).
std::optional<DeviceEntry> FindDevice(const DeviceList& list, const std::string& wanted, std::string* error)
{
    std::vector<DeviceEntry> matches;
    for (const DeviceEntry& entry : list.devices) {
        if (entry.name == wanted || entry.networkId == wanted || entry.udid == wanted) {
            return entry;
        }
        if (wanted.size() >= 6 && (entry.networkId.rfind(wanted, 0) == 0 || entry.udid.rfind(wanted, 0) == 0)) {
            matches.push_back(entry);
        }
    }
    if (matches.size() == 1) {
        return matches.front();
    }
    if (matches.size() > 1) {
        *error = "\"" + wanted + "\" names more than one device; give more of its id";
    } else {
        *error = "no device \"" + wanted + "\" is in reach." +
                 (list.note.empty() ? std::string() : " " + list.note) +
                 " Run `tandra-photo devices` to see the devices found.";
    }
    return std::nullopt;
}

const char* TypeName(uint32_t type)
{
    switch (type) {
        case 0x0E: return "phone";
        case 0x11: return "tablet";
        case 0x0C: return "computer";
        case 0x9C: return "tv";
        default: return "device";
    }
}

int RunDevices(const std::string& socketPath, bool json)
{
    int status = 0;
    auto connection = Connect(socketPath, &status);
    if (!connection) {
        return status;
    }
    DeviceList list = connection->devices->ListDevices();
    if (list.result != 0) {
        return ServiceUnavailable(socketPath, "the device list could not be read");
    }
    if (json) {
        for (const DeviceEntry& entry : list.devices) {
            std::printf("{\"name\":\"%s\",\"id\":\"%s\",\"type\":\"%s\",\"trusted\":%s,\"linked\":%s,\"camera\":%s,"
                        "\"address\":\"%s\",\"found_by\":\"%s\"}\n",
                        entry.name.c_str(), entry.networkId.c_str(), TypeName(entry.type),
                        entry.trusted ? "true" : "false", entry.linked ? "true" : "false",
                        entry.hasCamera ? "true" : "false", entry.address.c_str(), entry.foundBy.c_str());
        }
        return 0;
    }
    if (list.devices.empty()) {
        std::printf("No devices in reach. %s\n", list.note.c_str());
        return 0;
    }
    std::printf("%-20s %-8s %-10s %-7s %-22s %s\n", "NAME", "TYPE", "TRUST", "CAMERA", "ADDRESS", "ID");
    for (const DeviceEntry& entry : list.devices) {
        std::printf("%-20s %-8s %-10s %-7s %-22s %s\n", entry.name.c_str(), TypeName(entry.type),
                    entry.trusted ? (entry.linked ? "paired" : "paired*") : "unpaired",
                    entry.linked ? (entry.hasCamera ? "yes" : "no") : "?", entry.address.c_str(),
                    entry.networkId.substr(0, 16).c_str());
    }
    for (const DeviceEntry& entry : list.devices) {
        if (!entry.trusted) {
            std::printf("\n%s is not paired: run `tandra-photo pair %s` here, then confirm on it with "
                        "`tandra-photo pair --accept <this device>`.\n",
                        entry.name.c_str(), entry.name.c_str());
        } else if (!entry.linked) {
            std::printf("\n%s (paired*) is known but not linked right now.\n", entry.name.c_str());
        }
    }
    if (!list.note.empty()) {
        std::printf("\n%s\n", list.note.c_str());
    }
    return 0;
}

bool AskYes(const std::string& question)
{
    if (!isatty(STDIN_FILENO)) {
        return false;
    }
    std::printf("%s [y/N] ", question.c_str());
    std::fflush(stdout);
    std::string answer;
    std::getline(std::cin, answer);
    return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

int RunPair(const std::string& socketPath, const std::string& device, bool accept, bool yes)
{
    int status = 0;
    auto connection = Connect(socketPath, &status);
    if (!connection) {
        return status;
    }
    PairingAnswer answer = accept ? connection->devices->ConfirmPair(device, true) : connection->devices->Pair(device);
    if (answer.result != 0) {
        std::fprintf(stderr, "tandra-photo: pairing with %s failed: %s\n", device.c_str(), answer.message.c_str());
        return EXIT_PAIRING_FAILED;
    }
    if (accept) {
        std::printf("Accepted pairing with %s%s%s.\n%s\n", device.c_str(), answer.code.empty() ? "" : ", code ",
                    answer.code.c_str(), answer.message.c_str());
        return 0;
    }
    std::printf("Pairing code for %s: %s\nCheck that %s shows the same code, and accept there with "
                "`tandra-photo pair --accept <this device>`.\n",
                device.c_str(), answer.code.c_str(), device.c_str());
    if (!yes && !AskYes("Does " + device + " show the same code?")) {
        std::printf("Not confirmed here yet: run `tandra-photo pair --accept %s` when it does.\n", device.c_str());
        return 0;
    }
    PairingAnswer confirmed = connection->devices->ConfirmPair(device, true);
    if (confirmed.result != 0) {
        std::fprintf(stderr, "tandra-photo: pairing with %s failed: %s\n", device.c_str(), confirmed.message.c_str());
        return EXIT_PAIRING_FAILED;
    }
    std::printf("%s\n", confirmed.message.empty() ? "Confirmed." : confirmed.message.c_str());
    return 0;
}

int RunUnpair(const std::string& socketPath, const std::string& device)
{
    int status = 0;
    auto connection = Connect(socketPath, &status);
    if (!connection) {
        return status;
    }
    PairingAnswer answer = connection->devices->Unpair(device);
    if (answer.result != 0) {
        std::fprintf(stderr, "tandra-photo: cannot forget %s: %s\n", device.c_str(), answer.message.c_str());
        return EXIT_PAIRING_FAILED;
    }
    std::printf("Forgot %s: it must pair again before it can take photos for this device.\n", device.c_str());
    return 0;
}

// The collaboration as tandra-photo follows it: photos saved as they come, one ending.
class TakeObserver : public TakePhotoObserver {
public:
    TakeObserver(Progress& progress, PhotoSaver& saver) : progress_(progress), saver_(saver) {}

    void OnPhotoCount(uint32_t, uint32_t count) override
    {
        Json::Value extra(Json::objectValue);
        extra["count"] = count;
        progress_.Stage("photo_count",
                        "The other device is sending " + std::to_string(count) + " photo" + (count == 1 ? "" : "s") + ".",
                        extra);
    }

    int32_t OnPhoto(const ReceivedPhoto& photo) override
    {
        std::string path;
        std::string error;
        if (!saver_.Save(photo.collaborationId, photo.data, photo.size, photo.fd, &path, &error)) {
            progress_.Error("save_failed", "could not save a photo: " + error);
            std::lock_guard<std::mutex> lock(mutex_);
            saveFailed_ = true;
            return 1;
        }
        Json::Value extra(Json::objectValue);
        extra["path"] = path;
        extra["size"] = static_cast<Json::UInt64>(photo.size);
        extra["index"] = photo.index + 1;
        char text[64];
        std::snprintf(text, sizeof(text), "%.1f KiB", static_cast<double>(photo.size) / 1024.0);
        progress_.Stage("photo_saved", "Saved photo " + std::to_string(photo.index + 1) +
                                           (photo.expected != 0 ? "/" + std::to_string(photo.expected) : "") + ": " +
                                           path + " (" + text + ")",
                        extra);
        return 0;
    }

    void OnEnded(uint32_t, const CollaborationEnd& end) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        end_ = end;
        cv_.notify_all();
    }

    CollaborationEnd WaitEnd()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this]() { return end_.has_value(); });
        return *end_;
    }
    bool SaveFailed()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return saveFailed_;
    }

private:
    Progress& progress_;
    PhotoSaver& saver_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::optional<CollaborationEnd> end_;
    bool saveFailed_ = false;
};

struct TakeOptions {
    std::string device;
    uint32_t count = 1;
    std::string mode = "photo";
    std::string out = "photos";
    bool json = false;
    bool background = false;  // testing: do not claim the foreground
};

int RunTake(const std::string& socketPath, const TakeOptions& options, const sigset_t& stopSignals)
{
    Progress progress(Progress::FormFor(options.json, stdout), stdout);
    CaptureMode mode;
    if (!ParseCaptureMode(options.mode, mode)) {
        progress.Error("usage", "--mode must be photo, scan or pick");
        return 2;
    }
    PhotoSaver saver(options.out);
    std::string error;
    if (!saver.Prepare(&error)) {
        progress.Error("cannot_save", error);
        return EXIT_CANNOT_SAVE;
    }
    int status = 0;
    auto connection = Connect(socketPath, &status);
    if (!connection) {
        return status;
    }
    AppRegistration registration = connection->devices->RegisterApp(!options.background);
    if (registration.result != 0) {
        progress.Error("not_an_app", "tandrad does not know this program as an installed app (its ability "
                                     "manifest names another executable): reinstall tandra-photo or check the "
                                     "manifests folder of tandrad.");
        return GetEndingInfo(EndingKind::NOT_FOREGROUND).exitStatus;
    }
    DeviceList list = connection->devices->ListDevices();
    auto device = FindDevice(list, options.device, &error);
    if (!device) {
        progress.Error("no_such_device", error);
        return EXIT_NO_SUCH_DEVICE;
    }
    if (!device->trusted) {
        progress.Error("not_paired", device->name + " is not paired with this device: run `tandra-photo pair " +
                                         device->name + "` first.");
        return EXIT_NO_SUCH_DEVICE;
    }
    if (!device->linked) {
        progress.Error("not_linked", device->name + " is paired but not reachable now: check that its tandrad runs "
                                                    "and that the network between the devices is up.");
        return GetEndingInfo(EndingKind::LINK_LOST).exitStatus;
    }

    TakeObserver observer(progress, saver);
    TakePhotoClient client(connection->service, &observer);
    TakePhotoRequest request;
    request.abilityType = AbilityTypeOf(mode);
    request.peerNetworkId = device->networkId;
    request.peerUdid = device->udid;
    request.peerName = device->name;
    request.peerType = device->type;
    request.bundleName = registration.bundleName;
    request.abilityName = "MainAbility";
    // The module name reaches the camera application among its start parameters; it carries
    // the number of photos wanted, which the collaboration's own messages have no field for.
    request.moduleName = "count=" + std::to_string(options.count);
    request.localDeviceId = registration.self.networkId;
    request.localDeviceType = registration.self.type;

    progress.Stage("requesting", "Asking " + device->name + " for " + std::to_string(options.count) + " " +
                                     options.mode + (options.count == 1 ? "" : "s") + "...");
    TakePhotoResult result = client.TakePhoto(request);
    if (!result.Ok()) {
        CollaborationEnd end = result.End();
        Json::Value extra(Json::objectValue);
        extra["ending"] = end.Info().name;
        extra["code"] = static_cast<Json::Int64>(end.code);
        progress.Error("ended", end.Describe(), extra);
        return end.Info().exitStatus;
    }
    {
        Json::Value extra(Json::objectValue);
        extra["collaboration"] = result.collaborationId;
        progress.Stage("granted", "Link granted; " + device->name + " is starting its camera (collaboration " +
                                      std::to_string(result.collaborationId) + "). Ctrl-C cancels.",
                       extra);
    }

    // Ctrl-C and SIGTERM cancel the collaboration; the ending then arrives as CANCELLED.
    std::thread signals([&]() {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (signal == SIGUSR1) {
            return;  // the collaboration ended by itself
        }
        progress.Stage("cancelling", "Cancelling...");
        int32_t cancelled = client.Cancel(result.collaborationId);
        if (cancelled != 0) {
            observer.OnEnded(result.collaborationId, CollaborationEnd{EndingKind::CANCELLED, cancelled});
        }
    });
    CollaborationEnd end = observer.WaitEnd();
    pthread_kill(signals.native_handle(), SIGUSR1);
    signals.join();

    Json::Value extra(Json::objectValue);
    extra["ending"] = end.Info().name;
    extra["code"] = static_cast<Json::Int64>(end.code);
    Json::Value paths(Json::arrayValue);
    for (const std::string& path : saver.Saved()) {
        paths.append(path);
    }
    extra["photos"] = paths;
    if (end.kind == EndingKind::FINISHED && !observer.SaveFailed()) {
        progress.Stage("finished", "Finished: " + std::to_string(saver.Saved().size()) + " photo" +
                                       (saver.Saved().size() == 1 ? "" : "s") + " saved.",
                       extra);
        if (!options.json) {
            for (const std::string& path : saver.Saved()) {
                std::printf("%s\n", path.c_str());
            }
        }
        return 0;
    }
    if (observer.SaveFailed()) {
        progress.Error("ended", "some photos could not be saved (see above); free space in " + options.out +
                                    " or choose another --out.",
                       extra);
        return EXIT_CANNOT_SAVE;
    }
    progress.Error("ended", end.Describe(), extra);
    if (!saver.Saved().empty() && !options.json) {
        std::printf("Photos saved before it ended:\n");
        for (const std::string& path : saver.Saved()) {
            std::printf("%s\n", path.c_str());
        }
    }
    return end.Info().exitStatus;
}

std::string ExitStatusHelp()
{
    std::string text = "\nExit statuses of `take`:\n";
    for (const EndingInfo& info : AllEndings()) {
        char line[64];
        std::snprintf(line, sizeof(line), "  %3d  %s\n", info.exitStatus, info.name);
        text += line;
    }
    text += "   23  no-such-device (not in reach, or not paired)\n   24  pairing-failed\n   25  cannot-save\n"
            "    2  usage\n";
    return text;
}

}  // namespace

int main(int argc, char** argv)
{
    // Signals are taken by sigwait on one thread; every thread inherits this mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    CLI::App app{"tandra-photo: take photos with the camera of another device."};
    app.footer(ExitStatusHelp());
    app.require_subcommand(1);
    std::string socketPath = DefaultSocketPath();
    app.add_option("--socket", socketPath, "Socket of this device's tandrad")->capture_default_str();

    bool devicesJson = false;
    CLI::App* devices = app.add_subcommand("devices", "List the devices in reach: name, type, trust, camera");
    devices->add_flag("--json", devicesJson, "One JSON object per device");

    TakeOptions take;
    CLI::App* takeCommand = app.add_subcommand("take", "Take photos with another device's camera and save them");
    takeCommand->add_option("--device", take.device, "The device: its name or id (see `devices`)")->required();
    takeCommand->add_option("--count", take.count, "How many photos to ask for")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    takeCommand->add_option("--mode", take.mode, "photo, scan or pick")->capture_default_str();
    takeCommand->add_option("--out", take.out, "Folder the photos are saved in")->capture_default_str();
    takeCommand->add_flag("--json", take.json, "One JSON object per event, for scripts");
    takeCommand->add_flag("--background", take.background,
                          "Do not claim the foreground first (the framework then refuses the request)");

    std::string pairDevice;
    bool accept = false;
    bool yes = false;
    CLI::App* pair = app.add_subcommand("pair", "Pair with a device: both show the same code, you confirm on each");
    pair->add_option("device", pairDevice, "The device's name or id")->required();
    pair->add_flag("--accept", accept, "Accept a pairing the other device asked for");
    pair->add_flag("--yes", yes, "Confirm without asking (you checked the codes match)");

    std::string unpairDevice;
    CLI::App* unpair = app.add_subcommand("unpair", "Forget a paired device");
    unpair->add_option("device", unpairDevice, "The device's name or id")->required();

    CLI::App* diagnostics = app.add_subcommand("diagnostics", "Print tandrad's live counts as JSON (for support)");

    CLI11_PARSE(app, argc, argv);

    if (diagnostics->parsed()) {
        int status = 0;
        auto connection = Connect(socketPath, &status);
        if (!connection) {
            return status;
        }
        std::printf("%s\n", connection->devices->Diagnostics().c_str());
        return 0;
    }
    if (devices->parsed()) {
        return RunDevices(socketPath, devicesJson);
    }
    if (takeCommand->parsed()) {
        return RunTake(socketPath, take, stopSignals);
    }
    if (pair->parsed()) {
        return RunPair(socketPath, pairDevice, accept, yes);
    }
    return RunUnpair(socketPath, unpairDevice);
}
