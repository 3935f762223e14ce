// SessionManager: the plugin's way to the peer devices over the soft bus. A control session is
// opened with a name ("%011u-<peer network id>") and a command text that the peer's host hands
// to its plugin; data channels are opened separately and carry photos. Messages of any size
// arrive whole and in order; the peer's host delivers them to its EventListeners under the
// control session's name.
// Thread-safety: all operations may be called from any thread; they forward to the device
// context's soft bus.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "ability_records.h"
#include "session_attribute.h"
#include "soft_bus.h"

namespace QUEX {
namespace Tandra {

// Message type of every camera header and photo message.
constexpr uint32_t MSG_TYPE_CAMERA = 2;

class SessionManager {
public:
    // Opens a control session to the peer carrying serviceInfo's name and command text;
    // (0, session id) or (error, -1).
    static std::pair<int32_t, int32_t> CollaborationToDeviceByCtrlSession(const std::string& localDeviceId,
                                                                          const std::string& peerNetworkId,
                                                                          std::shared_ptr<ServiceInfo> serviceInfo);
    // Closes the control session; with notifyPeer the peer is told (its commands are released).
    static int32_t StopCollaborationToDevice(int32_t sessionId, bool notifyPeer);
    // Sends one message on a control session.
    static int32_t TransmitMsg(int32_t sessionId, const char* data, uint32_t len, uint32_t type);
    // Sends one message on a data channel; sessionId names the control session the message
    // belongs to, so that the peer delivers it under that session's key.
    static int32_t TransmitMsgToSpecificChannel(int32_t channelId, int32_t sessionId, const char* data, uint32_t len,
                                                uint32_t type, bool isFirst);
    // The same for a message of head then len bytes of the file fd (from offset 0), which the
    // bus may stream from the file instead of holding the message whole.
    static int32_t TransmitFileToSpecificChannel(int32_t channelId, int32_t sessionId, const char* head,
                                                 uint32_t headLen, int fd, uint32_t len, uint32_t type, bool isFirst);
    // Opens a data channel to the peer; (0, channel id) or (error, -1).
    static std::pair<int32_t, int32_t> OpenDataTransmitChannel(const std::string& peerDeviceId,
                                                               const SessionAttribute& attr);
    // Whether the control session still exists.
    static bool GetCollaborationSession(int32_t sessionId);
    // The name and peer of a control session a peer opened towards this device, known from its
    // opening (while its commands execute) until its commands are released; false otherwise.
    static bool GetIncomingSession(int32_t sessionId, CtrlSessionInfo& info);
    // Data-message bytes received from the peer so far, counted while they arrive.
    static uint64_t DataBytesReceived(const std::string& peerNetworkId);
};

}  // namespace Tandra
}  // namespace QUEX
