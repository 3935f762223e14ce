#include "device_service.h"

#include "iremote_object.h"

namespace QUEX {
namespace Tandra {

using Vex::MessageOption;
using Vex::MessageParcel;

namespace {

void WriteEntry(MessageParcel& parcel, const DeviceEntry& entry)
{
    parcel.WriteString(entry.networkId);
    parcel.WriteString(entry.udid);
    parcel.WriteString(entry.name);
    parcel.WriteUint32(entry.type);
    parcel.WriteBool(entry.trusted);
    parcel.WriteBool(entry.linked);
    parcel.WriteBool(entry.hasCamera);
    parcel.WriteString(entry.address);
    parcel.WriteString(entry.foundBy);
    parcel.WriteString(entry.pairingCode);
}

bool ReadEntry(MessageParcel& parcel, DeviceEntry& entry)
{
    return parcel.ReadString(entry.networkId) && parcel.ReadString(entry.udid) && parcel.ReadString(entry.name) &&
           parcel.ReadUint32(entry.type) && parcel.ReadBool(entry.trusted) && parcel.ReadBool(entry.linked) &&
           parcel.ReadBool(entry.hasCamera) && parcel.ReadString(entry.address) &&
           parcel.ReadString(entry.foundBy) && parcel.ReadString(entry.pairingCode);
}

// A device list is never longer than this on the wire; a reply claiming more is refused
// before anything is allocated for it.
constexpr uint32_t MAX_DEVICES = 4096;

}  // namespace

DeviceServiceProxy::DeviceServiceProxy(const Vex::sptr<Vex::IRemoteObject>& object)
    : Vex::IRemoteProxy<IDeviceService>(object)
{
}

namespace {

// Sends one request; the transport's error becomes DEVICE_ERR_TRANSPORT.
int32_t Call(const Vex::sptr<Vex::IRemoteObject>& remote, uint32_t code, MessageParcel& data, MessageParcel& reply)
{
    if (remote == nullptr) {
        return DEVICE_ERR_TRANSPORT;
    }
    MessageOption option;
    if (remote->SendRequest(code, data, reply, option) != Vex::ERR_NONE) {
        return DEVICE_ERR_TRANSPORT;
    }
    int32_t result = 0;
    return reply.ReadInt32(result) ? result : DEVICE_ERR_TRANSPORT;
}

PairingAnswer CallPairing(const Vex::sptr<Vex::IRemoteObject>& remote, uint32_t code, const std::string& device,
                          const bool* accept)
{
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(IDeviceService::GetDescriptor());
    data.WriteString(device);
    if (accept != nullptr) {
        data.WriteBool(*accept);
    }
    PairingAnswer answer;
    answer.result = Call(remote, code, data, reply);
    if (answer.result == DEVICE_ERR_TRANSPORT) {
        answer.message = "the device service did not answer";
        return answer;
    }
    if (code != IDeviceService::UNPAIR) {
        reply.ReadString(answer.code);
    }
    reply.ReadString(answer.message);
    return answer;
}

}  // namespace

AppRegistration DeviceServiceProxy::RegisterApp(bool foreground)
{
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(GetDescriptor());
    data.WriteBool(foreground);
    AppRegistration registration;
    registration.result = Call(Remote(), REGISTER_APP, data, reply);
    if (registration.result != DEVICE_ERR_TRANSPORT) {
        reply.ReadString(registration.bundleName);
        ReadEntry(reply, registration.self);
    }
    return registration;
}

int32_t DeviceServiceProxy::SetForeground(bool foreground)
{
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(GetDescriptor());
    data.WriteBool(foreground);
    return Call(Remote(), SET_FOREGROUND, data, reply);
}

DeviceList DeviceServiceProxy::ListDevices()
{
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(GetDescriptor());
    DeviceList list;
    list.result = Call(Remote(), LIST_DEVICES, data, reply);
    if (list.result == DEVICE_ERR_TRANSPORT) {
        return list;
    }
    uint32_t count = 0;
    if (!reply.ReadUint32(count) || count > MAX_DEVICES) {
        list.result = DEVICE_ERR_TRANSPORT;
        return list;
    }
    for (uint32_t i = 0; i < count; ++i) {
        DeviceEntry entry;
        if (!ReadEntry(reply, entry)) {
            list.result = DEVICE_ERR_TRANSPORT;
            return list;
        }
        list.devices.push_back(std::move(entry));
    }
    reply.ReadString(list.note);
    return list;
}

PairingAnswer DeviceServiceProxy::Pair(const std::string& device)
{
    return CallPairing(Remote(), PAIR, device, nullptr);
}

PairingAnswer DeviceServiceProxy::ConfirmPair(const std::string& device, bool accept)
{
    return CallPairing(Remote(), CONFIRM_PAIR, device, &accept);
}

PairingAnswer DeviceServiceProxy::Unpair(const std::string& device)
{
    return CallPairing(Remote(), UNPAIR, device, nullptr);
}

std::string DeviceServiceProxy::Diagnostics()
{
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(GetDescriptor());
    if (Call(Remote(), DIAGNOSTICS, data, reply) != 0) {
        return "";
    }
    return reply.ReadString();
}

int DeviceServiceStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                       MessageOption& option)
{
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        return Vex::ERR_INVALID_DATA;
    }
    switch (code) {
        case REGISTER_APP: {
            bool foreground = false;
            if (!data.ReadBool(foreground)) {
                return Vex::ERR_INVALID_DATA;
            }
            AppRegistration registration = RegisterApp(foreground);
            reply.WriteInt32(registration.result);
            reply.WriteString(registration.bundleName);
            WriteEntry(reply, registration.self);
            return Vex::ERR_NONE;
        }
        case SET_FOREGROUND: {
            bool foreground = false;
            if (!data.ReadBool(foreground)) {
                return Vex::ERR_INVALID_DATA;
            }
            reply.WriteInt32(SetForeground(foreground));
            return Vex::ERR_NONE;
        }
        case LIST_DEVICES: {
            DeviceList list = ListDevices();
            reply.WriteInt32(list.result);
            reply.WriteUint32(static_cast<uint32_t>(list.devices.size()));
            for (const DeviceEntry& entry : list.devices) {
                WriteEntry(reply, entry);
            }
            reply.WriteString(list.note);
            return Vex::ERR_NONE;
        }
        case PAIR:
        case CONFIRM_PAIR:
        case UNPAIR: {
            std::string device;
            bool accept = false;
            if (!data.ReadString(device) || (code == CONFIRM_PAIR && !data.ReadBool(accept))) {
                return Vex::ERR_INVALID_DATA;
            }
            PairingAnswer answer = code == PAIR ? Pair(device) : code == UNPAIR ? Unpair(device)
                                                                                 : ConfirmPair(device, accept);
            reply.WriteInt32(answer.result);
            if (code != UNPAIR) {
                reply.WriteString(answer.code);
            }
            reply.WriteString(answer.message);
            return Vex::ERR_NONE;
        }
        case DIAGNOSTICS:
            reply.WriteInt32(0);
            reply.WriteString(Diagnostics());
            return Vex::ERR_NONE;
        default:
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
}

}  // namespace Tandra
}  // namespace QUEX
