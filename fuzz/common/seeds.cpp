// Writes the starting corpus of each plugin fuzz target from real, valid inputs: messages as
// the serving plugin sends them, the command text as the requesting plugin writes it, requests
// as the applications send them, records as their own Marshalling writes them, and callbacks as
// the connection-management service calls them. Run once by hand when an input format
// changes: tandra_fuzz_seeds <fuzz folder of the source tree>; the fuzzers grow the rest.
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "camera_ability_process.h"
#include "camera_msg_header.h"
#include "collaboration_records.h"
#include "fuzz_device.h"
#include "host_service_stub.h"
#include "iremote_stub.h"
#include "meshline_info.h"
#include "photo_callerInfo.h"
#include "scripted_meshline_service.h"

using namespace QUEX::Tandra;

namespace {

std::string Bytes(const Vex::Parcel& parcel)
{
    return std::string(reinterpret_cast<const char*>(parcel.GetData()), parcel.GetDataSize());
}

// ---- peer messages: [route][Uint16 length][message] ----
std::string Message(bool onDataChannel, uint32_t code, uint32_t size, const std::string& payload = "")
{
    CameraMsgHeader header{code, size};
    std::string message(reinterpret_cast<const char*>(&header), sizeof(header));
    message += payload;
    std::string record(1, onDataChannel ? '\1' : '\0');
    record += static_cast<char>(message.size() & 0xFF);
    record += static_cast<char>((message.size() >> 8) & 0xFF);
    return record + message;
}

std::string Photo(size_t size, uint8_t seed)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 31 + seed) & 0xFF);
    }
    return bytes;
}

void PeerMessages(const std::string& dir)
{
    const std::string photo = Photo(100, 3);
    const std::string started = Message(false, CODE_CAMERA_STARTED, 0);
    auto count = [](uint32_t photos) {
        return Message(false, CODE_PHOTO_COUNT, photos) + Message(true, CODE_PHOTO_COUNT, photos);
    };
    Fuzz::WriteSeed(dir, "camera_started", started);
    Fuzz::WriteSeed(dir, "one_photo", started + count(1) + Message(true, CODE_LAST_PHOTO, 100, photo));
    Fuzz::WriteSeed(dir, "three_photos", started + count(3) + Message(true, CODE_PHOTO, 100, photo) +
                                       Message(true, CODE_PHOTO, 50, Photo(50, 9)) +
                                       Message(true, CODE_LAST_PHOTO, 100, photo));
    Fuzz::WriteSeed(dir, "last_photo_without_count", started + Message(true, CODE_LAST_PHOTO, 100, photo));
    Fuzz::WriteSeed(dir, "count_on_data_channel_first", Message(true, CODE_PHOTO_COUNT, 2) +
                                                      Message(true, CODE_PHOTO, 100, photo) +
                                                      Message(false, CODE_PHOTO_COUNT, 2));
    Fuzz::WriteSeed(dir, "photo_failed_while_receiving",
                  started + count(2) + Message(true, CODE_PHOTO, 100, photo) + Message(false, CODE_PHOTO_FAILED, 0));
    for (uint32_t code : {CODE_CAMERA_APP_FAILURE, CODE_DEVICE_TYPE_REFUSED, CODE_DISCONNECTED_BEFORE_SEND,
                          CODE_PEER_WIFI_OFF, CODE_CAMERA_APP_FAILURE_2, CODE_CAMERA_DIED, CODE_DATA_SEND_FAILED}) {
        Fuzz::WriteSeed(dir, "ending_" + std::to_string(code), started + Message(false, code, 0));
    }
    Fuzz::WriteSeed(dir, "shorter_than_header", std::string("\0\3\0abc", 6));
    Fuzz::WriteSeed(dir, "size_mismatch", Message(true, CODE_PHOTO, 100, photo.substr(0, 50)));
    Fuzz::WriteSeed(dir, "unknown_code", Message(false, 1001201999, 0));
}

// ---- command text ----
std::string Replace(std::string text, const std::string& from, const std::string& to)
{
    size_t at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

void CommandTexts(const std::string& dir, const std::string& text)
{
    Fuzz::WriteSeed(dir, "as_written", text);
    Fuzz::WriteSeed(dir, "old_peer_without_action",
                  Replace(text, "\"peerAction\" : \"tandra.CameraAbility.TakePhoto\"", "\"peerAction\" : \"\""));
    Fuzz::WriteSeed(dir, "ability_chosen_by_requester",
                  Replace(text, "\"chooseAbilityAtPeer\" : true", "\"chooseAbilityAtPeer\" : false"));
    Fuzz::WriteSeed(dir, "dual_framework", Replace(text, "\"isDual\" : false", "\"isDual\" : true"));
    Fuzz::WriteSeed(dir, "other_command_type", Replace(text, "\"commandType\" : 1", "\"commandType\" : 2"));
    const std::string item = text.substr(text.find('{'), text.rfind('}') - text.find('{') + 1);
    Fuzz::WriteSeed(dir, "two_items", "[" + item + "," + item + "]");
    Fuzz::WriteSeed(dir, "not_an_array", item);
}

// ---- requests: [selector][parcel bytes after the envelope] ----
enum Selector : uint8_t { SERVING = 0x08, REQUESTING = 0x10, FROM_CAMERA = 0x20, RUNNING_ID = 0x40, WHOLE_HEADER = 6 };

void Request(const std::string& dir, const std::string& name, uint8_t selector,
             const std::function<void(Vex::MessageParcel&)>& write)
{
    Vex::MessageParcel parcel;
    write(parcel);
    Fuzz::WriteSeed(dir, name, std::string(1, static_cast<char>(selector)) + Bytes(parcel));
}

void CallerInfo(Vex::MessageParcel& parcel, int32_t sessionId)
{
    Vex::sptr<PhotoCallerInfo> caller = new PhotoCallerInfo();
    caller->SetCollaborationSessionId(sessionId);
    caller->SetAbilityName("CameraAbility");
    caller->SetBundleName("com.example.camera");
    caller->SetDeviceId(Testing::TestDevice::DefaultIdentity().networkId);
    caller->SetDeviceType(0x0E);
    parcel.WriteStrongParcelable(Vex::sptr<Vex::Parcelable>(caller.GetRefPtr()));
}

Vex::sptr<PickerResult> Picker()
{
    DeviceIdentity local = Testing::TestDevice::DefaultIdentity();
    DeviceIdentity peer = Testing::TestDevice::PeerIdentity();
    return new PickerResult(new AbilityFilter("tandra.CameraAbility.TakePhoto"),
                            new DeviceInfo(peer.networkId, peer.udid, peer.deviceName, peer.deviceType),
                            new LocalInfo("com.example.photo", "MainAbility", "entry", local.udid, local.deviceType));
}

void Requests(const std::string& dir)
{
    auto takePhoto = [](Vex::MessageParcel& parcel) {
        parcel.WriteInt32(1);
        Picker()->Marshalling(parcel);
        Fuzz::WriteObjectIndex(parcel, Fuzz::OBJECT_APP_CALLBACK);
    };
    Request(dir, "take_photo", 0, takePhoto);
    Request(dir, "take_photo_without_picker", 0, [](Vex::MessageParcel& parcel) {
        parcel.WriteInt32(0);
        Fuzz::WriteObjectIndex(parcel, Fuzz::OBJECT_APP_CALLBACK);
    });
    Request(dir, "take_photo_whole_header", WHOLE_HEADER, [&](Vex::MessageParcel& parcel) {
        for (uint32_t value : {1u, 0u, 0u, 0u}) {
            parcel.WriteUint32(value);
        }
        takePhoto(parcel);
    });
    for (const char* event : {"imageProcessComplete", "imagePreviewCancel"}) {
        Request(dir, std::string("subscribe_") + event, 1 | SERVING | FROM_CAMERA, [&](Vex::MessageParcel& parcel) {
            parcel.WriteUint32(0);
            parcel.WriteString(event);
            Fuzz::WriteObjectIndex(parcel, Fuzz::OBJECT_CAMERA_CALLBACK);
        });
    }
    // Put image: caller info, send mode, error code, count, then the descriptors.
    Request(dir, "put_image_one", 2 | SERVING | FROM_CAMERA, [](Vex::MessageParcel& parcel) {
        CallerInfo(parcel, 1);
        for (uint32_t value : {1u, 0u, 1u}) {
            parcel.WriteUint32(value);
        }
        Fuzz::WriteDescriptorIndex(parcel, Fuzz::FD_PHOTO_SMALL);
    });
    Request(dir, "put_image_two", 2 | SERVING | FROM_CAMERA, [](Vex::MessageParcel& parcel) {
        CallerInfo(parcel, 1);
        for (uint32_t value : {0u, 0u, 2u}) {
            parcel.WriteUint32(value);
        }
        Fuzz::WriteDescriptorIndex(parcel, Fuzz::FD_PHOTO_SMALL);
        Fuzz::WriteDescriptorIndex(parcel, Fuzz::FD_PHOTO_LARGER);
    });
    Request(dir, "cancel_unknown", 3 | REQUESTING, [](Vex::MessageParcel& parcel) { parcel.WriteUint32(1); });
    Request(dir, "cancel_running", 3 | REQUESTING | RUNNING_ID,
            [](Vex::MessageParcel& parcel) { parcel.WriteUint32(0); });
    Request(dir, "unregister", 4 | SERVING | FROM_CAMERA,
            [](Vex::MessageParcel& parcel) { parcel.WriteString("imageProcessComplete"); });
    Request(dir, "remote_cancel", 5 | SERVING | FROM_CAMERA, [](Vex::MessageParcel& parcel) {
        CallerInfo(parcel, 1);
        parcel.WriteUint32(CODE_CAMERA_APP_FAILURE);
    });
    Request(dir, "remote_cancel_without_session", 5 | SERVING | FROM_CAMERA, [](Vex::MessageParcel& parcel) {
        parcel.WriteInt32(0);
        parcel.WriteUint32(CODE_CAMERA_APP_FAILURE);
    });
}

// ---- records: [kind][record bytes] (kinds in the target's order) ----
void Records(const std::string& dir)
{
    auto record = [&](const std::string& name, uint8_t kind, const Vex::Parcelable& value) {
        Vex::Parcel parcel;
        value.Marshalling(parcel);
        Fuzz::WriteSeed(dir, name, std::string(1, static_cast<char>(kind)) + Bytes(parcel));
    };
    Fuzz::WriteSeed(dir, "photo_info", std::string(1, '\0'));
    Vex::MessageParcel callerParcel;
    CallerInfo(callerParcel, 7);
    Fuzz::WriteSeed(dir, "photo_caller_info", "\1" + Bytes(callerParcel).substr(4));  // without the presence flag
    DistributeTaskInfo task(Testing::TestDevice::PeerIdentity().udid, 2, 1);
    task.SetConnectState(1);
    task.SetCanDisconnectFlag(1);
    record("distribute_task_info", 2, task);
    record("service_state_info", 3, ServiceStateInfo(Testing::TestDevice::PeerIdentity().udid, 1, 2));
    record("hardware_request", 4, HardwareRequest(HardwareType::DISPLAY, false));
    Vex::sptr<ResourceRequest> resources = new ResourceRequest();
    CameraAbilityProcess::GetInstance()->InitApplyInfo(resources);
    record("communication_request", 5, *resources->GetCommunicationRequest());
    record("resource_request_as_applied", 6, *resources);
    record("picker_result", 7, *Picker());
    record("device_info", 8, *Picker()->GetDeviceInfo());
    record("local_info", 9, *Picker()->GetLocalDeviceInfo());
    record("ability_filter", 10, *Picker()->GetAbilityFilter());
}

// ---- callbacks: [selector][parcel bytes after the token], as the service sends them ----
class Capture : public Vex::IPCObjectStub {
public:
    Capture() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}
    int OnRemoteRequest(uint32_t, Vex::MessageParcel& data, Vex::MessageParcel&, Vex::MessageOption&) override
    {
        data.ReadInterfaceToken();
        last = Bytes(data).substr(data.GetReadPosition());
        return Vex::ERR_NONE;
    }
    std::string last;
};

void Callbacks(const std::string& dir)
{
    // A second instance, not registered: it only writes the calls.
    Vex::sptr<Testing::ScriptedMeshlineService> service = Testing::ScriptedMeshlineService::Create(7002, 1000);
    Vex::sptr<Capture> capture = new Capture();
    Vex::sptr<Vex::IRemoteObject> target(capture.GetRefPtr());
    const std::string peer = Testing::TestDevice::PeerIdentity().networkId;
    auto seed = [&](const std::string& name, uint8_t selector) {
        Fuzz::WriteSeed(dir, name, std::string(1, static_cast<char>(selector)) + capture->last);
    };
    service->CallDisconnectDevice(target, peer, 2);
    seed("disconnect_device", 0);
    service->CallStateNotify(target, 1, {1, 2}, {{true, peer, 1, 2}, {false, "", 0, 0}});
    seed("state_notify", 0);
    service->CallServiceStateChanged(target, peer, "Tandra", "", 1, 0);
    seed("service_state_changed", 0);
    service->CallDisconnected(target, "", peer, "disconnect", 0);
    seed("disconnected", 2);
    seed("disconnected_during_collaboration", 2 | 0x08);
    service->CallApplyResult(target, peer, "Tandra", "", 0, 1004720001);
    seed("apply_result_granted", 1);
    service->CallApplyResult(target, peer, "Tandra", "busy", 0, 1004720002);
    seed("apply_result_refused", 1);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <fuzz folder of the source tree>\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    Fuzz::FuzzDevice& device = Fuzz::FuzzDevice::Get();
    PeerMessages(root + "/peer_message/corpus");
    CommandTexts(root + "/command_text/corpus", device.CommandText());
    Requests(root + "/request_parcel/corpus");
    Records(root + "/records/corpus");
    Callbacks(root + "/callback_stub/corpus");
    return 0;
}
