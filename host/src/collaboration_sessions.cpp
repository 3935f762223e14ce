// The host side of every soft-bus event: commands of peer-opened sessions, and delivery of
// messages and shut-downs to the plugin's listeners.
#include "collaboration_sessions.h"

#include "device_context.h"
#include "host_types.h"
#include "listener_manager.h"
#include "plugin_loader.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {

// Bus threads act as the host service process while they run host and plugin code.
class ServiceIdentityScope {
public:
    ServiceIdentityScope()
        : identity_(DeviceContext::Get().Env()->GetServiceIdentity()), scope_(identity_.pid, identity_.uid)
    {
    }

private:
    Vex::Identity identity_;
    Vex::ScopedIdentity scope_;
};

}  // namespace

int32_t CollaborationSessions::OnCtrlSessionOpened(const CtrlSessionInfo& session, const std::string& commandText)
{
    ServiceIdentityScope identity;
    TNDR_HOST_LOGI("session %{public}d opened by %{public}s", session.sessionId, session.peerNetworkId.c_str());
    auto record = std::make_shared<Incoming>();
    record->info = session;
    record->executing = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        incoming_[session.sessionId] = record;
    }

    std::vector<std::shared_ptr<Command>> commands =
        PluginLoader::GetLoader().CreateCommand(PLUGIN_TYPE_CAMERA, commandText);
    int32_t result = HOST_OK;
    std::vector<std::shared_ptr<Command>> executed;
    if (commands.empty()) {
        TNDR_HOST_LOGE("no command in the text of session %{public}d", session.sessionId);
        result = HOST_ERR_INVALID_PARAM;
    }
    for (const auto& command : commands) {
        if (command == nullptr) {
            continue;
        }
        executed.push_back(command);
        result = command->Execute(session.sessionId);
        if (result != HOST_OK) {
            TNDR_HOST_LOGE("execute failed on session %{public}d: %{public}d", session.sessionId, result);
            break;
        }
    }

    bool release = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        record->executing = false;
        if (result == HOST_OK && record->ended) {
            result = HOST_ERR_NO_SESSION;
        }
        if (result != HOST_OK) {
            release = true;
            auto it = incoming_.find(session.sessionId);
            if (it != incoming_.end() && it->second == record) {
                incoming_.erase(it);
            }
        } else {
            record->commands = executed;
        }
    }
    if (release) {
        ReleaseAll(executed, session.sessionId);
    }
    return result;
}

void CollaborationSessions::OnCtrlSessionClosed(const CtrlSessionInfo& session)
{
    ServiceIdentityScope identity;
    TNDR_HOST_LOGI("session %{public}d ended by the peer or the link", session.sessionId);
    EndSession(session.sessionId);
    ListenerManager::GetInstance()->NotifySessionShutDown(session);
}

void CollaborationSessions::OnCtrlMessage(const CtrlSessionInfo& session, const char* data, uint32_t len, uint32_t)
{
    ServiceIdentityScope identity;
    ListenerManager::GetInstance()->NotifySessionMessage(session, -1, data, len);
}

void CollaborationSessions::OnDataMessage(int32_t channelId, const CtrlSessionInfo* session, const char* data,
                                          uint32_t len, uint32_t)
{
    ServiceIdentityScope identity;
    if (session == nullptr) {
        TNDR_HOST_LOGE("data on channel %{public}d for no known session", channelId);
        ListenerManager::GetInstance()->NotifyDataReceived(channelId, data, len);
        return;
    }
    ListenerManager::GetInstance()->NotifySessionMessage(*session, channelId, data, len);
}

int32_t CollaborationSessions::Stop(int32_t sessionId, bool notifyPeer)
{
    int32_t result = DeviceContext::Get().Env()->GetSoftBus().CloseCtrlSession(sessionId, notifyPeer);
    EndSession(sessionId);
    return result;
}

bool CollaborationSessions::FindIncoming(int32_t sessionId, CtrlSessionInfo& info)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = incoming_.find(sessionId);
    if (it == incoming_.end()) {
        return false;
    }
    info = it->second->info;
    return true;
}

size_t CollaborationSessions::ActiveIncomingCount()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return incoming_.size();
}

void CollaborationSessions::Reset()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : incoming_) {
        entry.second->ended = true;
        retired_.push_back(entry.second);
    }
    incoming_.clear();
}

void CollaborationSessions::EndSession(int32_t sessionId)
{
    std::vector<std::shared_ptr<Command>> commands;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = incoming_.find(sessionId);
        if (it == incoming_.end()) {
            return;
        }
        it->second->ended = true;
        if (it->second->executing) {
            return;  // the executing thread releases when Execute returns
        }
        commands.swap(it->second->commands);
        incoming_.erase(it);
    }
    ReleaseAll(commands, sessionId);
}

void CollaborationSessions::ReleaseAll(const std::vector<std::shared_ptr<Command>>& commands, int32_t sessionId)
{
    for (const auto& command : commands) {
        TNDR_HOST_LOGI("release a command of session %{public}d", sessionId);
        command->Release();
    }
    if (!commands.empty()) {
        DeviceContext::Get().Env()->GetLauncher().OnSessionReleased(sessionId);
    }
}

}  // namespace Tandra
}  // namespace QUEX
