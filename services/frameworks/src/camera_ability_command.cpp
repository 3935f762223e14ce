// The command text exchanged between the two plugins: written by the requesting side when it
// opens the control session, read by the serving side, which turns each valid item into a
// command and decides which local ability the command will start.
#include <json/json.h>

#include "ability_manager.h"
#include "camera_ability_process.h"
#include "json_utils.h"
#include "take_photo_command.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr Json::ArrayIndex MAX_COMMAND_ITEMS = 128;
constexpr int32_t COMMAND_TYPE_TAKE_PHOTO = 1;

const char* const KEY_COMMAND_TYPE = "commandType";
const char* const KEY_IS_DUAL = "isDual";
const char* const KEY_LOCAL_INFO = "localInfo";
const char* const KEY_EXTRA_DATA = "extraData";
const char* const KEY_LOCAL_BUNDLE_NAME = "localBundleName";
const char* const KEY_LOCAL_ABILITY_NAME = "localAbilityName";
const char* const KEY_LOCAL_DEVICE_ID = "localDeviceId";
const char* const KEY_LOCAL_MODULE_NAME = "localModuleName";
const char* const KEY_LOCAL_DEVICE_TYPE = "localDeviceType";
const char* const KEY_PEER_BUNDLE_NAME = "peerBundleName";
const char* const KEY_PEER_ABILITY_NAME = "peerAbilityName";
const char* const KEY_PEER_ACTION = "peerAction";
const char* const KEY_PEER_ABILITY_TYPE = "peerAbilityType";
const char* const KEY_CHOOSE_ABILITY_AT_PEER = "chooseAbilityAtPeer";

const char* const COLLABORATION_BUNDLE_NAME = "com.brindle.tarvex.zenithpad";
const char* const COLLABORATION_ABILITY_NAME = "ServiceCollaborationAbility";
const char* const TAKE_PHOTO_ACTION = "tandra.CameraAbility.TakePhoto";
const char* const OLD_PEER_CAMERA_BUNDLE_NAME = "com.brindle.tarvex.camera";
const char* const OLD_PEER_CAMERA_ABILITY_NAME = "PickerAbility";

bool HasString(const Json::Value& object, const char* key)
{
    return object.isMember(key) && object[key].isString();
}
}  // namespace

std::string CameraAbilityProcess::GenerateTakePhotoReqCommand(std::string& peerRef, sptr<AbilityFilter> filter,
                                                              sptr<LocalInfo> localInfo)
{
    Json::Value local(Json::objectValue);
    if (localInfo != nullptr) {
        local[KEY_LOCAL_BUNDLE_NAME] = localInfo->GetLocalBundleName();
        local[KEY_LOCAL_ABILITY_NAME] = localInfo->GetLocalAbilityName();
        local[KEY_LOCAL_DEVICE_ID] = localInfo->GetLocalDeviceId();
        local[KEY_LOCAL_MODULE_NAME] = localInfo->GetLocalModuleName();
        local[KEY_LOCAL_DEVICE_TYPE] = Json::UInt(localInfo->GetLocalDeviceType());
    }

    // A peer without a matching ability still gets a well-formed item: the empty names fail
    // nothing there, and the serving side chooses the ability itself.
    std::shared_ptr<AbilityInfo> remote;
    auto abilityManager = AbilityManager::GetInstance();
    if (abilityManager != nullptr) {
        remote = abilityManager->GetRemoteAbilityByAbilityFilter(peerRef, filter);
    }
    Json::Value extra(Json::objectValue);
    extra[KEY_PEER_BUNDLE_NAME] = remote != nullptr ? remote->bundleName : std::string();
    extra[KEY_PEER_ABILITY_NAME] = remote != nullptr ? remote->abilityName : std::string();
    extra[KEY_PEER_ACTION] = remote != nullptr ? remote->action : std::string();
    extra[KEY_PEER_ABILITY_TYPE] = remote != nullptr ? remote->abilityType : std::string();
    extra[KEY_CHOOSE_ABILITY_AT_PEER] = true;

    Json::Value item(Json::objectValue);
    item[KEY_COMMAND_TYPE] = Json::Int(COMMAND_TYPE_TAKE_PHOTO);
    item[KEY_IS_DUAL] = false;
    item[KEY_LOCAL_INFO] = local;
    item[KEY_EXTRA_DATA] = extra;

    Json::Value commands(Json::arrayValue);
    commands.append(item);
    return commands.toStyledString();
}

std::vector<std::shared_ptr<Command>> CameraAbilityProcess::CreateCommand(const std::string& commandProp)
{
    std::vector<std::shared_ptr<Command>> commands;
    std::unique_ptr<Json::Value> root = JsonUtils::StringToJson(commandProp);
    if (root == nullptr || !root->isArray()) {
        TNDR_SERVICE_LOGE("The structure of commandProp is incorrect.");
        return commands;
    }
    if (root->size() > MAX_COMMAND_ITEMS) {
        TNDR_SERVICE_LOGE("get commandProp json invalid!");
        return commands;
    }
    for (Json::ArrayIndex i = 0; i < root->size(); ++i) {
        Json::Value item = (*root)[i];
        if (!isValidCommandProp(item)) {
            continue;
        }
        int32_t commandType = item[KEY_COMMAND_TYPE].asInt();
        bool isDual = item[KEY_IS_DUAL].asBool();
        Json::Value localInfo = item[KEY_LOCAL_INFO];
        Json::Value extraData = item[KEY_EXTRA_DATA];
        if (isDual) {
            TNDR_SERVICE_LOGI("Received request from dual framework!");
        }
        if (commandType != COMMAND_TYPE_TAKE_PHOTO) {
            TNDR_SERVICE_LOGI("other commandProp = %{public}d", commandType);
            continue;
        }
        std::shared_ptr<Command> command = CreateTakePhotoCommand(localInfo, extraData);
        if (command != nullptr) {
            commands.push_back(command);
            TNDR_SERVICE_LOGI("complete takePhotoCommand");
        }
    }
    return commands;
}

bool CameraAbilityProcess::isValidCommandProp(Json::Value& item)
{
    if (!item.isObject()) {
        TNDR_SERVICE_LOGE("invalid commandItem param!");
        return false;
    }
    if (!item.isMember(KEY_COMMAND_TYPE) || !item.isMember(KEY_IS_DUAL) || !item.isMember(KEY_LOCAL_INFO) ||
        !item.isMember(KEY_EXTRA_DATA)) {
        TNDR_SERVICE_LOGE("invalid commandItem inner param!");
        return false;
    }
    if (!item[KEY_COMMAND_TYPE].isInt() || !item[KEY_IS_DUAL].isBool()) {
        TNDR_SERVICE_LOGE("invalid commandItem value param!");
        return false;
    }
    return true;
}

bool CameraAbilityProcess::isValidTakePhotoCommandParam(Json::Value& localInfo, Json::Value& extraData)
{
    if (!localInfo.isObject() || !extraData.isObject()) {
        TNDR_SERVICE_LOGE("invalid param!");
        return false;
    }
    if (!HasString(extraData, KEY_PEER_BUNDLE_NAME)) {
        TNDR_SERVICE_LOGE("invalid peerBundleName param!");
        return false;
    }
    if (!HasString(extraData, KEY_PEER_ABILITY_NAME)) {
        TNDR_SERVICE_LOGE("invalid peerAbilityName param!");
        return false;
    }
    if (!HasString(localInfo, KEY_LOCAL_ABILITY_NAME)) {
        TNDR_SERVICE_LOGE("invalid localAbilityName param!");
        return false;
    }
    if (!HasString(localInfo, KEY_LOCAL_BUNDLE_NAME)) {
        TNDR_SERVICE_LOGE("invalid localBundleName param!");
        return false;
    }
    if (!HasString(localInfo, KEY_LOCAL_DEVICE_ID)) {
        TNDR_SERVICE_LOGE("invalid localDeviceId param!");
        return false;
    }
    if (!HasString(localInfo, KEY_LOCAL_MODULE_NAME)) {
        TNDR_SERVICE_LOGE("invalid localModuleName param!");
        return false;
    }
    if (!localInfo.isMember(KEY_LOCAL_DEVICE_TYPE) || !localInfo[KEY_LOCAL_DEVICE_TYPE].isInt()) {
        TNDR_SERVICE_LOGE("invalid localDeviceType param!");
        return false;
    }
    return true;
}

std::shared_ptr<Command> CameraAbilityProcess::CreateTakePhotoCommand(Json::Value& localInfo, Json::Value& extraData)
{
    if (!isValidTakePhotoCommandParam(localInfo, extraData)) {
        return nullptr;
    }
    auto param = std::make_shared<StartAbilityParam>();
    param->bundleName = extraData[KEY_PEER_BUNDLE_NAME].asString();
    param->abilityName = extraData[KEY_PEER_ABILITY_NAME].asString();
    if (HasString(extraData, KEY_PEER_ACTION)) {
        param->action = extraData[KEY_PEER_ACTION].asString();
        TNDR_SERVICE_LOGI("get peerAction %{public}s", param->action.c_str());
    }
    param->localAbilityName = localInfo[KEY_LOCAL_ABILITY_NAME].asString();
    param->localBundleName = localInfo[KEY_LOCAL_BUNDLE_NAME].asString();
    param->localDeviceId = localInfo[KEY_LOCAL_DEVICE_ID].asString();
    param->localModuleName = localInfo[KEY_LOCAL_MODULE_NAME].asString();
    param->localDeviceType = localInfo[KEY_LOCAL_DEVICE_TYPE].asInt();
    if (HasString(extraData, KEY_PEER_ABILITY_TYPE)) {
        param->abilityType = extraData[KEY_PEER_ABILITY_TYPE].asString();
        TNDR_SERVICE_LOGI("get peerAbilityType %{public}s", param->abilityType.c_str());
    }
    if (extraData.isMember(KEY_CHOOSE_ABILITY_AT_PEER) && extraData[KEY_CHOOSE_ABILITY_AT_PEER].isBool()) {
        param->chooseAbilityAtPeer = extraData[KEY_CHOOSE_ABILITY_AT_PEER].asBool();
        TNDR_SERVICE_LOGI("get chooseAbilityAtPeer %{public}u", static_cast<uint32_t>(param->chooseAbilityAtPeer));
    }
    // Older peers name no action: all they can ask for is the camera's own picker.
    if (param->action.empty()) {
        TNDR_SERVICE_LOGI("escape for old remote device. only start camera");
        param->bundleName = OLD_PEER_CAMERA_BUNDLE_NAME;
        param->abilityName = OLD_PEER_CAMERA_ABILITY_NAME;
        param->action = TAKE_PHOTO_ACTION;
    }
    UpdateStartAbilityParam(param);
    return std::make_shared<TakePhotoCommand>(param);
}

void CameraAbilityProcess::UpdateStartAbilityParam(std::shared_ptr<StartAbilityParam> param)
{
    TNDR_SERVICE_LOGI("enter");
    if (param == nullptr) {
        return;
    }
    auto abilityManager = AbilityManager::GetInstance();
    if (abilityManager == nullptr) {
        return;
    }
    std::vector<AbilityInfo> abilities = abilityManager->GetLocalAbilitiesWithAbilityType(param->abilityType);
    if (abilities.empty()) {
        return;
    }
    if (param->chooseAbilityAtPeer) {
        TNDR_SERVICE_LOGI("chooseAbilityAtPeer is true");
        param->bundleName = abilities.front().bundleName;
        param->abilityName = abilities.front().abilityName;
        param->action = abilities.front().action;
    }
    // The multi-device collaboration ability, when installed, wins over both the peer's choice
    // and the first local one.
    for (const AbilityInfo& ability : abilities) {
        if (ability.bundleName == COLLABORATION_BUNDLE_NAME && ability.abilityName == COLLABORATION_ABILITY_NAME &&
            ability.action == TAKE_PHOTO_ACTION) {
            param->bundleName = ability.bundleName;
            param->abilityName = ability.abilityName;
            param->action = ability.action;
            TNDR_SERVICE_LOGI("update with zenithpad");
            break;
        }
    }
}

}  // namespace Tandra
}  // namespace QUEX
