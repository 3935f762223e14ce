// A listener overrides only what it cares about; everything else is ignored.
#include "event_listener.h"

namespace QUEX {
namespace Tandra {

void EventListener::OnSessionMessage(const CtrlSessionInfo& session, int32_t, const char* data, uint32_t len)
{
    OnDataReceived(session.sessionName, data, len, 0);
}

void EventListener::OnSessionShutDown(const CtrlSessionInfo& session)
{
    OnCtrlChannelShutDown(session.sessionName);
}

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
