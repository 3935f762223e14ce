// The ending table: one row per ending, and the codes that lead to each.
#include "collaboration_endings.h"

#include "client_codes.h"

namespace QUEX {
namespace Tandra {
namespace Client {

const std::vector<EndingInfo>& AllEndings()
{
    // Exit statuses stay below 100 (CLI11 uses 100 and up for its own errors) except for the
    // cancel, which follows the shells' 128 + SIGINT so that a Ctrl-C looks like one.
    static const std::vector<EndingInfo> table = {
        {EndingKind::FINISHED, "finished", "All photos arrived.", 0},
        {EndingKind::CANCELLED, "cancelled",
         "You cancelled the request before all photos arrived. Run the command again when you are ready.", 130},
        {EndingKind::NOT_FOREGROUND, "not-foreground",
         "The framework refused the request because this app is not the app in the foreground on this device. "
         "Bring it to the foreground and try again.",
         10},
        {EndingKind::WIFI_OFF, "wifi-off",
         "Wi-Fi is off on this device. Turn Wi-Fi on (or bring the network interface up) and try again.", 11},
        {EndingKind::RESOURCES_REFUSED, "resources-refused",
         "The connection manager did not grant a link to the other device in time; another collaboration may be "
         "using it. Wait for that one to finish and try again.",
         12},
        {EndingKind::INVALID_REQUEST, "invalid-request",
         "The framework refused the request as incomplete, or a request to that device is still being set up. "
         "Choose the device again and retry in a moment.",
         13},
        {EndingKind::PEER_NO_ANSWER, "peer-no-answer",
         "The other device did not answer within 3 minutes. Make sure its camera app can start and someone is "
         "there to take the photos, then try again.",
         14},
        {EndingKind::PEER_CANCELLED, "peer-cancelled",
         "The other device ended the collaboration before sending any photo: it was cancelled in its camera app, "
         "another request took over its camera, or it disconnected. Try again when the other device is free.",
         15},
        {EndingKind::PEER_FAILED, "peer-failed",
         "The other device could not take the photos: it refused the request, or its camera app failed, was "
         "closed or crashed. Check the camera app on the other device and try again.",
         16},
        {EndingKind::PEER_WIFI_OFF, "peer-wifi-off",
         "Wi-Fi is off on the other device, so it cannot take part. Turn Wi-Fi on there and try again.", 17},
        {EndingKind::TRANSFER_FAILED, "transfer-failed",
         "The photos stopped arriving: one could not be sent, or none came for 10 seconds. Photos already "
         "received are complete; try again for the rest.",
         18},
        {EndingKind::LINK_LOST, "link-lost",
         "The connection to the other device was lost. Bring the devices back in range (or check the network) "
         "and try again.",
         19},
        {EndingKind::BAD_DATA, "bad-data",
         "The other device sent data that could not be read, so the collaboration was stopped. Try again; if it "
         "keeps happening, update both devices.",
         20},
        {EndingKind::SERVICE_UNAVAILABLE, "service-unavailable",
         "The Tandra service on this device is not running or stopped answering. Start tandrad and try again.", 21},
        {EndingKind::ALREADY_RUNNING, "already-running",
         "Another request on this device is already taking photos with that device, and only one runs at a time. "
         "Wait for it to finish (or cancel it) and try again.",
         26},
        {EndingKind::UNKNOWN, "unknown",
         "The collaboration failed for a reason this app does not know. Try again; if it keeps happening, report "
         "the code below.",
         22},
    };
    return table;
}

const EndingInfo& GetEndingInfo(EndingKind kind)
{
    const std::vector<EndingInfo>& table = AllEndings();
    const size_t index = static_cast<size_t>(kind);
    return index < table.size() ? table[index] : table.back();
}

const EndingInfo& CollaborationEnd::Info() const
{
    return GetEndingInfo(kind);
}

std::string CollaborationEnd::Describe() const
{
    std::string text = Info().sentence;
    if (kind == EndingKind::UNKNOWN) {
        text += " (code " + std::to_string(code) + ")";
    }
    return text;
}

EndingKind EndingForRequestResult(int32_t result)
{
    if (result < 0) {
        return EndingKind::SERVICE_UNAVAILABLE;  // the transport's own failures are negative
    }
    switch (result) {
        case RESULT_NOT_FOREGROUND:
            return EndingKind::NOT_FOREGROUND;
        case RESULT_WIFI_OFF:
            return EndingKind::WIFI_OFF;
        case RESULT_RESOURCES_REFUSED:
            return EndingKind::RESOURCES_REFUSED;
        case RESULT_INVALID:
            return EndingKind::INVALID_REQUEST;
        case RESULT_NOT_SUPPORTED:  // the service runs without the camera ability
            return EndingKind::SERVICE_UNAVAILABLE;
        default:
            return EndingKind::UNKNOWN;
    }
}

bool EndingForEvent(uint32_t code, const std::string& /*text*/, EndingKind& kind)
{
    // The code alone decides: the text only says whether the framework translated it.
    switch (code) {
        case EVENT_PHOTO_COUNT:
            return false;
        case EVENT_LAST_PHOTO:
            kind = EndingKind::FINISHED;
            break;
        case EVENT_PEER_STOPPED:
            kind = EndingKind::PEER_CANCELLED;
            break;
        case EVENT_FAILED:
            kind = EndingKind::PEER_FAILED;
            break;
        case EVENT_PEER_WIFI_OFF:
            kind = EndingKind::PEER_WIFI_OFF;
            break;
        case EVENT_WIFI_OFF:
            kind = EndingKind::WIFI_OFF;
            break;
        case EVENT_PEER_NO_ANSWER:
            kind = EndingKind::PEER_NO_ANSWER;
            break;
        case EVENT_TRANSFER_FAILED:
            kind = EndingKind::TRANSFER_FAILED;
            break;
        case EVENT_LINK_LOST:
            kind = EndingKind::LINK_LOST;
            break;
        case EVENT_BAD_DATA:
            kind = EndingKind::BAD_DATA;
            break;
        default:
            // Every reported event but the count ends the collaboration, known or not.
            kind = EndingKind::UNKNOWN;
            break;
    }
    return true;
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
