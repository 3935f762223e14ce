// EventListener: what a plugin hears from the host's session layer: messages received on a
// control session or data channel (keyed by the control session's name, which
// ListenerManager::FetchCollaborationId turns into the collaboration id), control-session
// shut-downs and Wi-Fi loss. Every default does nothing.
// Thread-safety: called on the host's soft-bus receive threads, possibly several at once.
#pragma once

#include <cstdint>
#include <string>

namespace QUEX {
namespace Tandra {

class EventListener {
public:
    virtual ~EventListener() = default;
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
