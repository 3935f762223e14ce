#include "event_vocabulary.h"

namespace QUEX::Tandra::Timeline {

std::string SceneName(int32_t scene)
{
    switch (scene) {
        case 2:
            return "asking the peer for photos";
        case 3:
            return "serving the take-photo command";
        case 4:
            return "receiving the result";
        case 5:
            return "photo transfer";
        default:
            return scene < 0 ? "" : "scene " + std::to_string(scene);
    }
}

std::string StageName(int32_t stage)
{
    switch (stage) {
        case 3:
            return "camera session set-up";
        case 4:
            return "take-photo request sent";
        case 5:
            return "camera app started";
        case 6:
            return "conflict check";
        case 7:
            return "data channel";
        case 8:
            return "camera app running";
        case 9:
            return "photos sent";
        case 10:
            return "photo data received";
        default:
            return stage < 0 ? "" : "stage " + std::to_string(stage);
    }
}

std::string ResultName(int32_t result)
{
    switch (result) {
        case 0:
            return "begun";
        case 1:
            return "ok";
        case 2:
            return "failed";
        case 3:
            return "ended";
        default:
            return result < 0 ? "" : "result " + std::to_string(result);
    }
}

std::string StateName(int32_t state)
{
    switch (state) {
        case 1:
            return "collaboration begins";
        case 2:
            return "collaboration ends";
        default:
            return "";
    }
}

std::string Caption(const TimelineEvent& event)
{
    if (event.stage < 0) {
        return event.name.empty() ? "event" : event.name;
    }
    std::string caption = StageName(event.stage);
    std::string result = ResultName(event.result);
    if (!result.empty()) {
        caption += ": " + result;
    }
    if (event.error != 0) {
        caption += " (error " + std::to_string(event.error) + ")";
    }
    return caption;
}

std::string ResultClass(const TimelineEvent& event)
{
    switch (event.result) {
        case 0:
            return "begun";
        case 1:
            return "ok";
        case 2:
            return "failed";
        case 3:
            return "ended";
        default:
            return "other";
    }
}

}  // namespace QUEX::Tandra::Timeline
