// The wire layouts of the Meshline connection-management operations, as the service side reads
// and writes them: the request envelope and each operation's arguments (request code 501,
// operations 1 to 16), the task list of a conflict answer, and the callback parcels it sends
// back on "quex.ITandra.ITandraCallback" (sub-services 502 to 506). Decoding works from the
// bytes alone, so the service and the scripted test service read exactly what a client wrote.
// Thread-safety: free functions on caller-owned parcels; plain value records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "iremote_object.h"
#include "message_parcel.h"

namespace QUEX::Tandra::MeshlineWire {

constexpr int32_t SYSTEM_ABILITY_ID = 70633;
constexpr uint32_t MESHLINE_CODE = 501;
extern const std::u16string SERVICE_TOKEN;   // "quex.ITandra.ITandraService"
extern const std::u16string CALLBACK_TOKEN;  // "quex.ITandra.ITandraCallback"

// Operation codes: the sub-service type, second Uint32 of the request envelope.
enum MeshlineOp : uint32_t {
    REGISTER_DEVICE_STATE_MANAGER_CALLBACK = 1,
    UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK = 2,
    NOTIFY_DEVICE_CONNECT_STATE = 3,
    CHECK_CONFLICT = 4,
    DISCONNECT_CURRENT_DEVICE = 5,
    REGISTER_DEVICE_STATE_SUBSCRIBER = 6,
    UNREGISTER_DEVICE_STATE_SUBSCRIBER = 7,
    SUBSCRIBE_SERVICE_STATE = 8,
    UNSUBSCRIBE_SERVICE_STATE = 9,
    SUBSCRIBE_NOTIFY_DISCONNECT = 10,
    UNSUBSCRIBE_NOTIFY_DISCONNECT = 11,
    PUBLISH_SERVICE_STATE = 12,
    APPLY_ADVANCED_RESOURCE = 13,
    NOTIFY_ALL_STATE = 14,
    SUBSCRIBE_SERVICE_STATE_WITH_PID = 15,
    UNSUBSCRIBE_SERVICE_STATE_WITH_PID = 16,
};

// Sub-service types of the Meshline callbacks.
enum MeshlineCallbackEvent : uint32_t {
    DISCONNECT_DEVICE_EVENT = 502,
    STATE_NOTIFY_EVENT = 503,
    SERVICE_STATE_CHANGED_EVENT = 504,
    DISCONNECTED_EVENT = 505,
    APPLY_RESULT_EVENT = 506,
};

struct HardwareValues {
    bool present = false;
    uint32_t type = 0;
    bool canShare = false;
};

struct CommunicationValues {
    bool present = false;
    int32_t minBandwidth = 0;
    int32_t maxLatency = 0;
    int32_t minLatency = 0;
    int32_t maxWaitTime = 0;
    int32_t maxBuffer = 0;
    int32_t maxIdleTime = 0;
    int32_t firstPackage = 0;
    int32_t transReliability = 0;
    std::string dataType;
};

struct ResourceRequestValues {
    bool present = false;
    std::vector<HardwareValues> remote;
    std::vector<HardwareValues> local;
    CommunicationValues communication;
};

struct ServiceStateValues {
    bool present = false;
    std::string deviceId;
    uint32_t linkType = 0;
    uint32_t connectState = 0;
};

// One task of a CheckConflict answer; present false writes an absent entry.
struct TaskValues {
    bool present = true;
    std::string deviceId;
    uint32_t serviceType = 0;
    uint32_t linkType = 0;
    uint32_t connectState = 0;
    uint32_t canDisconnectFlag = 0;
};

// One request as decoded from its parcel.
struct Request {
    std::u16string token;
    // The envelope after the token.
    uint32_t serviceType = 0;
    uint32_t operation = 0;
    uint32_t operateCode = 0;
    uint32_t subOperateCode = 0;
    uint32_t command = 0;
    // The operation's arguments, by kind, in the order they were written.
    std::vector<std::string> strings;
    std::vector<uint32_t> uints;
    std::vector<int32_t> ints;
    Vex::sptr<Vex::IRemoteObject> callback;  // the callback object, when the operation carries one
    ServiceStateValues serviceState;         // NOTIFY_DEVICE_CONNECT_STATE
    ResourceRequestValues resource;          // APPLY_ADVANCED_RESOURCE
    bool complete = false;                   // every item of the operation's layout was readable
    size_t unreadBytes = 0;                  // bytes left after the layout (a client writing too much)
};

bool IsKnownOperation(uint32_t operation);
// Reads the token, the envelope and (for a known operation under the right token) the
// arguments. Never fails: what could not be read is left at its default and complete false.
Request DecodeRequest(Vex::MessageParcel& data);

// CheckConflict's answer: the count, each task flagged, then the result.
void WriteTaskList(Vex::MessageParcel& reply, const std::vector<TaskValues>& tasks, int32_t result);

// The callback token and the five Uint32 of a callback header.
void WriteCallbackHeader(Vex::MessageParcel& data, uint32_t serviceType, uint32_t subServiceType,
                         uint32_t operateCode = 0, uint32_t subOperateCode = 0, uint32_t command = 0);
// Whole callback parcels of code 501, header included.
void WriteDisconnectDevice(Vex::MessageParcel& data, const std::string& deviceId, uint32_t serviceType);
void WriteStateNotify(Vex::MessageParcel& data, int32_t state, const std::vector<uint32_t>& ids,
                      const std::vector<ServiceStateValues>& infos);
void WriteServiceStateChanged(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                              const std::string& third, int32_t state, int32_t value);
void WriteDisconnected(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                       const std::string& third, int32_t value);
void WriteApplyResult(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                      const std::string& third, int32_t value, int32_t serviceResult);

}  // namespace QUEX::Tandra::MeshlineWire
