#include "meshline_wire.h"

#include <utility>

namespace QUEX::Tandra::MeshlineWire {

const std::u16string SERVICE_TOKEN = u"quex.ITandra.ITandraService";
const std::u16string CALLBACK_TOKEN = u"quex.ITandra.ITandraCallback";

namespace {

// The arguments after the envelope, one letter per item: S String, U Uint32, I Int32,
// O remote object, P flagged service state, R flagged resource request.
const char* LayoutOf(uint32_t operation)
{
    switch (operation) {
        case REGISTER_DEVICE_STATE_MANAGER_CALLBACK:
            return "SUO";
        case UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK:
            return "SU";
        case NOTIFY_DEVICE_CONNECT_STATE:
            return "SUP";
        case CHECK_CONFLICT:
        case DISCONNECT_CURRENT_DEVICE:
            return "SUU";
        case REGISTER_DEVICE_STATE_SUBSCRIBER:
        case SUBSCRIBE_SERVICE_STATE:
        case SUBSCRIBE_SERVICE_STATE_WITH_PID:
            return "O";
        case UNREGISTER_DEVICE_STATE_SUBSCRIBER:
        case UNSUBSCRIBE_SERVICE_STATE:
        case NOTIFY_ALL_STATE:
        case UNSUBSCRIBE_SERVICE_STATE_WITH_PID:
            return "";
        case SUBSCRIBE_NOTIFY_DISCONNECT:
            return "SSSO";
        case UNSUBSCRIBE_NOTIFY_DISCONNECT:
            return "SS";
        case PUBLISH_SERVICE_STATE:
            return "SSSI";
        case APPLY_ADVANCED_RESOURCE:
            return "SSRO";
        default:
            return nullptr;
    }
}

bool ReadFlag(Vex::MessageParcel& data, bool& present)
{
    int32_t flag = 0;
    if (!data.ReadInt32(flag)) {
        return false;
    }
    present = flag != 0;
    return true;
}

bool ReadHardwareList(Vex::MessageParcel& data, std::vector<HardwareValues>& list)
{
    uint32_t count = 0;
    // Every entry takes at least its flag: a larger count cannot be honest.
    if (!data.ReadUint32(count) || count > data.GetReadableBytes() / sizeof(int32_t)) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        HardwareValues entry;
        if (!ReadFlag(data, entry.present)) {
            return false;
        }
        if (entry.present && (!data.ReadUint32(entry.type) || !data.ReadBool(entry.canShare))) {
            return false;
        }
        list.push_back(entry);
    }
    return true;
}

bool ReadCommunication(Vex::MessageParcel& data, CommunicationValues& values)
{
    if (!ReadFlag(data, values.present)) {
        return false;
    }
    if (!values.present) {
        return true;
    }
    return data.ReadInt32(values.minBandwidth) && data.ReadInt32(values.maxLatency) &&
           data.ReadInt32(values.minLatency) && data.ReadInt32(values.maxWaitTime) &&
           data.ReadInt32(values.maxBuffer) && data.ReadInt32(values.maxIdleTime) &&
           data.ReadInt32(values.firstPackage) && data.ReadInt32(values.transReliability) &&
           data.ReadString(values.dataType);
}

bool ReadResource(Vex::MessageParcel& data, ResourceRequestValues& values)
{
    if (!ReadFlag(data, values.present)) {
        return false;
    }
    if (!values.present) {
        return true;
    }
    return ReadHardwareList(data, values.remote) && ReadHardwareList(data, values.local) &&
           ReadCommunication(data, values.communication);
}

bool ReadServiceState(Vex::MessageParcel& data, ServiceStateValues& values)
{
    if (!ReadFlag(data, values.present)) {
        return false;
    }
    if (!values.present) {
        return true;
    }
    return data.ReadString(values.deviceId) && data.ReadUint32(values.linkType) && data.ReadUint32(values.connectState);
}

bool ReadArguments(const char* layout, Vex::MessageParcel& data, Request& request)
{
    for (const char* item = layout; *item != '\0'; ++item) {
        bool ok = false;
        switch (*item) {
            case 'S': {
                std::string text;
                ok = data.ReadString(text);
                request.strings.push_back(std::move(text));
                break;
            }
            case 'U': {
                uint32_t value = 0;
                ok = data.ReadUint32(value);
                request.uints.push_back(value);
                break;
            }
            case 'I': {
                int32_t value = 0;
                ok = data.ReadInt32(value);
                request.ints.push_back(value);
                break;
            }
            case 'O':
                ok = data.GetReadableBytes() >= sizeof(int32_t);
                request.callback = data.ReadRemoteObject();
                break;
            case 'P':
                ok = ReadServiceState(data, request.serviceState);
                break;
            case 'R':
                ok = ReadResource(data, request.resource);
                break;
            default:
                break;
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

void WriteStrings(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                  const std::string& third)
{
    data.WriteString(first);
    data.WriteString(second);
    data.WriteString(third);
}

}  // namespace

bool IsKnownOperation(uint32_t operation)
{
    return LayoutOf(operation) != nullptr;
}

Request DecodeRequest(Vex::MessageParcel& data)
{
    Request request;
    request.token = data.ReadInterfaceToken();
    bool envelope = data.ReadUint32(request.serviceType) && data.ReadUint32(request.operation) &&
                    data.ReadUint32(request.operateCode) && data.ReadUint32(request.subOperateCode) &&
                    data.ReadUint32(request.command);
    const char* layout = LayoutOf(request.operation);
    if (envelope && layout != nullptr && request.token == SERVICE_TOKEN) {
        request.complete = ReadArguments(layout, data, request);
    }
    request.unreadBytes = data.GetReadableBytes();
    return request;
}

void WriteTaskList(Vex::MessageParcel& reply, const std::vector<TaskValues>& tasks, int32_t result)
{
    reply.WriteUint32(static_cast<uint32_t>(tasks.size()));
    for (const auto& task : tasks) {
        reply.WriteInt32(task.present ? 1 : 0);
        if (task.present) {
            reply.WriteString(task.deviceId);
            reply.WriteUint32(task.serviceType);
            reply.WriteUint32(task.linkType);
            reply.WriteUint32(task.connectState);
            reply.WriteUint32(task.canDisconnectFlag);
        }
    }
    reply.WriteInt32(result);
}

void WriteCallbackHeader(Vex::MessageParcel& data, uint32_t serviceType, uint32_t subServiceType,
                         uint32_t operateCode, uint32_t subOperateCode, uint32_t command)
{
    data.WriteInterfaceToken(CALLBACK_TOKEN);
    data.WriteUint32(serviceType);
    data.WriteUint32(subServiceType);
    data.WriteUint32(operateCode);
    data.WriteUint32(subOperateCode);
    data.WriteUint32(command);
}

void WriteDisconnectDevice(Vex::MessageParcel& data, const std::string& deviceId, uint32_t serviceType)
{
    WriteCallbackHeader(data, MESHLINE_CODE, DISCONNECT_DEVICE_EVENT);
    data.WriteString(deviceId);
    data.WriteUint32(serviceType);
}

void WriteStateNotify(Vex::MessageParcel& data, int32_t state, const std::vector<uint32_t>& ids,
                      const std::vector<ServiceStateValues>& infos)
{
    WriteCallbackHeader(data, MESHLINE_CODE, STATE_NOTIFY_EVENT);
    data.WriteInt32(state);
    data.WriteUInt32Vector(ids);
    data.WriteUint32(static_cast<uint32_t>(infos.size()));
    for (const auto& info : infos) {
        data.WriteInt32(info.present ? 1 : 0);
        if (info.present) {
            data.WriteString(info.deviceId);
            data.WriteUint32(info.linkType);
            data.WriteUint32(info.connectState);
        }
    }
}

void WriteServiceStateChanged(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                              const std::string& third, int32_t state, int32_t value)
{
    WriteCallbackHeader(data, MESHLINE_CODE, SERVICE_STATE_CHANGED_EVENT);
    WriteStrings(data, first, second, third);
    data.WriteInt32(state);
    data.WriteInt32(value);
}

void WriteDisconnected(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                       const std::string& third, int32_t value)
{
    WriteCallbackHeader(data, MESHLINE_CODE, DISCONNECTED_EVENT);
    WriteStrings(data, first, second, third);
    data.WriteInt32(value);
}

void WriteApplyResult(Vex::MessageParcel& data, const std::string& first, const std::string& second,
                      const std::string& third, int32_t value, int32_t serviceResult)
{
    WriteCallbackHeader(data, MESHLINE_CODE, APPLY_RESULT_EVENT);
    WriteStrings(data, first, second, third);
    data.WriteInt32(value);
    data.WriteInt32(serviceResult);
}

}  // namespace QUEX::Tandra::MeshlineWire
