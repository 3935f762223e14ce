// The serving side's way onto the data channel: the registry of data channels by control
// session, the wait for a channel that is still opening, and the senders of a header or a
// whole photo message on it.
#include <chrono>

#include "camera_ability_process.h"
#include "camera_result_codes.h"
#include "session_manager.h"
#include "vex_clock.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t NO_CHANNEL = -1;
constexpr auto DATA_CHANNEL_WAIT = std::chrono::seconds(10);

bool IsChannelGivenUp(int32_t status)
{
    return status == PutPhotoContext::CHANNEL_CANCELLED || status == PutPhotoContext::CHANNEL_FAILED;
}
}  // namespace

int32_t CameraAbilityProcess::QueryDataChannelId(int32_t collaborationSessionId)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    auto it = dataChannels_.find(collaborationSessionId);
    return it == dataChannels_.end() ? NO_CHANNEL : it->second;
}

bool CameraAbilityProcess::AddDataChannelId(int32_t collaborationSessionId, int32_t channelId)
{
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return dataChannels_.emplace(collaborationSessionId, channelId).second;
}

bool CameraAbilityProcess::EraseDataChannelId(int32_t collaborationSessionId)
{
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return dataChannels_.erase(collaborationSessionId) > 0;
}

std::pair<int32_t, int32_t> CameraAbilityProcess::QueryDataChannel(std::shared_ptr<PutPhotoContext> context)
{
    if (context == nullptr) {
        TNDR_SERVICE_LOGE("context is null");
        return {ERR_INVALID_PARAM, NO_CHANNEL};
    }
    const int32_t sessionId = context->GetCollaborationSessionId();
    int32_t channelId = QueryDataChannelId(sessionId);
    auto [status, code] = context->GetTransmitChanelStatus();
    if (IsChannelGivenUp(status)) {
        TNDR_SERVICE_LOGE(
            "get transmit Chanel status before wait open failed or canceled."
            "             collaborationSessionId: %{public}d, session: %{public}d, "
            "status: %{public}d, code: %{public}d.",
            sessionId, channelId, status, code);
        return {code, NO_CHANNEL};
    }
    if (channelId != NO_CHANNEL) {
        TNDR_SERVICE_LOGI("softBusSessionId = %{public}d, collaborationSessionId = %{public}d", channelId, sessionId);
        return {0, channelId};
    }

    // The channel is still opening on another worker; it registers the id and wakes us with
    // Releaselock, or gives up by setting the transmit status.
    std::unique_lock<std::mutex> lock(dataChannelMutex_);
    const Clock::TimePoint deadline = Clock::Now() + DATA_CHANNEL_WAIT;
    bool timedOut = false;
    // Counted as a clock waiter for the whole loop, not only inside each real-time slice.
    Clock::WaiterScope waiter;
    while (true) {
        channelId = QueryDataChannelId(sessionId);
        if (channelId != NO_CHANNEL) {
            break;
        }
        // A cancelled channel (the command was released) will never open either, so it ends
        // the wait as a failed one does instead of holding the sender for the whole period.
        if (IsChannelGivenUp(context->GetTransmitChanelStatus().first)) {
            break;
        }
        if (Clock::Now() >= deadline) {
            timedOut = true;
            break;
        }
        Clock::WaitUntil(dataChannelCond_, lock, deadline);
    }
    if (timedOut) {
        channelId = QueryDataChannelId(sessionId);
    }
    std::tie(status, code) = context->GetTransmitChanelStatus();
    TNDR_SERVICE_LOGE(
        "get transmit Chanel status after wait open."
        "             collaborationSessionId: %{public}d, session: %{public}d, "
        "status: %{public}d, code: %{public}d.",
        sessionId, channelId, status, code);
    if (status == PutPhotoContext::CHANNEL_FAILED) {
        return {code, NO_CHANNEL};
    }
    if (status == PutPhotoContext::CHANNEL_CANCELLED) {
        return {code, channelId};
    }
    if (channelId == NO_CHANNEL) {
        TNDR_SERVICE_LOGI("timeout,  collaborationSessionId is %{public}d", sessionId);
        return {ERR_DATA_CHANNEL_TIMEOUT, NO_CHANNEL};
    }
    TNDR_SERVICE_LOGI("softBusSessionId = %{public}d, collaborationSessionId = %{public}d", channelId, sessionId);
    return {0, channelId};
}

int32_t CameraAbilityProcess::SendMsgHeaderByDataChannel(std::shared_ptr<PutPhotoContext> context,
                                                         CameraMsgHeader& header)
{
    TNDR_SERVICE_LOGI("enter");
    auto [result, channelId] = QueryDataChannel(context);
    if (result != 0) {
        TNDR_SERVICE_LOGE("get data Chanel fail for send msg code. %{public}d", result);
        return result;
    }
    int32_t res = SessionManager::TransmitMsgToSpecificChannel(channelId, context->GetCollaborationSessionId(),
                                                               reinterpret_cast<const char*>(&header),
                                                               CAMERA_MSG_HEADER_LEN, MSG_TYPE_CAMERA, false);
    TNDR_SERVICE_LOGI("res is %{public}d", res);
    return res;
}

int32_t CameraAbilityProcess::SendPhotoData(std::shared_ptr<PutPhotoContext> context, std::shared_ptr<PhotoParam> param,
                                            bool isFirst)
{
    TNDR_SERVICE_LOGI("enter");
    if (param == nullptr || param->photoFd < 0) {
        TNDR_SERVICE_LOGE("photo param is null");
        return ERR_INVALID_PARAM;
    }
    auto [result, channelId] = QueryDataChannel(context);
    if (result != 0) {
        TNDR_SERVICE_LOGE("get data Chanel fail for send msg code. %{public}d", result);
        return result;
    }
    // The header, then the file itself: the bus reads it while it sends, so the photo is not
    // copied into a buffer of its size first.
    int32_t res = SessionManager::TransmitFileToSpecificChannel(
        channelId, context->GetCollaborationSessionId(), param->header, sizeof(param->header), param->photoFd,
        param->photoLength, MSG_TYPE_CAMERA, isFirst);
    TNDR_SERVICE_LOGI("res is %{public}d", res);
    return res;
}

}  // namespace Tandra
}  // namespace QUEX
