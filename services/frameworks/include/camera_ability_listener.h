// CameraAbilityProcessListener: the plugin's ear on the host's session layer: received
// messages go to the camera ability process under their collaboration id; control-channel
// loss and Wi-Fi loss end collaborations.
// Thread-safety: called on the host's soft-bus threads; holds no state.
#pragma once

#include "event_listener.h"

namespace QUEX {
namespace Tandra {

class CameraAbilityProcessListener : public EventListener {
public:
    ~CameraAbilityProcessListener() override = default;
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
