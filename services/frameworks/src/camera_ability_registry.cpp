// The singleton's keyed registries: camera processes and control sessions of the requesting
// side, resource applications in flight, watched client processes, the serving side's running
// collaboration and its put-photo contexts. Inserts never overwrite; lookups copy the shared
// record out under the lock.
#include <algorithm>
#include <cctype>

#include "camera_ability_process.h"
#include "camera_meshline_constants.h"
#include "listener_manager.h"
#include "tandra_service_utils.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
// Longest decimal text that can still name a 32-bit id, plus one.
constexpr size_t MAX_ID_TEXT_LEN = 13;
constexpr uint64_t ID_LIMIT = 4294967296ULL;
}  // namespace

bool CameraAbilityProcess::AddCameraProcess(uint32_t collaborationId, std::shared_ptr<CameraProcessState> state)
{
    TNDR_SERVICE_LOGI("enter");
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return cameraProcesses_.emplace(collaborationId, std::move(state)).second;
}

bool CameraAbilityProcess::EraseCameraProcess(uint32_t collaborationId)
{
    TNDR_SERVICE_LOGI("enter");
    bool erased = false;
    {
        std::unique_lock<std::shared_mutex> lock(registryMutex_);
        erased = cameraProcesses_.erase(collaborationId) > 0;
    }
    // Every ending of a collaboration passes here, and only the one that removed the record
    // gives its id back to the host, once.
    if (erased) {
        TandraServiceUtils::ReleaseCollaborationId(collaborationId);
    }
    return erased;
}

std::shared_ptr<CameraProcessState> CameraAbilityProcess::QueryCameraProcess(uint32_t collaborationId)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    const auto it = cameraProcesses_.find(collaborationId);
    return it == cameraProcesses_.end() ? nullptr : it->second;
}

std::shared_ptr<CameraProcessState> CameraAbilityProcess::QueryCameraProcess(const std::string& networkId)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    for (const auto& [id, state] : cameraProcesses_) {
        if (state != nullptr && state->GetNetworId() == networkId) {
            return state;
        }
    }
    return nullptr;
}

std::shared_ptr<CameraProcessState> CameraAbilityProcess::QueryCameraProcess(uint32_t collaborationId,
                                                                             const std::string& networkId)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    const auto it = cameraProcesses_.find(collaborationId);
    if (it == cameraProcesses_.end() || it->second == nullptr || it->second->GetNetworId() != networkId) {
        return nullptr;
    }
    return it->second;
}

bool CameraAbilityProcess::QueryCollaborationId(uint32_t collaborationId)
{
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    const auto it = cameraProcesses_.find(collaborationId);
    return it != cameraProcesses_.end() && it->second != nullptr;
}

bool CameraAbilityProcess::AddSessionId(uint32_t collaborationId, int32_t collaborationSessionId)
{
    TNDR_SERVICE_LOGI("collaborationId is %{public}d, collaborationSessionId is  %{public}d.", collaborationId,
                      collaborationSessionId);
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return sessionIds_.emplace(collaborationId, collaborationSessionId).second;
}

bool CameraAbilityProcess::EraseSessionId(uint32_t collaborationId)
{
    std::unique_lock<std::shared_mutex> lock(registryMutex_);
    return sessionIds_.erase(collaborationId) > 0;
}

int32_t CameraAbilityProcess::QuerySessionId(uint32_t collaborationId)
{
    TNDR_SERVICE_LOGI("collaborationId is %{public}d.", collaborationId);
    std::shared_lock<std::shared_mutex> lock(registryMutex_);
    const auto it = sessionIds_.find(collaborationId);
    return it == sessionIds_.end() ? NO_SESSION_ID : it->second;
}

bool CameraAbilityProcess::AddCurrentInfo(const std::string& networkId, std::shared_ptr<CurrentApplyDeviceInfo> info)
{
    std::unique_lock<std::shared_mutex> lock(applyInfoMutex_);
    return currentApplyInfos_.emplace(networkId, std::move(info)).second;
}

bool CameraAbilityProcess::EraseCurrentInfo(const std::string& networkId)
{
    std::unique_lock<std::shared_mutex> lock(applyInfoMutex_);
    return currentApplyInfos_.erase(networkId) > 0;
}

std::shared_ptr<CurrentApplyDeviceInfo> CameraAbilityProcess::QueryCurrentInfoByNetworkId(const std::string& networkId)
{
    std::shared_lock<std::shared_mutex> lock(applyInfoMutex_);
    const auto it = currentApplyInfos_.find(networkId);
    return it == currentApplyInfos_.end() ? nullptr : it->second;
}

bool CameraAbilityProcess::QueryIsDeathRecipient(int32_t pid)
{
    // A test-and-set: the first caller for a pid claims it.
    std::unique_lock<std::shared_mutex> lock(deathPidMutex_);
    if (std::find(deathPids_.begin(), deathPids_.end(), pid) != deathPids_.end()) {
        return true;
    }
    deathPids_.push_front(pid);
    return false;
}

void CameraAbilityProcess::EraseDeathRecipientPid(int32_t pid)
{
    TNDR_SERVICE_LOGE("enter.");
    std::unique_lock<std::shared_mutex> lock(deathPidMutex_);
    deathPids_.remove(pid);
}

void CameraAbilityProcess::SetCollaborationDataInfo(int32_t collaborationSessionId, const std::string& bundleName)
{
    std::unique_lock<std::shared_mutex> lock(collaborationDataMutex_);
    collaborationDataSessionId_ = collaborationSessionId;
    collaborationDataBundleName_ = bundleName;
}

void CameraAbilityProcess::ClearCollaborationDataInfo()
{
    std::unique_lock<std::shared_mutex> lock(collaborationDataMutex_);
    collaborationDataSessionId_ = 0;
    collaborationDataBundleName_.clear();
}

std::pair<int32_t, std::string> CameraAbilityProcess::GetCollaborationDataInfo()
{
    std::shared_lock<std::shared_mutex> lock(collaborationDataMutex_);
    return {collaborationDataSessionId_, collaborationDataBundleName_};
}

bool CameraAbilityProcess::AddPutPhotoContext(int32_t collaborationSessionId, std::shared_ptr<PutPhotoContext> context)
{
    std::unique_lock<std::shared_mutex> lock(putPhotoMutex_);
    return putPhotoContexts_.emplace(collaborationSessionId, std::move(context)).second;
}

std::shared_ptr<PutPhotoContext> CameraAbilityProcess::QueryPutPhotoContext(int32_t collaborationSessionId)
{
    std::shared_lock<std::shared_mutex> lock(putPhotoMutex_);
    const auto it = putPhotoContexts_.find(collaborationSessionId);
    return it == putPhotoContexts_.end() ? nullptr : it->second;
}

std::shared_ptr<PutPhotoContext> CameraAbilityProcess::RemovePhotoContext(int32_t collaborationSessionId)
{
    std::unique_lock<std::shared_mutex> lock(putPhotoMutex_);
    const auto it = putPhotoContexts_.find(collaborationSessionId);
    if (it == putPhotoContexts_.end()) {
        return nullptr;
    }
    std::shared_ptr<PutPhotoContext> removed = std::move(it->second);
    putPhotoContexts_.erase(it);
    return removed;
}

bool CameraAbilityProcess::ErasePutPhotoContext(int32_t collaborationSessionId)
{
    std::unique_lock<std::shared_mutex> lock(putPhotoMutex_);
    return putPhotoContexts_.erase(collaborationSessionId) > 0;
}

std::vector<std::shared_ptr<PutPhotoContext>> CameraAbilityProcess::GetAllPutPhotoContexts()
{
    std::shared_lock<std::shared_mutex> lock(putPhotoMutex_);
    std::vector<std::shared_ptr<PutPhotoContext>> contexts;
    contexts.reserve(putPhotoContexts_.size());
    for (const auto& [sessionId, context] : putPhotoContexts_) {
        contexts.push_back(context);
    }
    return contexts;
}

uint32_t CameraAbilityProcess::CollaborationOfSession(const CtrlSessionInfo& session)
{
    // Sessions a device opens towards us carry names of its own choosing; the requesting side's
    // collaborations only ever run on sessions this device opened.
    if (session.openedByPeer) {
        return 0;
    }
    std::shared_ptr<ListenerManager> manager = ListenerManager::GetInstance();
    if (manager == nullptr) {
        return 0;
    }
    auto [result, collaborationId] = manager->FetchCollaborationId(session.sessionName);
    if (result != 0 || QueryCameraProcess(collaborationId, session.peerNetworkId) == nullptr) {
        return 0;
    }
    // Until the send records the session id, the open that is still returning is the only
    // session of this name this device has opened to the peer.
    const int32_t recorded = QuerySessionId(collaborationId);
    if (recorded != NO_SESSION_ID && recorded != session.sessionId) {
        return 0;
    }
    return collaborationId;
}

uint32_t CameraAbilityProcess::ResolveCollaborationId(const std::string& text)
{
    if (text.empty()) {
        TNDR_SERVICE_LOGE("collaborationId is empty");
        return 0;
    }
    const size_t dash = text.find('-');
    if (dash == std::string::npos || dash == 0) {
        TNDR_SERVICE_LOGE("Invalid collaborationId, collaborationId is %{public}s", text.c_str());
        return 0;
    }
    const std::string idText = text.substr(0, dash);
    const bool allDigits =
        std::all_of(idText.begin(), idText.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    if (allDigits && idText.size() < MAX_ID_TEXT_LEN) {
        // At most 12 digits: the value fits in 64 bits without overflow.
        const uint64_t value = std::stoull(idText);
        if (value < ID_LIMIT) {
            return static_cast<uint32_t>(value);
        }
    }
    TNDR_SERVICE_LOGE("Invalid collaborationId, collaborationIdStr is %{public}s", idText.c_str());
    return 0;
}

}  // namespace Tandra
}  // namespace QUEX
