#include "callback_skeleton.h"

#include <new>

#include "bounded_copy.h"
#include "ipc_result_codes.h"
#include "ipc_skeleton.h"
#include "utf16_text.h"
#include "vex_log_tags.h"

namespace QUEX::Tandra {

namespace {

// Service types and sub-service types of the collaboration-to-device callbacks (code 101).
constexpr uint32_t COLLABORATION_EVENT_SERVICE = 101;
constexpr uint32_t PHOTO_DATA_SERVICE = 102;
constexpr uint32_t ABILITY_SERVICE = 103;
constexpr uint32_t ABILITY_STATE = 1;
constexpr uint32_t ABILITY_DATA = 3;
constexpr uint32_t PHOTO_DATA = 105;
// Sub-services of the collaboration event service that carry an event (105 is photo data).
constexpr uint32_t EVENT_FIRST = 103;
constexpr uint32_t EVENT_SECOND = 104;
constexpr uint32_t EVENT_THIRD = 106;

// Sub-service types of the surface-transfer callbacks (code 601).
constexpr uint32_t SURFACE_EVENT_FIRST = 40001;
constexpr uint32_t SURFACE_EVENT_SECOND = 40002;
constexpr uint32_t SURFACE_CODED_EVENT = 10001;

// Each entry of a list takes at least this many bytes; a longer count cannot be genuine.
constexpr size_t MIN_ENTRY_BYTES = 8;

int32_t MapApplyResult(int32_t serviceResult)
{
    switch (serviceResult) {
        case IpcResult::SERVICE_RESOURCE_GRANTED:
            return IpcResult::RESOURCE_GRANTED;
        case IpcResult::SERVICE_RESOURCE_REFUSED:
            return IpcResult::RESOURCE_REFUSED;
        default:
            return 0;
    }
}

}  // namespace

CallbackSkeleton::CallbackSkeleton()
{
    TNDR_CALLBACK_LOGI("create callback = %{public}s", Utf16ToUtf8(GetDescriptor()).c_str());
}

CallbackSkeleton::~CallbackSkeleton()
{
    TNDR_CALLBACK_LOGI("destroy callback = %{public}s", Utf16ToUtf8(GetDescriptor()).c_str());
}

int CallbackSkeleton::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    std::u16string token = data.ReadInterfaceToken();
    if (token != GetDescriptor()) {
        TNDR_CALLBACK_LOGE("receive wrong interface token = %{public}s, expect %{public}s", Utf16ToUtf8(token).c_str(),
                           Utf16ToUtf8(GetDescriptor()).c_str());
        return IpcResult::WRONG_INTERFACE_TOKEN;
    }
    switch (code) {
        case GET_COLLABORATION_SERVICE:
            return GetCollaborationServiceCallback(data, reply, option);
        case COLLABORATION_TO_DEVICE:
            return CollaborationToDeviceCallback(data, reply, option);
        case DEVICE_PICKER:
            return DevicePickerCallback(data, reply, option);
        case COMMON_DATA_CHANNEL:
            return CommonDataChannelCallback(data, reply, option);
        case ICONNECT_DOWN_MESSAGE:
            return IConnectDownMessageCallback(data, reply, option);
        case MESHLINE:
            return MeshlineCallback(data, reply, option);
        case SURFACE_TRANSFER:
            return SurfaceTransferCallback(data, reply, option);
        default:
            TNDR_CALLBACK_LOGE("revice unknown code, code is %{public}d", code);
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
}

int32_t CallbackSkeleton::OnDataCallback(uint32_t code, uint32_t, uint32_t, std::unique_ptr<char[]>)
{
    TNDR_CALLBACK_LOGI("code = %{public}u", code);
    return 0;
}

int32_t CallbackSkeleton::OnEvent(uint32_t code, uint32_t eventId, std::string&)
{
    TNDR_CALLBACK_LOGI("code = %{public}u, eventId = %{public}u", code, eventId);
    return 0;
}

int32_t CallbackSkeleton::DisconnectDevice(std::string, uint32_t serviceType)
{
    TNDR_CALLBACK_LOGI("serviceType = %{public}d", serviceType);
    return 0;
}

int32_t CallbackSkeleton::StateNotify(int32_t, std::vector<uint32_t>, std::vector<sptr<ServiceStateInfo>>)
{
    return 0;
}

int32_t CallbackSkeleton::OnServiceStateChanged(std::string, std::string, std::string, int32_t, int32_t)
{
    return 0;
}

int32_t CallbackSkeleton::OnDisconnected(std::string, int32_t)
{
    return 0;
}

int32_t CallbackSkeleton::OnDisconnected(std::string, std::string)
{
    return 0;
}

int32_t CallbackSkeleton::ApplyResult(std::string, std::string, std::string, int32_t, int32_t)
{
    return 0;
}

void CallbackSkeleton::OnCollaborationAbilityState(int32_t) {}

void CallbackSkeleton::OnCollaborationAbilityData(int32_t, const uint8_t*, uint32_t) {}

CallbackSkeleton::Header CallbackSkeleton::ReadHeader(MessageParcel& data)
{
    Header header{};
    header.serviceType = data.ReadUint32();
    header.subServiceType = data.ReadUint32();
    header.operateCode = data.ReadUint32();
    header.subOperateCode = data.ReadUint32();
    header.command = data.ReadUint32();
    TNDR_CALLBACK_LOGI(
        "serviceType = %{public}d, subServiceType = %{public}u, operateCode = %{public}u, "
        "subOperateCode = %{public}d, command = %{public}u",
        header.serviceType, header.subServiceType, header.operateCode, header.subOperateCode, header.command);
    return header;
}

int32_t CallbackSkeleton::ReadSubCode(MessageParcel& data)
{
    uint32_t subCode = data.ReadUint32();
    TNDR_CALLBACK_LOGI("subCode is %{public}d", subCode);
    return 0;
}

int32_t CallbackSkeleton::ParseNotifyStateCallback(MessageParcel& data, std::vector<uint32_t>& ids,
                                                   std::vector<sptr<ServiceStateInfo>>& infos)
{
    if (!data.ReadUInt32Vector(&ids)) {
        TNDR_CALLBACK_LOGI("ReadUInt32Vector failed");
        return IpcResult::INVALID_PARAM;
    }
    size_t count = data.ReadUint32();
    size_t readableEntries = data.GetReadableBytes() / MIN_ENTRY_BYTES;
    if (count > readableEntries) {
        TNDR_CALLBACK_LOGI("Failed to read vector, size = %{public}zu, readAbleSize = %{public}zu", count,
                           readableEntries);
        return IpcResult::INVALID_PARAM;
    }
    for (size_t i = 0; i < count; ++i) {
        sptr<ServiceStateInfo> info = data.ReadStrongParcelable<ServiceStateInfo>();
        if (info == nullptr) {
            TNDR_DEVICE_DETECT_LOGE("ReadStrongParcelable nullptr");
            continue;
        }
        infos.push_back(std::move(info));
    }
    return 0;
}

int32_t CallbackSkeleton::MeshlineCallback(MessageParcel& data, MessageParcel& reply, MessageOption&)
{
    Header header = ReadHeader(data);
    int32_t result = 0;
    switch (header.subServiceType) {
        case DISCONNECT_DEVICE: {
            std::string deviceId = data.ReadString();
            uint32_t serviceType = data.ReadUint32();
            result = DisconnectDevice(std::move(deviceId), serviceType);
            break;
        }
        case STATE_NOTIFY: {
            int32_t state = data.ReadInt32();
            std::vector<uint32_t> ids;
            std::vector<sptr<ServiceStateInfo>> infos;
            if (ParseNotifyStateCallback(data, ids, infos) != 0) {
                return IpcResult::INVALID_PARAM;
            }
            result = StateNotify(state, std::move(ids), std::move(infos));
            break;
        }
        case SERVICE_STATE_CHANGED: {
            std::string first = data.ReadString();
            std::string second = data.ReadString();
            std::string third = data.ReadString();
            int32_t state = data.ReadInt32();
            int32_t value = data.ReadInt32();
            result = OnServiceStateChanged(std::move(first), std::move(second), std::move(third), state, value);
            break;
        }
        case DISCONNECTED: {
            std::string first = data.ReadString();
            std::string second = data.ReadString();
            std::string third = data.ReadString();
            int32_t value = data.ReadInt32();
            // The service only needs the notice delivered; what the callbacks make of it is theirs.
            (void)OnDisconnected(std::move(first), value);
            (void)OnDisconnected(std::move(second), std::move(third));
            result = 0;
            break;
        }
        case APPLY_RESULT: {
            std::string first = data.ReadString();
            std::string second = data.ReadString();
            std::string third = data.ReadString();
            int32_t value = data.ReadInt32();
            int32_t serviceResult = data.ReadInt32();
            int32_t resultCode = MapApplyResult(serviceResult);
            TNDR_CALLBACK_LOGI("resultCode = %{public}d, result = %{public}d", resultCode, serviceResult);
            result = ApplyResult(std::move(first), std::move(second), std::move(third), value, resultCode);
            break;
        }
        default:
            TNDR_CALLBACK_LOGE("Unsupport type");
            return IpcResult::UNKNOWN_CODE;
    }
    (void)reply.WriteInt32(result);
    return result;
}

int32_t CallbackSkeleton::CollaborationToDeviceCallback(MessageParcel& data, MessageParcel& reply, MessageOption&)
{
    TNDR_CALLBACK_LOGI("pid = %{public}d , pid = %{public}d", IPCSkeleton::GetCallingPid(),
                       IPCSkeleton::GetCallingUid());
    Header header = ReadHeader(data);
    if (header.serviceType == ABILITY_SERVICE) {
        if (header.subServiceType == ABILITY_DATA) {
            int32_t type = data.ReadInt32();
            uint32_t length = data.ReadUint32();
            const uint8_t* buffer = data.ReadBuffer(length);
            if (buffer != nullptr || length == 0) {
                OnCollaborationAbilityData(type, buffer, length);
            } else {
                TNDR_CALLBACK_LOGE("ability data shorter than length = %{public}u", length);
            }
        } else if (header.subServiceType == ABILITY_STATE) {
            OnCollaborationAbilityState(data.ReadInt32());
        }
        (void)reply.WriteInt32(0);
        return 0;
    }
    if (header.serviceType == PHOTO_DATA_SERVICE) {
        if (header.subServiceType != PHOTO_DATA) {
            return 0;
        }
        int32_t result = DataPretreatment(data);
        (void)reply.WriteInt32(result);
        return result;
    }
    if (header.serviceType == COLLABORATION_EVENT_SERVICE &&
        (header.subServiceType == EVENT_FIRST || header.subServiceType == EVENT_SECOND ||
         header.subServiceType == EVENT_THIRD)) {
        uint32_t code = data.ReadUint32();
        uint32_t eventId = data.ReadUint32();
        std::string text = data.ReadString();
        int32_t result = OnEvent(code, eventId, text);
        (void)reply.WriteInt32(result);
        return result;
    }
    return 0;
}

int32_t CallbackSkeleton::DataPretreatment(MessageParcel& data)
{
    TNDR_CALLBACK_LOGI("enter.");
    uint32_t code = data.ReadUint32();
    uint32_t type = data.ReadUint32();
    uint32_t length = data.ReadUint32();
    if (length > MAX_PHOTO_DATA_LENGTH) {
        TNDR_CALLBACK_LOGE("new buffer failed of length = %{public}u", length);
        return IpcResult::PHOTO_DATA_INVALID;
    }
    const void* raw = data.ReadRawData(length);
    if (raw == nullptr) {
        TNDR_CALLBACK_LOGE("PHOTO SIZE is too large, length = %{public}u.", length);
        return IpcResult::PHOTO_DATA_INVALID;
    }
    // The one copy of the photo bytes: the callback owns its buffer beyond this call.
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[length]);
    if (buffer == nullptr || (length > 0 && BoundedCopy(buffer.get(), length, raw, length) != EOK)) {
        TNDR_CALLBACK_LOGE("memcpy_s failed , size = %{public}u.", length);
        return IpcResult::PHOTO_DATA_COPY_FAILED;
    }
    int32_t result = OnDataCallback(code, type, length, std::move(buffer));
    TNDR_CALLBACK_LOGI("leave");
    return result;
}

int32_t CallbackSkeleton::CommonDataChannelCallback(MessageParcel& data, MessageParcel&, MessageOption&)
{
    return ReadSubCode(data);
}

int32_t CallbackSkeleton::DevicePickerCallback(MessageParcel& data, MessageParcel&, MessageOption&)
{
    return ReadSubCode(data);
}

int32_t CallbackSkeleton::GetCollaborationServiceCallback(MessageParcel& data, MessageParcel&, MessageOption&)
{
    return ReadSubCode(data);
}

int32_t CallbackSkeleton::IConnectDownMessageCallback(MessageParcel& data, MessageParcel&, MessageOption&)
{
    return ReadSubCode(data);
}

int32_t CallbackSkeleton::SurfaceTransferCallback(MessageParcel& data, MessageParcel& reply, MessageOption&)
{
    Header header = ReadHeader(data);
    uint32_t code = 0;
    uint32_t eventId = header.subServiceType;
    std::string text;
    switch (header.subServiceType) {
        case SURFACE_EVENT_FIRST:
        case SURFACE_EVENT_SECOND:
            text = data.ReadString();
            break;
        case SURFACE_CODED_EVENT:
            code = data.ReadUint32();
            text = data.ReadString();
            break;
        default:
            TNDR_CALLBACK_LOGE("Unsupport type");
            return IpcResult::UNKNOWN_CODE;
    }
    int32_t result = OnEvent(code, eventId, text);
    (void)reply.WriteInt32(result);
    TNDR_CALLBACK_LOGI("---code = %{public}u, eventId = %{public}u", code, eventId);
    return result;
}

}  // namespace QUEX::Tandra
