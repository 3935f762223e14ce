// IDeviceService: what the host provides to applications around the plugins: the app's own
// registration (its bundle, named by the host from the caller's executable, never from what
// the caller claims; and whether it is in the foreground), the devices in reach with their
// trust and abilities (the picker's data), and pairing with a device. Served by the daemon as
// system ability TANDRA_DEVICE_SA_ID; DeviceServiceProxy is the applications' client and
// DeviceServiceStub decodes requests for an implementation.
// Wire layout (every request starts with the interface token):
//   REGISTER_APP    Bool foreground            -> Int32 result, String bundle, DeviceEntry self
//   SET_FOREGROUND  Bool foreground            -> Int32 result
//   LIST_DEVICES                               -> Int32 result, Uint32 n, n x DeviceEntry, String note
//   PAIR            String device              -> Int32 result, String code, String message
//   CONFIRM_PAIR    String device, Bool accept -> Int32 result, String code, String message
//   UNPAIR          String device              -> Int32 result, String message
//   DIAGNOSTICS                                -> Int32 result, String JSON object of the host's
//                                                 live counts (for leak checks and support)
//   DeviceEntry: String networkId, String udid, String name, Uint32 type, Bool trusted,
//                Bool linked, Bool hasCamera, String address, String foundBy, String pairingCode
// Thread-safety: the proxy may be used from any thread; the stub's operations are called on
// IPC threads, several at once, and implementations guard their own state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "iremote_broker.h"
#include "iremote_proxy.h"
#include "iremote_stub.h"

namespace QUEX {
namespace Tandra {

constexpr int32_t TANDRA_DEVICE_SA_ID = 70640;

// Results of the device service (0 is success).
constexpr int32_t DEVICE_ERR_UNKNOWN_DEVICE = 1013;
constexpr int32_t DEVICE_ERR_NOT_AN_APP = 1021;
constexpr int32_t DEVICE_ERR_PAIRING = 1022;
constexpr int32_t DEVICE_ERR_TRANSPORT = 1023;

struct DeviceEntry {
    std::string networkId;
    std::string udid;
    std::string name;
    uint32_t type = 0;
    bool trusted = false;
    bool linked = false;
    bool hasCamera = false;
    std::string address;      // host:port where the device was found
    std::string foundBy;      // "broadcast", "static", "dns-sd" or "incoming"
    std::string pairingCode;  // the code of a pairing in progress with it, else empty
};

struct AppRegistration {
    int32_t result = 0;
    std::string bundleName;  // empty: the caller's executable belongs to no installed app
    DeviceEntry self;
};

struct DeviceList {
    int32_t result = 0;
    std::vector<DeviceEntry> devices;
    std::string note;  // which ways of finding devices found nothing, in words
};

struct PairingAnswer {
    int32_t result = 0;
    std::string code;
    std::string message;
};

class IDeviceService : public Vex::IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"quex.ITandra.IDeviceService");
    enum : uint32_t {
        REGISTER_APP = 1,
        SET_FOREGROUND = 2,
        LIST_DEVICES = 3,
        PAIR = 4,
        CONFIRM_PAIR = 5,
        UNPAIR = 6,
        DIAGNOSTICS = 7,
    };

    virtual AppRegistration RegisterApp(bool foreground) = 0;
    virtual int32_t SetForeground(bool foreground) = 0;
    virtual DeviceList ListDevices() = 0;
    // Asks the device to pair; the answer carries the short code both devices show.
    virtual PairingAnswer Pair(const std::string& device) = 0;
    // The user's confirmation (or refusal) that both devices show the same code.
    virtual PairingAnswer ConfirmPair(const std::string& device, bool accept) = 0;
    virtual PairingAnswer Unpair(const std::string& device) = 0;
    // The host's live counts as one JSON object: sessions, waits, tasks, handles, children...
    virtual std::string Diagnostics() = 0;
};

class DeviceServiceProxy : public Vex::IRemoteProxy<IDeviceService> {
public:
    explicit DeviceServiceProxy(const Vex::sptr<Vex::IRemoteObject>& object);

    AppRegistration RegisterApp(bool foreground) override;
    int32_t SetForeground(bool foreground) override;
    DeviceList ListDevices() override;
    PairingAnswer Pair(const std::string& device) override;
    PairingAnswer ConfirmPair(const std::string& device, bool accept) override;
    PairingAnswer Unpair(const std::string& device) override;
    std::string Diagnostics() override;
};

class DeviceServiceStub : public Vex::IRemoteStub<IDeviceService> {
public:
    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;
};

}  // namespace Tandra
}  // namespace QUEX
