// The command text between the two plugins: what the requesting side writes, what the serving
// side accepts, and which local ability the resulting command will start.
#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "camera_ability_process.h"
#include "take_photo_command.h"
#include "test_device.h"
#include "vex_log.h"

namespace QUEX {
namespace Tandra {
namespace {
using Testing::TestDevice;

const std::string TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";

const std::vector<std::string> ITEM_MESSAGES = {
    "invalid commandItem param!",
    "invalid commandItem inner param!",
    "invalid commandItem value param!",
};
// In the order the reader checks them.
const std::vector<std::string> PARAM_MESSAGES = {
    "invalid param!",
    "invalid peerBundleName param!",
    "invalid peerAbilityName param!",
    "invalid localAbilityName param!",
    "invalid localBundleName param!",
    "invalid localDeviceId param!",
    "invalid localModuleName param!",
    "invalid localDeviceType param!",
};

AbilityInfo MakeAbility(std::string bundle, std::string ability, std::string action, std::string type = TAKE_PHOTO_TYPE)
{
    AbilityInfo info;
    info.bundleName = std::move(bundle);
    info.abilityName = std::move(ability);
    info.moduleName = "entry";
    info.action = std::move(action);
    info.abilityType = std::move(type);
    return info;
}

const AbilityInfo ZENITHPAD =
    MakeAbility("com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility", TAKE_PHOTO_TYPE);

Json::Value ValidItem(const std::string& localBundle = "com.example.photo")
{
    Json::Value local(Json::objectValue);
    local["localBundleName"] = localBundle;
    local["localAbilityName"] = "MainAbility";
    local["localDeviceId"] = "LOCALUDID0001";
    local["localModuleName"] = "entry";
    local["localDeviceType"] = 14;
    Json::Value extra(Json::objectValue);
    extra["peerBundleName"] = "com.peer.camera";
    extra["peerAbilityName"] = "CameraAbility";
    extra["peerAction"] = "peer.action.TakePhoto";
    extra["peerAbilityType"] = TAKE_PHOTO_TYPE;
    extra["chooseAbilityAtPeer"] = false;
    Json::Value item(Json::objectValue);
    item["commandType"] = 1;
    item["isDual"] = false;
    item["localInfo"] = local;
    item["extraData"] = extra;
    return item;
}

std::string Text(const std::vector<Json::Value>& items)
{
    Json::Value array(Json::arrayValue);
    for (const auto& item : items) {
        array.append(item);
    }
    return array.toStyledString();
}

std::shared_ptr<StartAbilityParam> ParamOf(const std::shared_ptr<Command>& command)
{
    auto takePhoto = std::dynamic_pointer_cast<TakePhotoCommand>(command);
    return takePhoto != nullptr ? takePhoto->GetStartAbilityParam() : nullptr;
}

class CommandTextTest : public testing::Test {
protected:
    // The device's backends exist before the plugin does.
    TestDevice device_;
    CameraAbilityProcess* process_ = CameraAbilityProcess::GetInstance();

    std::vector<std::shared_ptr<Command>> Create(const std::string& text) { return process_->CreateCommand(text); }
};

TEST_F(CommandTextTest, WrittenTextReadsBackAsTheSameStartParameters)
{
    device_.AddPeerDevice(TestDevice::PeerIdentity(),
                          {MakeAbility("com.other.scanner", "ScanAbility", "scan", "tandra.CameraAbility.Scan"),
                           MakeAbility("com.peer.camera", "CameraAbility", "peer.action.TakePhoto")});
    std::string peerUdid = TestDevice::PeerIdentity().udid;
    Vex::sptr<LocalInfo> local = new LocalInfo("com.example.photo", "MainAbility", "entry", "LOCALUDID0001", 0x0E);
    Vex::sptr<AbilityFilter> filter = new AbilityFilter(TAKE_PHOTO_TYPE);

    std::string text = process_->GenerateTakePhotoReqCommand(peerUdid, filter, local);

    Json::Value parsed;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr));
    ASSERT_TRUE(parsed.isArray());
    ASSERT_EQ(parsed.size(), 1u);
    EXPECT_EQ(parsed[0]["commandType"], Json::Value(1));
    EXPECT_EQ(parsed[0]["isDual"], Json::Value(false));
    EXPECT_EQ(parsed[0]["extraData"]["chooseAbilityAtPeer"], Json::Value(true));

    auto commands = Create(text);
    ASSERT_EQ(commands.size(), 1u);
    auto param = ParamOf(commands[0]);
    ASSERT_NE(param, nullptr);
    EXPECT_EQ(param->bundleName, "com.peer.camera");
    EXPECT_EQ(param->abilityName, "CameraAbility");
    EXPECT_EQ(param->action, "peer.action.TakePhoto");
    EXPECT_EQ(param->abilityType, TAKE_PHOTO_TYPE);
    EXPECT_TRUE(param->chooseAbilityAtPeer);
    EXPECT_EQ(param->localBundleName, "com.example.photo");
    EXPECT_EQ(param->localAbilityName, "MainAbility");
    EXPECT_EQ(param->localModuleName, "entry");
    EXPECT_EQ(param->localDeviceId, "LOCALUDID0001");
    EXPECT_EQ(param->localDeviceType, 0x0E);
}

TEST_F(CommandTextTest, PeerWithoutMatchingAbilityStillGetsOneWellFormedItem)
{
    std::string peerUdid = "UNKNOWNUDID";
    Vex::sptr<LocalInfo> local = new LocalInfo("com.example.photo", "MainAbility", "entry", "LOCALUDID0001", 0x0E);
    Vex::sptr<AbilityFilter> filter = new AbilityFilter(TAKE_PHOTO_TYPE);

    std::string text = process_->GenerateTakePhotoReqCommand(peerUdid, filter, local);

    auto commands = Create(text);
    ASSERT_EQ(commands.size(), 1u);
    // Nothing named, so the serving side falls back to the camera's picker.
    EXPECT_EQ(ParamOf(commands[0])->abilityName, "PickerAbility");
}

TEST_F(CommandTextTest, AtMost128ItemsPerText)
{
    Vex::LogCapture log;
    EXPECT_EQ(Create(Text(std::vector<Json::Value>(128, ValidItem()))).size(), 128u);
    EXPECT_FALSE(log.Contains("get commandProp json invalid!"));

    EXPECT_TRUE(Create(Text(std::vector<Json::Value>(129, ValidItem()))).empty());
    EXPECT_TRUE(log.Contains("get commandProp json invalid!"));
    EXPECT_FALSE(log.Contains("invalid commandItem"));
}

TEST_F(CommandTextTest, TextThatIsNotAnArrayYieldsNothing)
{
    const std::string nested = std::string(5000, '[') + std::string(5000, ']');
    for (const std::string& text : {std::string(), std::string("not json"), std::string("{\"commandType\": 1}"),
                                    std::string("[{\"commandType\": 1"), std::string("17"), nested}) {
        SCOPED_TRACE(text.substr(0, 40));
        Vex::LogCapture log;
        EXPECT_TRUE(Create(text).empty());
        EXPECT_TRUE(log.Contains("The structure of commandProp is incorrect."));
    }
}

struct ItemCase {
    const char* name;
    std::function<void(Json::Value& item)> mutate;
    size_t expectedMessage;  // index into ITEM_MESSAGES
};

TEST_F(CommandTextTest, ItemChecksRejectInOrder)
{
    const std::vector<ItemCase> cases = {
        {"not an object", [](Json::Value& item) { item = Json::Value("item"); }, 0},
        {"array item", [](Json::Value& item) { item = Json::Value(Json::arrayValue); }, 0},
        {"no commandType", [](Json::Value& item) { item.removeMember("commandType"); }, 1},
        {"no isDual", [](Json::Value& item) { item.removeMember("isDual"); }, 1},
        {"no localInfo", [](Json::Value& item) { item.removeMember("localInfo"); }, 1},
        {"no extraData, bad commandType",
         [](Json::Value& item) {
             item.removeMember("extraData");
             item["commandType"] = "1";
         },
         1},
        {"commandType as text", [](Json::Value& item) { item["commandType"] = "1"; }, 2},
        {"commandType fractional", [](Json::Value& item) { item["commandType"] = 1.5; }, 2},
        {"isDual as number", [](Json::Value& item) { item["isDual"] = 0; }, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Json::Value item = ValidItem();
        c.mutate(item);
        Vex::LogCapture log;
        EXPECT_TRUE(Create(Text({item})).empty());
        for (size_t i = 0; i < ITEM_MESSAGES.size(); ++i) {
            EXPECT_EQ(log.Contains(ITEM_MESSAGES[i]), i == c.expectedMessage) << ITEM_MESSAGES[i];
        }
    }
}

// Breaks check n and every check after it: only check n may report.
void BreakParamChecksFrom(size_t first, Json::Value& item)
{
    Json::Value& local = item["localInfo"];
    Json::Value& extra = item["extraData"];
    const std::vector<std::function<void()>> breakers = {
        [&]() { item["localInfo"] = Json::Value("not an object"); },
        [&]() { extra.removeMember("peerBundleName"); },
        [&]() { extra["peerAbilityName"] = 7; },
        [&]() { local.removeMember("localAbilityName"); },
        [&]() { local["localBundleName"] = Json::Value(Json::objectValue); },
        [&]() { local["localDeviceId"] = true; },
        [&]() { local.removeMember("localModuleName"); },
        [&]() { local["localDeviceType"] = 3.5; },
    };
    // From the last to the first, so that replacing localInfo comes after editing it.
    for (size_t i = breakers.size(); i-- > first;) {
        breakers[i]();
    }
}

TEST_F(CommandTextTest, TakePhotoParameterChecksRejectInOrder)
{
    for (size_t first = 0; first < PARAM_MESSAGES.size(); ++first) {
        SCOPED_TRACE(PARAM_MESSAGES[first]);
        Json::Value item = ValidItem();
        BreakParamChecksFrom(first, item);
        Vex::LogCapture log;
        EXPECT_TRUE(Create(Text({item})).empty());
        for (size_t i = 0; i < PARAM_MESSAGES.size(); ++i) {
            EXPECT_EQ(log.Contains(PARAM_MESSAGES[i]), i == first) << PARAM_MESSAGES[i];
        }
    }
}

TEST_F(CommandTextTest, ParameterChecksLookAtPresenceAndTypeOnly)
{
    const std::vector<std::pair<const char*, std::function<void(Json::Value&)>>> cases = {
        {"empty strings",
         [](Json::Value& item) {
             for (const char* key : {"localBundleName", "localAbilityName", "localDeviceId", "localModuleName"}) {
                 item["localInfo"][key] = "";
             }
             item["extraData"]["peerBundleName"] = "";
             item["extraData"]["peerAbilityName"] = "";
         }},
        {"device type 3", [](Json::Value& item) { item["localInfo"]["localDeviceType"] = 3; }},
        {"negative device type", [](Json::Value& item) { item["localInfo"]["localDeviceType"] = -1; }},
        {"extra keys", [](Json::Value& item) { item["extraData"]["unknown"] = Json::Value(Json::arrayValue); }},
        {"dual framework", [](Json::Value& item) { item["isDual"] = true; }},
    };
    for (const auto& [name, mutate] : cases) {
        SCOPED_TRACE(name);
        Json::Value item = ValidItem();
        mutate(item);
        EXPECT_EQ(Create(Text({item})).size(), 1u);
    }
}

TEST_F(CommandTextTest, OnlyTakePhotoItemsBecomeCommandsInArrayOrder)
{
    Json::Value other = ValidItem("com.example.other");
    other["commandType"] = 2;
    Json::Value broken = ValidItem("com.example.broken");
    broken["extraData"].removeMember("peerAbilityName");
    Json::Value dual = ValidItem("com.example.second");
    dual["isDual"] = true;

    Vex::LogCapture log;
    auto commands = Create(Text({ValidItem("com.example.first"), other, broken, dual}));

    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(ParamOf(commands[0])->localBundleName, "com.example.first");
    EXPECT_EQ(ParamOf(commands[1])->localBundleName, "com.example.second");
    EXPECT_TRUE(log.Contains("other commandProp = 2"));
    EXPECT_TRUE(log.Contains("Received request from dual framework!"));
}

struct ChoiceCase {
    const char* name;
    std::vector<AbilityInfo> localAbilities;
    std::function<void(Json::Value& extra)> mutate;
    std::vector<std::string> expected;  // bundle, ability, action
    bool expectedChooseAtPeer;
};

TEST_F(CommandTextTest, TheAbilityToStartIsChosenByPeerLocalListAndCollaborationAbility)
{
    const AbilityInfo localCamera = MakeAbility("com.local.camera", "CaptureAbility", "local.capture");
    const AbilityInfo laterCamera = MakeAbility("com.local.zcamera", "ZAbility", "local.z");
    const AbilityInfo zenithpadOtherAction =
        MakeAbility("com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility", "other.action");
    const AbilityInfo otherType = MakeAbility("com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility",
                                              TAKE_PHOTO_TYPE, "tandra.CameraAbility.Scan");
    auto noAction = [](Json::Value& extra) { extra.removeMember("peerAction"); };
    auto chooseAtPeer = [](Json::Value& extra) { extra["chooseAbilityAtPeer"] = true; };

    const std::vector<ChoiceCase> cases = {
        {"peer's choice, nothing local",
         {},
         [](Json::Value&) {},
         {"com.peer.camera", "CameraAbility", "peer.action.TakePhoto"},
         false},
        {"peer's choice kept over local ones",
         {localCamera},
         [](Json::Value&) {},
         {"com.peer.camera", "CameraAbility", "peer.action.TakePhoto"},
         false},
        {"first local when the peer lets us choose",
         {laterCamera, localCamera},
         chooseAtPeer,
         {"com.local.camera", "CaptureAbility", "local.capture"},
         true},
        {"collaboration ability over the first local",
         {localCamera, ZENITHPAD},
         chooseAtPeer,
         {"com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility", TAKE_PHOTO_TYPE},
         true},
        {"collaboration ability over the peer's choice",
         {ZENITHPAD},
         [](Json::Value&) {},
         {"com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility", TAKE_PHOTO_TYPE},
         false},
        {"collaboration ability needs the take-photo action",
         {zenithpadOtherAction},
         [](Json::Value&) {},
         {"com.peer.camera", "CameraAbility", "peer.action.TakePhoto"},
         false},
        {"local abilities of another type do not count",
         {otherType},
         chooseAtPeer,
         {"com.peer.camera", "CameraAbility", "peer.action.TakePhoto"},
         true},
        {"old peer: the camera's picker",
         {},
         noAction,
         {"com.brindle.tarvex.camera", "PickerAbility", TAKE_PHOTO_TYPE},
         false},
        {"old peer with an empty action",
         {localCamera},
         [](Json::Value& extra) { extra["peerAction"] = ""; },
         {"com.brindle.tarvex.camera", "PickerAbility", TAKE_PHOTO_TYPE},
         false},
        {"old peer, collaboration ability installed",
         {ZENITHPAD},
         noAction,
         {"com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility", TAKE_PHOTO_TYPE},
         false},
        {"choose flag as text is ignored",
         {localCamera},
         [](Json::Value& extra) { extra["chooseAbilityAtPeer"] = "true"; },
         {"com.peer.camera", "CameraAbility", "peer.action.TakePhoto"},
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        device_.Env().SetLocalAbilities(c.localAbilities);
        Json::Value item = ValidItem();
        c.mutate(item["extraData"]);

        auto commands = Create(Text({item}));

        ASSERT_EQ(commands.size(), 1u);
        auto param = ParamOf(commands[0]);
        ASSERT_NE(param, nullptr);
        EXPECT_EQ(param->bundleName, c.expected[0]);
        EXPECT_EQ(param->abilityName, c.expected[1]);
        EXPECT_EQ(param->action, c.expected[2]);
        EXPECT_EQ(param->abilityType, TAKE_PHOTO_TYPE);
        EXPECT_EQ(param->chooseAbilityAtPeer, c.expectedChooseAtPeer);
    }
}

TEST_F(CommandTextTest, OptionalPeerKeysOfAnotherTypeAreIgnored)
{
    Json::Value item = ValidItem();
    item["extraData"]["peerAction"] = 5;
    item["extraData"]["peerAbilityType"] = Json::Value(Json::arrayValue);

    auto commands = Create(Text({item}));

    ASSERT_EQ(commands.size(), 1u);
    auto param = ParamOf(commands[0]);
    EXPECT_EQ(param->abilityType, "");
    // Without a usable action the peer counts as an old one.
    EXPECT_EQ(param->abilityName, "PickerAbility");
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
