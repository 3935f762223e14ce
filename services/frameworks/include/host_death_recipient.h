// HostDeathRecipient: watches a client's callback object. Kind 101 (the requesting
// application of one collaboration) cancels that collaboration when the client dies; kind 102
// (an event subscriber, i.e. the camera application) tells the peer of every put-photo session
// that the camera died and drops the subscriber's events.
// Thread-safety: set up by one thread before it is attached; OnRemoteDied runs once on the
// platform's death-notice thread.
#pragma once

#include <cstdint>

#include "iremote_object.h"

namespace QUEX {
namespace Tandra {

class HostDeathRecipient : public Vex::IRemoteObject::DeathRecipient {
public:
    static constexpr uint32_t DEATH_KIND_REQUESTER = 101;
    static constexpr uint32_t DEATH_KIND_SUBSCRIBER = 102;

    HostDeathRecipient(uint32_t deathCode, const Vex::sptr<Vex::IRemoteObject>& remoteObject);

    void OnRemoteDied(const Vex::wptr<Vex::IRemoteObject>& object) override;

    void SetPid(int32_t pid) { pid_ = pid; }
    void SetEventId(uint32_t eventId) { eventId_ = eventId; }
    void SetCollaborationId(uint32_t collaborationId) { collaborationId_ = collaborationId; }
    void SetDeathCode(uint32_t deathCode) { deathCode_ = deathCode; }
    void SetRemoteObject(const Vex::sptr<Vex::IRemoteObject>& remoteObject) { remoteObject_ = remoteObject; }
    void SetDeathRecipient(const Vex::sptr<Vex::IRemoteObject::DeathRecipient>& self) { deathRecipient_ = self; }

    void HostDied(uint32_t collaborationId);
    void RemoveHost(uint32_t collaborationId);
    void ProcessCameraDeath();

private:
    int32_t pid_ = 0;
    uint32_t eventId_ = 0;
    Vex::sptr<Vex::IRemoteObject> remoteObject_;
    Vex::sptr<Vex::IRemoteObject::DeathRecipient> deathRecipient_;
    uint32_t deathCode_;
    uint32_t collaborationId_ = 0;
};

}  // namespace Tandra
}  // namespace QUEX
