// Every way a take-photo collaboration can end, as the requesting application learns of it:
// the result of the take-photo request, an event of the collaboration, the last photo, the
// application's own cancel, or the loss of the framework service. Each ending has a short
// name (for scripts and JSON), a sentence for the user saying what happened and what to do,
// and a process exit status of its own, so that a command-line app can print and return it.
// Several codes can share one ending when the framework reports them alike; one code never
// maps to two endings.
// Thread-safety: the table is constant; every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace QUEX {
namespace Tandra {
namespace Client {

enum class EndingKind {
    FINISHED,             // the last photo arrived
    CANCELLED,            // this application cancelled
    NOT_FOREGROUND,       // request refused: the app is not in the foreground
    WIFI_OFF,             // Wi-Fi is (or went) off on this device
    RESOURCES_REFUSED,    // the connection manager refused the link or did not answer in time
    INVALID_REQUEST,      // the request was incomplete or could not start a collaboration
    PEER_NO_ANSWER,       // the other device never answered the command
    PEER_CANCELLED,       // the other device ended it before sending any photo
    PEER_FAILED,          // the other device refused, or its camera app failed, closed or died
    PEER_WIFI_OFF,        // the other device's Wi-Fi is off
    TRANSFER_FAILED,      // photos were arriving and stopped, or one could not be sent
    LINK_LOST,            // the connection to the other device was lost
    BAD_DATA,             // the other device sent data that could not be read
    SERVICE_UNAVAILABLE,  // the framework service is not running or stopped answering
    ALREADY_RUNNING,      // another request of this device runs a collaboration with that device
    UNKNOWN,              // a code this table does not know
};

struct EndingInfo {
    EndingKind kind;
    const char* name;      // short, stable, lower-case with dashes
    const char* sentence;  // what happened and what to do, for the user
    int exitStatus;        // distinct per ending; 0 only for FINISHED
};

// How a collaboration ended: the ending and the code that said so (0 for endings that no code
// reports: the last photo and the application's own cancel).
struct CollaborationEnd {
    EndingKind kind = EndingKind::UNKNOWN;
    int64_t code = 0;  // a result (signed) or an event code (unsigned 32-bit), as received
    const EndingInfo& Info() const;
    // The sentence, followed by the code when the ending is UNKNOWN.
    std::string Describe() const;
};

// Every ending, in the order of EndingKind.
const std::vector<EndingInfo>& AllEndings();
const EndingInfo& GetEndingInfo(EndingKind kind);

// The ending that a non-zero result of the take-photo request means. Negative results are
// transport failures (the service could not be reached).
EndingKind EndingForRequestResult(int32_t result);
// The ending that a collaboration event means; false for the photo count, the one event
// that does not end a collaboration. text is the event's message text.
bool EndingForEvent(uint32_t code, const std::string& text, EndingKind& kind);

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
