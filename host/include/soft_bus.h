// SoftBus: the backend that moves bytes between this device and its peers: control sessions
// (opened with a name and a command text that the peer's host runs), data channels, and
// messages on both. The host's session layer is its only client and its SoftBusListener.
// Implementations: the in-memory bus of the test backends (whose far end is scripted) and,
// later, TCP links between daemons.
//
// Contract every implementation keeps:
//   - Session and channel ids are this device's own; ids are positive and not reused while
//     the bus lives. A data message names the control session it belongs to by the RECEIVING
//     device's id for that session (the bus translates), so the receiver can key it. The
//     translation only ever yields a session with the device at the other end of the data
//     channel: a name another device chose can never attach its data to our session.
//   - A message arrives whole (any size up to 4 GiB - 1) and in send order per session and per
//     channel; the listener sees it as one contiguous buffer that is valid during the call only.
//   - OpenCtrlSession returns only after the peer's host has run the commands of the command
//     text (SoftBusListener::OnCtrlSessionOpened on the peer): the result is the peer's.
//   - OnCtrlSessionClosed is reported on the side that did NOT close the session (the peer
//     closed it with notifyPeer, or the link dropped); never for a local CloseCtrlSession.
// Copies: one user-space copy of a message per hop at most. A sender's buffer may be copied
// once (the in-memory bus copies it into the far end's record; TCP writes it to the socket
// straight from the caller's buffer, or reads a file a piece at a time into a reused buffer);
// a receiver reads it once into one buffer and hands the listener a pointer into it; listeners
// do not copy unless they keep the bytes.
// Thread-safety: every operation may be called from any thread, including from inside a
// listener call. Listener calls come from the bus's own threads, never with a bus lock held;
// OnCtrlSessionOpened may run concurrently with other listener calls (it may block for
// seconds), all other calls of one peer arrive on one thread in order.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "session_attribute.h"

namespace QUEX {
namespace Tandra {

// A control session as the bus knows it.
struct CtrlSessionInfo {
    int32_t sessionId = -1;
    std::string sessionName;    // "%011u-<network id>", chosen by the side that opened it
    std::string peerNetworkId;  // the device at the other end
    bool openedByPeer = false;  // true on the side that received the opening
};

class SoftBusListener {
public:
    SoftBusListener() = default;
    virtual ~SoftBusListener() = default;
    SoftBusListener(const SoftBusListener&) = delete;
    SoftBusListener& operator=(const SoftBusListener&) = delete;

    // A peer opened a control session carrying a command text. 0 accepts it; any other value
    // fails the open: the bus forgets the session and the opener's OpenCtrlSession returns it.
    virtual int32_t OnCtrlSessionOpened(const CtrlSessionInfo& session, const std::string& commandText) = 0;
    // The peer closed the session or the link to it dropped.
    virtual void OnCtrlSessionClosed(const CtrlSessionInfo& session) = 0;
    virtual void OnCtrlMessage(const CtrlSessionInfo& session, const char* data, uint32_t len, uint32_t type) = 0;
    // A message on a data channel. session is null when the control session it names is not
    // (or no longer) known on this device.
    virtual void OnDataMessage(int32_t channelId, const CtrlSessionInfo* session, const char* data, uint32_t len,
                               uint32_t type) = 0;
};

class SoftBus {
public:
    SoftBus() = default;
    virtual ~SoftBus() = default;
    SoftBus(const SoftBus&) = delete;
    SoftBus& operator=(const SoftBus&) = delete;

    // Null stops deliveries (they are dropped). The listener must outlive its registration.
    virtual void SetListener(SoftBusListener* listener) = 0;

    // (0, session id) or (error, -1). Blocks until the peer has run the command text.
    virtual std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peerNetworkId,
                                                        const std::string& sessionName,
                                                        const std::string& commandText) = 0;
    // Closes a control session; with notifyPeer the peer is told (it sees OnCtrlSessionClosed).
    // 0, or HOST_ERR_NO_SESSION when no such session is open.
    virtual int32_t CloseCtrlSession(int32_t sessionId, bool notifyPeer) = 0;
    virtual bool HasCtrlSession(int32_t sessionId) = 0;
    // 0 when the whole message was accepted for delivery, else an error (nothing was sent).
    virtual int32_t SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type) = 0;

    // Opens a data channel to the peer (network id or UDID); (0, channel id) or (error, -1).
    virtual std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peerDeviceId,
                                                        const SessionAttribute& attr) = 0;
    // 0, or HOST_ERR_NO_SESSION when no such channel is open.
    virtual int32_t CloseDataChannel(int32_t channelId) = 0;
    // ctrlSessionId is this device's id of the control session the message belongs to.
    virtual int32_t SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len,
                                    uint32_t type, bool isFirst) = 0;
    // Sends one data message made of head (headLen bytes) then len bytes of the file fd from
    // offset 0, zeros where the file ends early; the peer sees an ordinary data message. A
    // transport that streams from the file sends a photo without ever holding it whole. This
    // default reads the file into one buffer and sends that with SendDataMessage.
    virtual int32_t SendDataMessageFromFile(int32_t channelId, int32_t ctrlSessionId, const char* head,
                                            uint32_t headLen, int fd, uint32_t len, uint32_t type, bool isFirst);
    // Bytes of data messages received from the peer so far, counted while each one arrives, so
    // that a long message shows progress before it is complete. Only changes matter (a new
    // connection may start over); 0 where the transport does not count.
    virtual uint64_t DataBytesReceived(const std::string& /*peerNetworkId*/) { return 0; }
};

}  // namespace Tandra
}  // namespace QUEX
