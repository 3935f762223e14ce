// CameraAbilityProcessListener: the plugin's ear on the host's session layer: a message or a
// control-session loss reaches a collaboration only when it came on that collaboration's own
// control session (or a data channel of it) with the device the collaboration is with; Wi-Fi
// loss ends collaborations. Deliveries that name a session by its name alone cannot show where
// they came from and are dropped.
// Thread-safety: called on the host's soft-bus threads; holds no state.
#pragma once

#include "event_listener.h"

namespace QUEX {
namespace Tandra {

class CameraAbilityProcessListener : public EventListener {
public:
    ~CameraAbilityProcessListener() override = default;
    void OnSessionMessage(const CtrlSessionInfo& session, int32_t channelId, const char* data, uint32_t len) override;
    void OnSessionShutDown(const CtrlSessionInfo& session) override;
    void OnDataReceived(const std::string& key, const char* data, uint32_t len, uint32_t reserved) override;
    void OnDataReceived(int32_t id, const char* data, uint32_t len, uint32_t reserved) override;
    void OnCtrlChannelShutDown(const std::string& key) override;
    using EventListener::OnCtrlChannelShutDown;
    void OnWiFiShutDown() override;
    bool IsIdExist(const std::string& key) override;
    bool IsIdExist(int32_t id) override;
};

}  // namespace Tandra
}  // namespace QUEX
