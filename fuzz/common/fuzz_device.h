// FuzzDevice: one device of the process-wide plugin for libFuzzer targets, set up once per
// process, and the per-input life of a collaboration on it. Each input gets a fresh test
// device (so session and channel ids start over and nothing the bus recorded piles up), may
// start a collaboration as the requesting or the serving side, feeds its bytes in, and then
// ends everything the way a device really loses it (the link drops, the applications die).
// EndInput then checks that the plugin kept nothing of it: a collaboration, subscription,
// put-image record, data channel or incoming session left behind aborts the process, so that
// libFuzzer keeps the input as a crash. Waits still running at that point are run out by
// advancing the simulated clock (time stands still otherwise), and counted.
// Also the parcel side tables that fuzzed request bytes can point into: remote objects by
// index (the two applications' callbacks, an unrelated stub) and descriptors by index (two
// small photo files and /dev/null).
// Thread-safety: one input at a time, from the fuzzer's thread; the plugin's own threads run
// as they do in a host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "iremote_object.h"
#include "message_parcel.h"
#include "test_device.h"

namespace QUEX::Tandra::Fuzz {

// The requesting application (its device has the peer's camera) and the camera application
// the serving side starts; both are in-process "processes" that die at the end of each input.
constexpr int32_t APP_PID = 4321;
constexpr int32_t APP_UID = 20010001;
constexpr int32_t CAMERA_PID = 4101;
constexpr int32_t CAMERA_UID = 20040001;
constexpr uint32_t REQUEST_CODES[] = {1, 2, 3, 4, 5, 10};

// Indexes of the side tables FillSideTables puts into a request parcel.
enum ObjectIndex : int32_t { OBJECT_APP_CALLBACK = 0, OBJECT_CAMERA_CALLBACK = 1, OBJECT_UNRELATED = 2 };
enum DescriptorIndex : int32_t { FD_PHOTO_SMALL = 0, FD_PHOTO_LARGER = 1, FD_DEV_NULL = 2 };

class FuzzDevice {
public:
    // Created on first use: quiet log, simulated time, the scripted connection manager
    // registered and granting every resource application, the plugin singleton.
    static FuzzDevice& Get();

    // A fresh test device for one input (the peer has a camera, the local device has the
    // camera ability, both applications are known).
    void BeginInput();
    // A requesting-side collaboration whose command went out; its id and the session id.
    // False when it did not come up (then nothing of it runs).
    bool StartRequesting(uint32_t& collaborationId, int32_t& sessionId);
    // A serving-side collaboration: the peer's command ran, the data channel is open and the
    // camera application subscribed. The device's session id, or -1.
    int32_t StartServing();
    // The peer opens a control session carrying the command text and the device runs its
    // commands, waits run out as needed; the device's session id, result gets the outcome.
    int32_t OpenFromPeer(const std::string& commandText, int32_t& result);
    // The link drops, the applications die, everything settles; aborts when something of the
    // input is left in the plugin.
    void EndInput();

    // Sends a request to the framework service's stub as the application of pid/uid; the
    // parcel is used as it is (token and envelope included).
    int32_t SendToService(Vex::MessageParcel& data, Vex::MessageParcel& reply, int32_t pid, int32_t uid);
    // Adds the side tables (objects and descriptors) that the indexes above name.
    void FillSideTables(Vex::MessageParcel& data);

    Testing::TestDevice& Device() { return *device_; }
    // The command text a requesting device's plugin writes for this device's camera.
    const std::string& CommandText() const { return commandText_; }
    static const std::string& PeerNetworkId();

    FuzzDevice(const FuzzDevice&) = delete;
    FuzzDevice& operator=(const FuzzDevice&) = delete;

private:
    FuzzDevice();
    void Settle();
    [[noreturn]] static void LeftBehind(const std::string& what);

    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::unique_ptr<Testing::TestDevice> device_;
    std::string commandText_;
};

// Writes the record a remote object or descriptor of the side tables takes in a parcel.
void WriteObjectIndex(Vex::MessageParcel& data, int32_t index);
void WriteDescriptorIndex(Vex::MessageParcel& data, int32_t index);

// The corpus seed file of a target: name inside dir (created when missing).
void WriteSeed(const std::string& dir, const std::string& name, const std::string& bytes);

}  // namespace QUEX::Tandra::Fuzz
