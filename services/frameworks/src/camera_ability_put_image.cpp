// The put-image flow of the serving device: the camera application hands over its photos as
// file descriptors, and a pool worker sends the count and then each photo on the data channel.
// Copies of photo bytes: none here. Each photo goes to the bus as its file descriptor behind an
// eight-byte header, and the device link reads the file a piece at a time into a small buffer
// it reuses while it encrypts, so no photo is ever held whole in this process.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "asyn_thread_pool.h"
#include "bounded_copy.h"
#include "camera_ability_process.h"
#include "camera_app_callback.h"
#include "camera_result_codes.h"
#include "fd_io.h"
#include "photo_callerInfo.h"
#include "tandra_dfx.h"
#include "tandra_service_utils.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr uint32_t MAX_PHOTO_COUNT = 1000;
constexpr uint32_t SEND_MODE_SINGLE_FD = 1;
constexpr int32_t ERR_PHOTO_FILE = 1106;
constexpr uint32_t DEVICE_TYPE_UNKNOWN = 0x00;
constexpr uint32_t DEVICE_TYPE_PHONE = 0x0E;
constexpr uint32_t DEVICE_TYPE_TABLET = 0x11;
const char* const EVENT_IMAGE_PROCESS_COMPLETE = "imageProcessComplete";

// The descriptors came out of the request parcel as our own duplicates; whatever happens to
// the request, they are closed exactly once. A 0 is ours too (a host without stdin gets it).
void CloseDescriptors(const std::vector<int32_t>& fds)
{
    for (int32_t fd : fds) {
        if (fd >= 0) {
            close(fd);
        }
    }
}
}  // namespace

int32_t CameraAbilityProcess::CollaborationToPutImageReq(MessageParcel& data, MessageParcel& /*reply*/,
                                                         MessageOption& /*option*/, IPCContext context)
{
    TNDR_SERVICE_LOGI("enter.");
    sptr<PhotoCallerInfo> callerInfo = data.ReadStrongParcelable<PhotoCallerInfo>();
    uint32_t sendMode = data.ReadUint32();
    uint32_t errCode = data.ReadUint32();
    uint32_t photoCount = data.ReadUint32();
    if (photoCount > MAX_PHOTO_COUNT) {
        TNDR_SERVICE_LOGE("photoCount = %{public}u is too large", photoCount);
        return ERR_INVALID_PARAM;
    }
    uint32_t fdCount = sendMode == SEND_MODE_SINGLE_FD ? 1 : photoCount;
    std::vector<int32_t> fds;
    fds.reserve(fdCount);
    for (uint32_t i = 0; i < fdCount; ++i) {
        fds.push_back(data.ReadFileDescriptor());
    }

    sptr<PhotoInfo> photoInfo = new (std::nothrow) PhotoInfo();
    if (photoInfo == nullptr || callerInfo == nullptr) {
        TNDR_SERVICE_LOGE("photoInfo = %{public}d, photoCallerInfo = %{public}d", photoInfo == nullptr ? 1 : 0,
                          callerInfo == nullptr ? 1 : 0);
        CloseDescriptors(fds);
        return ERR_INVALID_PARAM;
    }
    photoInfo->SetErrCode(errCode);
    photoInfo->SetPhotoCount(photoCount);
    photoInfo->SetPhotoFdList(std::move(fds));
    photoInfo->SetInterfaceId(PhotoInfo::PUT_IMAGE_INTERFACE_ID);

    std::shared_ptr<PutPhotoContext> putPhotoContext = QueryPutPhotoContext(callerInfo->GetCollaborationSessionId());
    if (putPhotoContext == nullptr) {
        TNDR_SERVICE_LOGE("putPhotoContext is null!");
        CloseDescriptors(photoInfo->GetPhotoFdList());
        return ERR_NO_PUT_PHOTO_CONTEXT;
    }
    if (!IsSubscribedCameraApp(putPhotoContext, context.pid, context.uid)) {
        TNDR_SERVICE_LOGE("caller %{public}d is not the camera application of the collaboration", context.pid);
        CloseDescriptors(photoInfo->GetPhotoFdList());
        return ERR_INVALID_PARAM;
    }
    // Only one batch per camera run: the status leaves "running" for good here.
    if (!putPhotoContext->ChangeCameraStatus(PutPhotoContext::CAMERA_PUTTING).first) {
        TNDR_SERVICE_LOGE("changeCameraStatus failed!");
        CloseDescriptors(photoInfo->GetPhotoFdList());
        return ERR_CAMERA_STATUS;
    }
    putPhotoContext->SetPid(context.pid);
    putPhotoContext->SetUid(context.uid);
    auto param = std::make_shared<PhotoParam>(PhotoParam::REQUEST_PUT_IMAGE);
    int32_t result = ProcessPutPhotoRequest(putPhotoContext, photoInfo, callerInfo, param);
    TNDR_SERVICE_LOGI("ProcessPutPhotoRequest return result = %{public}d", result);
    return result;
}

int32_t CameraAbilityProcess::ProcessPutPhotoRequest(std::shared_ptr<PutPhotoContext> context,
                                                     sptr<PhotoInfo>& photoInfo, sptr<PhotoCallerInfo>& callerInfo,
                                                     std::shared_ptr<PhotoParam> param)
{
    if (context == nullptr || photoInfo == nullptr || callerInfo == nullptr || param == nullptr) {
        TNDR_SERVICE_LOGE("invalid put-image request");
        return ERR_INVALID_PARAM;
    }
    TNDR_SERVICE_LOGI("enter, photoFd = %{public}d, the deviceType is %{public}d", photoInfo->GetPhotoFd(),
                      static_cast<int32_t>(callerInfo->GetDeviceType()));
    if (param->requestType == PhotoParam::REQUEST_REMOTE_CANCEL) {
        // The camera application's own error code goes to the requester as it is.
        uint32_t errCode = photoInfo->GetErrCode();
        SendCodeBack(errCode, context->GetCollaborationSessionId());
        TNDR_SERVICE_LOGI("remote cancel take photo, errorCode = %{public}d", static_cast<int32_t>(errCode));
        return 0;
    }
    if (!IsDeviceTypeAllowPutImage()) {
        int32_t callBackResult = ProcessPutPhotoCallBack(context, CODE_DEVICE_TYPE_REFUSED);
        TNDR_SERVICE_LOGE("device type error, callBackResult = %{public}d", callBackResult);
        CloseDescriptors(photoInfo->GetPhotoFdList());
        return callBackResult;
    }
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::CAMERA_RUNNING,
                          DFX::StageRes::SUCCESS, 0, DFX::BizState::END);
    sptr<PhotoInfo> info = photoInfo;
    int32_t addResult =
        AsynThreadPool::AddAsynTask([this, context, info, param]() mutable { ProcessPutPhoto(context, info, param); });
    TNDR_SERVICE_LOGI("addResult = %{public}d", addResult);
    if (addResult != 0) {
        CloseDescriptors(photoInfo->GetPhotoFdList());
    }
    return 0;
}

bool CameraAbilityProcess::IsDeviceTypeAllowPutImage()
{
    uint32_t deviceType = TandraServiceUtils::GetLocalDeviceType();
    TNDR_SERVICE_LOGI("the deviceType is %{public}d", static_cast<int32_t>(deviceType));
    return deviceType == DEVICE_TYPE_UNKNOWN || deviceType == DEVICE_TYPE_PHONE || deviceType == DEVICE_TYPE_TABLET;
}

void CameraAbilityProcess::ProcessPutPhoto(std::shared_ptr<PutPhotoContext> context, sptr<PhotoInfo>& photoInfo,
                                           std::shared_ptr<PhotoParam> param)
{
    if (context == nullptr || photoInfo == nullptr || param == nullptr) {
        TNDR_SERVICE_LOGE("invalid put-image task");
        return;
    }
    const std::vector<int32_t> fds = photoInfo->GetPhotoFdList();
    const uint32_t photoCount = static_cast<uint32_t>(fds.size());
    TNDR_SERVICE_LOGI("enter, photoCount = %{public}u", photoCount);
    // The camera application may close as soon as it knows the photos are taken over; what
    // goes wrong later is the requester's business and reaches it as code messages.
    ProcessPutPhotoCallBack(context, CODE_LAST_PHOTO);

    const int32_t sessionId = context->GetCollaborationSessionId();
    CameraMsgHeader countHeader{CODE_PHOTO_COUNT, photoCount};
    SendMsgHeaderByControlChannel(sessionId, countHeader);
    const std::string sessionName = context->GetSessionName();
    DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::BEGIN, 0, DFX::BizState::BEGIN, sessionName);
    int32_t res = SendMsgHeaderByDataChannel(context, countHeader);
    if (res != 0) {
        TNDR_SERVICE_LOGE("enter, send photo count fail, res = %{public}d", res);
        SendCodeBack(CODE_DATA_SEND_FAILED, sessionId);
        DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::FAILED, std::abs(res), DFX::BizState::END,
                                 sessionName);
    } else {
        for (uint32_t imageSeq = 0; imageSeq < photoCount; ++imageSeq) {
            int32_t fd = fds[imageSeq];
            if (fd < 1) {
                SendCodeBack(CODE_PHOTO_FAILED, sessionId);
                TNDR_SERVICE_LOGE("index = %{public}d, fd = %{public}d invalid", static_cast<int32_t>(imageSeq), fd);
                continue;
            }
            res = ProcessPhotoData(context, param, fd, imageSeq, photoCount);
            if (res != 0) {
                TNDR_SERVICE_LOGI("send fail, imageSeq = %{public}u, res = %{public}d", imageSeq, res);
                break;
            }
            if (imageSeq == 0) {
                DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, DFX::BizState::BEGIN, sessionName);
            }
        }
    }
    param->photoFd = -1;
    CloseDescriptors(fds);
}

int32_t CameraAbilityProcess::ProcessPhotoData(std::shared_ptr<PutPhotoContext> context,
                                               std::shared_ptr<PhotoParam> param, int32_t photoFd, uint32_t imageSeq,
                                               uint32_t photoCount)
{
    const int32_t sessionId = context->GetCollaborationSessionId();
    TNDR_SERVICE_LOGI("enter, imageSeq = %{public}u, photoFd = %{public}d", imageSeq, photoFd);
    struct stat fileStat {};
    TNDR_SERVICE_LOGI("fstat = %{public}d", fstat(photoFd, &fileStat));

    off_t fileLength = lseek(photoFd, 0, SEEK_END);
    // The header's size field is 32 bits: a longer file cannot be framed.
    constexpr off_t maxLength = std::numeric_limits<uint32_t>::max() - CAMERA_MSG_HEADER_LEN;
    if (fileLength < 1 || fileLength > maxLength) {
        SendCodeBack(CODE_PHOTO_FAILED, sessionId);
        TNDR_SERVICE_LOGE("fd = %{public}d valid, but file length = %{public}d", photoFd,
                          static_cast<int32_t>(fileLength));
        return ERR_PHOTO_FILE;
    }
    // The requesting side hands each photo to its application in one callback parcel; a longer
    // one could never arrive, so it is refused before any of it is sent.
    if (static_cast<uint64_t>(fileLength) > MAX_PHOTO_SIZE) {
        SendCodeBack(CODE_PHOTO_FAILED, sessionId);
        TNDR_SERVICE_LOGE("fd = %{public}d, file length = %{public}lld is more than the requester takes", photoFd,
                          static_cast<long long>(fileLength));
        return ERR_PHOTO_FILE;
    }
    const uint32_t length = static_cast<uint32_t>(fileLength);
    // One byte read now tells an unreadable descriptor (opened for writing only, a folder)
    // before anything of this photo is on the link.
    char first = 0;
    size_t got = 0;
    if (!Vex::ReadAllAt(photoFd, &first, 1, 0, &got) || got != 1) {
        const int failure = got == 1 ? 0 : errno;
        SendCodeBack(CODE_PHOTO_FAILED, sessionId);
        TNDR_SERVICE_LOGE("read photo failed, errno = %{public}d", failure);
        return ERR_PHOTO_FILE;
    }
    param->code = imageSeq == photoCount - 1 ? CODE_LAST_PHOTO : CODE_PHOTO;
    param->photoLength = length;
    param->photoFd = photoFd;
    return ProcessSendPhoto(context, param, imageSeq == 0);
}

int32_t CameraAbilityProcess::ProcessSendPhoto(std::shared_ptr<PutPhotoContext> context,
                                               std::shared_ptr<PhotoParam> param, bool isFirst)
{
    const int32_t sessionId = context->GetCollaborationSessionId();
    TNDR_SERVICE_LOGI("code = %{public}u, size = %{public}u", param->code, param->photoLength);
    CameraMsgHeader header{param->code, param->photoLength};
    if (param->photoFd < 0 || BoundedCopy(param->header, sizeof(param->header), &header, sizeof(header)) != EOK) {
        TNDR_SERVICE_LOGE("memcpy_s failed");
        param->code = CODE_PHOTO_FAILED;
        SendCodeBack(CODE_PHOTO_FAILED, sessionId);
        return ERR_INVALID_PARAM;
    }
    int32_t sendResult = SendPhotoData(context, param, isFirst);
    if (sendResult != 0) {
        TNDR_SERVICE_LOGE("failed to SendPhotoData, sendResult = %{public}d", sendResult);
        SendCodeBack(CODE_DATA_SEND_FAILED, sessionId);
        return sendResult;
    }
    TNDR_SERVICE_LOGI("send photo leave");
    return 0;
}

int32_t CameraAbilityProcess::ProcessPutPhotoCallBack(std::shared_ptr<PutPhotoContext> context, uint32_t code)
{
    TNDR_SERVICE_LOGI("enter");
    std::string event = EVENT_IMAGE_PROCESS_COMPLETE;
    std::shared_ptr<OnEventProcess> onEvent = QueryOnEventProcess(context->GetPid(), context->GetUid(), event);
    if (onEvent == nullptr) {
        TNDR_SERVICE_LOGE("onEvent is null");
        return ERR_INVALID_PARAM;
    }
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, CALLBACK_WAIT_SECONDS);
    int32_t requestCode = CallbackSkeletonProxy::BuildCollaborationCallbackCode(data, CALLBACK_SERVICE_EVENT,
                                                                                CALLBACK_SUB_PUT_IMAGE_RESULT, 0, 0, 0);
    if (requestCode < 0) {
        TNDR_SERVICE_LOGE("build callback five code failed");
        return ERR_INVALID_PARAM;
    }
    if (!data.WriteUint32(code) || !data.WriteUint32(onEvent->collaborationId) ||
        !data.WriteString(CALLBACK_FILLER_TEXT)) {
        TNDR_SERVICE_LOGE("code write failed");
        return ERR_INVALID_PARAM;
    }
    if (onEvent->callback == nullptr) {
        TNDR_SERVICE_LOGE("callback proxy is null");
        return ERR_INVALID_PARAM;
    }
    return onEvent->callback->SendRequest(static_cast<uint32_t>(requestCode), data, reply, option);
}

}  // namespace Tandra
}  // namespace QUEX
