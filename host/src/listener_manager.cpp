// Listeners are called on a snapshot of the list, without the lock, so a listener may
// register or unregister listeners (or block) without stalling other deliveries.
#include "listener_manager.h"

#include <algorithm>
#include <cctype>

#include "host_types.h"

namespace QUEX {
namespace Tandra {

namespace {
// "%011u": a 32-bit id always fits in eleven digits.
constexpr size_t ID_DIGITS = 11;
}  // namespace

std::shared_ptr<ListenerManager> ListenerManager::GetInstance()
{
    // Deliberately never destroyed: soft-bus threads may deliver while the process exits.
    static auto* instance = new std::shared_ptr<ListenerManager>(new ListenerManager());
    return *instance;
}

void ListenerManager::RegisterEventListener(const std::shared_ptr<EventListener>& listener)
{
    if (listener == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::find(listeners_.begin(), listeners_.end(), listener) == listeners_.end()) {
        listeners_.push_back(listener);
    }
}

void ListenerManager::UnregisterEventListener(const std::shared_ptr<EventListener>& listener)
{
    std::lock_guard<std::mutex> lock(mutex_);
    listeners_.erase(std::remove(listeners_.begin(), listeners_.end(), listener), listeners_.end());
}

std::pair<int32_t, uint32_t> ListenerManager::FetchCollaborationId(const std::string& key)
{
    if (key.size() <= ID_DIGITS || key[ID_DIGITS] != '-') {
        return {HOST_ERR_INVALID_PARAM, 0};
    }
    uint64_t value = 0;
    for (size_t i = 0; i < ID_DIGITS; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(key[i]))) {
            return {HOST_ERR_INVALID_PARAM, 0};
        }
        value = value * 10 + static_cast<uint64_t>(key[i] - '0');
    }
    if (value > UINT32_MAX) {
        return {HOST_ERR_INVALID_PARAM, 0};
    }
    return {HOST_OK, static_cast<uint32_t>(value)};
}

std::vector<std::shared_ptr<EventListener>> ListenerManager::GetListeners()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return listeners_;
}

void ListenerManager::NotifySessionMessage(const CtrlSessionInfo& session, int32_t channelId, const char* data,
                                           uint32_t len)
{
    for (const auto& listener : GetListeners()) {
        listener->OnSessionMessage(session, channelId, data, len);
    }
}

void ListenerManager::NotifySessionShutDown(const CtrlSessionInfo& session)
{
    for (const auto& listener : GetListeners()) {
        listener->OnSessionShutDown(session);
    }
}

void ListenerManager::NotifyDataReceived(const std::string& key, const char* data, uint32_t len)
{
    for (const auto& listener : GetListeners()) {
        listener->OnDataReceived(key, data, len, 0);
    }
}

void ListenerManager::NotifyDataReceived(int32_t channelId, const char* data, uint32_t len)
{
    for (const auto& listener : GetListeners()) {
        listener->OnDataReceived(channelId, data, len, 0);
    }
}

void ListenerManager::NotifyCtrlChannelShutDown(const std::string& key)
{
    for (const auto& listener : GetListeners()) {
        listener->OnCtrlChannelShutDown(key);
    }
}

void ListenerManager::NotifyWiFiShutDown()
{
    for (const auto& listener : GetListeners()) {
        listener->OnWiFiShutDown();
    }
}

}  // namespace Tandra
}  // namespace QUEX
