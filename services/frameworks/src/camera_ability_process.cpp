// The singleton's life: creation on first use (at the latest when the library is loaded and
// registers itself with the host), the request-handler table, the listener registration, and
// the registrations that must exist before the first request arrives.
#include "camera_ability_process.h"

#include <new>

#include "bundle_mgr.h"
#include "camera_ability_listener.h"
#include "camera_meshline_constants.h"
#include "iremote_broker.h"
#include "listener_manager.h"
#include "plugin_loader.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

CameraAbilityProcess* CameraAbilityProcess::instance_ = nullptr;
std::mutex CameraAbilityProcess::instanceMutex_;

namespace {
constexpr int32_t REQ_TAKE_PHOTO = 1;
constexpr int32_t REQ_SUBSCRIBE_EVENT = 2;
constexpr int32_t REQ_PUT_IMAGE = 3;
constexpr int32_t REQ_CANCEL = 4;
constexpr int32_t REQ_UNREGISTER = 5;
constexpr int32_t REQ_REMOTE_CANCEL = 10;

struct HandlerEntry {
    int32_t code;
    CameraAbilityProcess::RequestHandler handler;
};

const HandlerEntry HANDLERS[] = {
    {REQ_TAKE_PHOTO, &CameraAbilityProcess::CollaborationToTakephotoReq},
    {REQ_PUT_IMAGE, &CameraAbilityProcess::CollaborationToPutImageReq},
    {REQ_CANCEL, &CameraAbilityProcess::CollaborationToCancelTakePhotoReq},
    {REQ_REMOTE_CANCEL, &CameraAbilityProcess::CollaborationToRemoteCancelTakePhotoReq},
    {REQ_SUBSCRIBE_EVENT, &CameraAbilityProcess::CollaborationToEventReq},
    {REQ_UNREGISTER, &CameraAbilityProcess::CollaborationToUnregister},
};
}  // namespace

CameraAbilityProcess* CameraAbilityProcess::GetInstance()
{
    if (instance_ != nullptr) {
        return instance_;
    }
    std::lock_guard<std::mutex> lock(instanceMutex_);
    if (instance_ == nullptr) {
        CameraAbilityProcess* created = new (std::nothrow) CameraAbilityProcess();
        if (created == nullptr) {
            TNDR_SERVICE_LOGE("create CameraAbilityProcess object failed");
            return nullptr;
        }
        instance_ = created;
    }
    return instance_;
}

CameraAbilityProcess::CameraAbilityProcess()
{
    requestHandlers_.max_load_factor(1.0f);
    for (const auto& entry : HANDLERS) {
        requestHandlers_.emplace(entry.code, entry.handler);
    }
    frameworkName_ = FRAMEWORK_NAME;
    dataTypeName_ = "DATA_TYPE_BYTES";
    collaborationDataSessionId_ = 0;
    collaborationDataBundleName_.clear();
    TNDR_SERVICE_LOGI("create CameraAbilityProcess");
    InitEventListener();
}

CameraAbilityProcess::~CameraAbilityProcess()
{
    std::lock_guard<std::mutex> lock(instanceMutex_);
    cameraProcesses_.clear();
}

void CameraAbilityProcess::InitEventListener()
{
    std::shared_ptr<ListenerManager> manager = ListenerManager::GetInstance();
    if (manager == nullptr) {
        return;
    }
    manager->RegisterEventListener(std::make_shared<CameraAbilityProcessListener>());
}

namespace {
// Proxies built from remote objects received under these descriptors.
BrokerDelegator<CallbackSkeletonProxy> g_callbackProxyDelegator;
BrokerDelegator<AppExecFwk::BundleMgrProxy> g_bundleMgrProxyDelegator;

// Registering creates the singleton at load time; the result is not needed afterwards.
[[maybe_unused]] const bool g_pluginRegistered =
    PluginLoader::GetLoader().RegisterInstance(PLUGIN_TYPE_CAMERA, CameraAbilityProcess::GetInstance());
}  // namespace

}  // namespace Tandra
}  // namespace QUEX
