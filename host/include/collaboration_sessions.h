// CollaborationSessions: the host's session layer, the soft bus's listener. A control session
// opened by a peer carries a command text: the camera plugin turns it into commands
// (PluginLoader::CreateCommand), which run Execute(session id) on the bus's opener thread; the
// first failing Execute fails the open with its result. Each executed command is released
// once: when the session ends (closed by either side, or the link dropped), or right after a
// failed Execute. Release never overlaps Execute: a session that ends while its commands
// execute is released when they return. Messages on control sessions and data channels go to
// the EventListeners with the control session as the bus knows it (OnSessionMessage); a
// session ended by the peer or the link reaches them as OnSessionShutDown. Bus events run with
// the device's service identity.
// Thread-safety: all operations may be called from any thread; plugin code is called without
// the layer's lock held.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command.h"
#include "soft_bus.h"

namespace QUEX {
namespace Tandra {

class CollaborationSessions : public SoftBusListener {
public:
    CollaborationSessions() = default;
    ~CollaborationSessions() override = default;

    int32_t OnCtrlSessionOpened(const CtrlSessionInfo& session, const std::string& commandText) override;
    void OnCtrlSessionClosed(const CtrlSessionInfo& session) override;
    void OnCtrlMessage(const CtrlSessionInfo& session, const char* data, uint32_t len, uint32_t type) override;
    void OnDataMessage(int32_t channelId, const CtrlSessionInfo* session, const char* data, uint32_t len,
                       uint32_t type) override;

    // Closes a control session from this side (the bus tells the peer when notifyPeer) and
    // releases its commands; the bus's result.
    int32_t Stop(int32_t sessionId, bool notifyPeer);
    // Sessions opened by peers whose commands are not yet released.
    size_t ActiveIncomingCount();
    // The bus's record of a session a peer opened, from its opening until its commands are
    // released; false for any other id.
    bool FindIncoming(int32_t sessionId, CtrlSessionInfo& info);
    // The bus was replaced: its sessions are gone. Their commands are kept alive, unreleased,
    // since callbacks registered elsewhere may still point at them.
    void Reset();

private:
    struct Incoming {
        CtrlSessionInfo info;
        std::vector<std::shared_ptr<Command>> commands;  // executed ones, to release
        bool executing = false;
        bool ended = false;
    };
    void EndSession(int32_t sessionId);
    static void ReleaseAll(const std::vector<std::shared_ptr<Command>>& commands, int32_t sessionId);

    std::mutex mutex_;
    std::map<int32_t, std::shared_ptr<Incoming>> incoming_;
    std::vector<std::shared_ptr<Incoming>> retired_;
};

}  // namespace Tandra
}  // namespace QUEX
