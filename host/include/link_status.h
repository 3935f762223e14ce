// LinkStatus: what the connection-management service asks the device link before it grants a
// collaboration: whether the link to a peer can carry one now. The daemon answers from its
// device link; tests script it.
// Thread-safety: CanCarry may be called from any thread, several at once, and must not call
// back into the connection-management service (it is called without the service's lock, but
// a link that waits for the service would stall the applicant).
#pragma once

#include <string>

namespace QUEX::Tandra {

class LinkStatus {
public:
    LinkStatus() = default;
    virtual ~LinkStatus() = default;
    LinkStatus(const LinkStatus&) = delete;
    LinkStatus& operator=(const LinkStatus&) = delete;

    // deviceId is how the applicant names the peer: its network id on the requesting side,
    // the id its command carried (the UDID) on the serving side; answer for either.
    virtual bool CanCarry(const std::string& deviceId) = 0;
};

}  // namespace QUEX::Tandra
