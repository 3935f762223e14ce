// ListenerManager: the host's list of plugin event listeners and the delivery of session
// events to them. Keys are control-session names of the form "%011u-<peer network id>"; the
// collaboration id is read back from the leading digits.
// Thread-safety: all operations may be called from any thread; listeners are called without
// the manager's lock held.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "event_listener.h"

namespace QUEX {
namespace Tandra {

class ListenerManager {
public:
    static std::shared_ptr<ListenerManager> GetInstance();

    void RegisterEventListener(const std::shared_ptr<EventListener>& listener);
    void UnregisterEventListener(const std::shared_ptr<EventListener>& listener);
    // (0, id) for a well-formed key, (HOST_ERR_INVALID_PARAM, 0) otherwise.
    std::pair<int32_t, uint32_t> FetchCollaborationId(const std::string& key);

    // Delivery, used by the session layer.
    void NotifySessionMessage(const CtrlSessionInfo& session, int32_t channelId, const char* data, uint32_t len);
    void NotifySessionShutDown(const CtrlSessionInfo& session);
    void NotifyDataReceived(const std::string& key, const char* data, uint32_t len);
    // A data-channel message whose control session is unknown: keyed by the channel id.
    void NotifyDataReceived(int32_t channelId, const char* data, uint32_t len);
    void NotifyCtrlChannelShutDown(const std::string& key);
    void NotifyWiFiShutDown();
    std::vector<std::shared_ptr<EventListener>> GetListeners();

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<EventListener>> listeners_;
};

}  // namespace Tandra
}  // namespace QUEX
