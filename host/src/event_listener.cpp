// A listener overrides only what it cares about; everything else is ignored.
#include "event_listener.h"

namespace QUEX {
namespace Tandra {

void EventListener::OnDataReceived(const std::string&, const char*, uint32_t, uint32_t) {}

void EventListener::OnDataReceived(int32_t, const char*, uint32_t, uint32_t) {}

void EventListener::OnCtrlChannelShutDown(const std::string&) {}

void EventListener::OnCtrlChannelShutDown(int32_t) {}

void EventListener::OnWiFiShutDown() {}

bool EventListener::IsIdExist(const std::string&)
{
    return false;
}

bool EventListener::IsIdExist(int32_t)
{
    return false;
}

}  // namespace Tandra
}  // namespace QUEX
