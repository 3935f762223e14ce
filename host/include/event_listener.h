// EventListener: what a plugin hears from the host's session layer: messages received on a
// control session or data channel, control-session shut-downs and Wi-Fi loss. The session
// forms name the session as the bus knows it (its id, the name its opener chose, the device at
// the other end, who opened it), so that a listener can tell its own sessions from sessions
// that other devices opened under the same name; by default they hand on to the older forms
// keyed by the session's name (which ListenerManager::FetchCollaborationId turns into the
// collaboration id). Every other default does nothing.
// Thread-safety: called on the host's soft-bus receive threads, possibly several at once.
#pragma once

#include <cstdint>
#include <string>

#include "soft_bus.h"

namespace QUEX {
namespace Tandra {

class EventListener {
public:
    virtual ~EventListener() = default;
    // A message on the control session (channelId -1) or on a data channel the bus attributes
    // to it (always a channel with the same device). data is valid only during the call.
    virtual void OnSessionMessage(const CtrlSessionInfo& session, int32_t channelId, const char* data, uint32_t len);
    // The control session was ended by the peer or the link.
    virtual void OnSessionShutDown(const CtrlSessionInfo& session);
    // data is valid only during the call; a message always arrives whole.
    virtual void OnDataReceived(const std::string& key, const char* data, uint32_t len, uint32_t reserved);
    virtual void OnDataReceived(int32_t id, const char* data, uint32_t len, uint32_t reserved);
    virtual void OnCtrlChannelShutDown(const std::string& key);
    virtual void OnCtrlChannelShutDown(int32_t id);
    virtual void OnWiFiShutDown();
    virtual bool IsIdExist(const std::string& key);
    virtual bool IsIdExist(int32_t id);
};

}  // namespace Tandra
}  // namespace QUEX
