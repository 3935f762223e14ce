// The command text between the two plugins (what the requester writes, what the serving side
// accepts, which ability its command will start) and the requesting side's take-photo request:
// its checks, the resource decision, the control session that carries the command, the wait for
// the peer's first answer.
#include <json/json.h>

#include <functional>
#include <map>
#include <future>
#include <tuple>

#include "dfx_helper.h"
#include "requesting_fixture.h"
#include "take_photo_command.h"
#include "vex_sys_event.h"

namespace QUEX::Tandra::RequestingTesting {
namespace {
using namespace std::chrono_literals;

AbilityInfo Ability(std::string bundle, std::string ability, std::string action, std::string type = TAKE_PHOTO_TYPE)
{
    return {std::move(bundle), std::move(ability), "entry", std::move(action), std::move(type)};
}

Json::Value ValidItem(const std::string& localBundle = APP_BUNDLE)
{
    Json::Value item(Json::objectValue);
    item["commandType"] = 1;
    item["isDual"] = false;
    Json::Value& local = item["localInfo"];
    local["localBundleName"] = localBundle;
    local["localAbilityName"] = "MainAbility";
    local["localDeviceId"] = "LOCALUDID0001";
    local["localModuleName"] = "entry";
    local["localDeviceType"] = 14;
    Json::Value& extra = item["extraData"];
    extra["peerBundleName"] = "com.peer.camera";
    extra["peerAbilityName"] = "CameraAbility";
    extra["peerAction"] = "peer.action.TakePhoto";
    extra["peerAbilityType"] = TAKE_PHOTO_TYPE;
    extra["chooseAbilityAtPeer"] = false;
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

class RequestTest : public RequestingDeviceTest {
protected:
    std::vector<std::shared_ptr<StartAbilityParam>> Create(const std::string& text)
    {
        std::vector<std::shared_ptr<StartAbilityParam>> params;
        for (const auto& command : process_->CreateCommand(text)) {
            auto takePhoto = std::dynamic_pointer_cast<TakePhotoCommand>(command);
            params.push_back(takePhoto != nullptr ? takePhoto->GetStartAbilityParam() : nullptr);
            EXPECT_NE(params.back(), nullptr);
        }
        return params;
    }
};

TEST_F(RequestTest, WrittenCommandTextReadsBackAsTheSameStartParameters)
{
    device_.RemovePeerDevice(peer_.networkId);
    device_.AddPeerDevice(peer_, {Ability("com.other.scanner", "ScanAbility", "scan", "tandra.CameraAbility.Scan"),
                                  Ability("com.peer.camera", "CameraAbility", "peer.action.TakePhoto")});
    Vex::sptr<LocalInfo> local = new LocalInfo(APP_BUNDLE, "MainAbility", "entry", "LOCALUDID0001", 0x0E);
    const std::string text =
        process_->GenerateTakePhotoReqCommand(peer_.udid, new AbilityFilter(TAKE_PHOTO_TYPE), local);

    auto params = Create(text);
    ASSERT_EQ(params.size(), 1u);
    const StartAbilityParam& param = *params[0];
    EXPECT_EQ(std::vector<std::string>({param.bundleName, param.abilityName, param.action, param.abilityType}),
              std::vector<std::string>({"com.peer.camera", "CameraAbility", "peer.action.TakePhoto", TAKE_PHOTO_TYPE}));
    EXPECT_TRUE(param.chooseAbilityAtPeer);
    EXPECT_EQ(std::vector<std::string>(
                  {param.localBundleName, param.localAbilityName, param.localModuleName, param.localDeviceId}),
              std::vector<std::string>({APP_BUNDLE, "MainAbility", "entry", "LOCALUDID0001"}));
    EXPECT_EQ(param.localDeviceType, 0x0E);
}

TEST_F(RequestTest, TextsThatAreNotAnArrayOfAtMost128ItemsYieldNothing)
{
    EXPECT_EQ(Create(Text(std::vector<Json::Value>(128, ValidItem()))).size(), 128u);
    EXPECT_TRUE(Create(Text(std::vector<Json::Value>(129, ValidItem()))).empty());
    const std::string nested = std::string(5000, '[') + std::string(5000, ']');
    for (const std::string& text : {std::string(), std::string("not json"), std::string("{\"commandType\": 1}"),
                                    std::string("[{\"commandType\": 1"), std::string("17"), nested}) {
        EXPECT_TRUE(Create(text).empty()) << text.substr(0, 40);
    }
}

// Each check of an item rejects it with its own message, and checks run in order: a row breaks
// its check and (for the parameter checks) every later one, and only its message appears.
TEST_F(RequestTest, ItemChecksRejectInOrder)
{
    const std::vector<std::string> messages = {"invalid commandItem param!",       "invalid commandItem inner param!",
                                               "invalid commandItem value param!", "invalid param!",
                                               "invalid peerBundleName param!",    "invalid peerAbilityName param!",
                                               "invalid localAbilityName param!",  "invalid localBundleName param!",
                                               "invalid localDeviceId param!",     "invalid localModuleName param!",
                                               "invalid localDeviceType param!"};
    using Mutation = std::function<void(Json::Value&)>;
    std::vector<std::pair<Mutation, size_t>> rows = {
        {[](Json::Value& item) { item = Json::Value("item"); }, 0},
        {[](Json::Value& item) { item = Json::Value(Json::arrayValue); }, 0},
        {[](Json::Value& item) { item.removeMember("commandType"); }, 1},
        {[](Json::Value& item) { item.removeMember("isDual"); }, 1},
        {[](Json::Value& item) { item.removeMember("localInfo"); }, 1},
        {[](Json::Value& item) { item.removeMember("extraData"), item["commandType"] = "1"; }, 1},
        {[](Json::Value& item) { item["commandType"] = "1"; }, 2},
        {[](Json::Value& item) { item["commandType"] = 1.5; }, 2},
        {[](Json::Value& item) { item["isDual"] = 0; }, 2}};
    const std::vector<Mutation> breakers = {
        [](Json::Value& item) { item["localInfo"] = Json::Value("not an object"); },
        [](Json::Value& item) { item["extraData"].removeMember("peerBundleName"); },
        [](Json::Value& item) { item["extraData"]["peerAbilityName"] = 7; },
        [](Json::Value& item) { item["localInfo"].removeMember("localAbilityName"); },
        [](Json::Value& item) { item["localInfo"]["localBundleName"] = Json::Value(Json::objectValue); },
        [](Json::Value& item) { item["localInfo"]["localDeviceId"] = true; },
        [](Json::Value& item) { item["localInfo"].removeMember("localModuleName"); },
        [](Json::Value& item) { item["localInfo"]["localDeviceType"] = 3.5; }};
    for (size_t first = 0; first < breakers.size(); ++first) {
        // From the last to the first, so that replacing localInfo comes after editing it.
        rows.emplace_back(
            [&breakers, first](Json::Value& item) {
                for (size_t i = breakers.size(); i-- > first;) {
                    breakers[i](item);
                }
            },
            3 + first);
    }
    for (const auto& [mutate, expected] : rows) {
        SCOPED_TRACE(messages[expected]);
        Json::Value item = ValidItem();
        mutate(item);
        Vex::LogCapture log;
        EXPECT_TRUE(Create(Text({item})).empty());
        for (size_t i = 0; i < messages.size(); ++i) {
            EXPECT_EQ(log.Contains(messages[i]), i == expected) << messages[i];
        }
    }
}

// The ability the command starts: the peer's choice unless it lets this side choose; an
// installed collaboration ability with the take-photo action wins; an old peer (no usable
// action) gets the camera's picker.
TEST_F(RequestTest, AbilityToStartFollowsPeerChoiceLocalListAndCollaborationAbility)
{
    const AbilityInfo localCamera = Ability("com.local.camera", "CaptureAbility", "local.capture");
    const AbilityInfo zenithpad =
        Ability("com.brindle.tarvex.zenithpad", "ServiceCollaborationAbility", TAKE_PHOTO_TYPE);
    const std::vector<std::string> peerChoice = {"com.peer.camera", "CameraAbility", "peer.action.TakePhoto"};
    const std::vector<std::string> local = {"com.local.camera", "CaptureAbility", "local.capture"};
    const std::vector<std::string> collaboration = {zenithpad.bundleName, zenithpad.abilityName, TAKE_PHOTO_TYPE};
    const std::vector<std::string> picker = {"com.brindle.tarvex.camera", "PickerAbility", TAKE_PHOTO_TYPE};
    auto keep = [](Json::Value&) {};
    auto chooseHere = [](Json::Value& extra) { extra["chooseAbilityAtPeer"] = true; };
    auto noAction = [](Json::Value& extra) { extra.removeMember("peerAction"); };
    struct Row {
        const char* name;
        std::vector<AbilityInfo> localAbilities;
        std::function<void(Json::Value& extra)> mutate;
        std::vector<std::string> expected;  // bundle, ability, action
    };
    const std::vector<Row> rows = {
        {"peer's choice kept over local ones", {localCamera}, keep, peerChoice},
        {"first local when the peer lets us choose",
         {Ability("com.local.scan", "Scan", "scan", "tandra.CameraAbility.Scan"), localCamera},
         chooseHere,
         local},
        {"collaboration ability over the first local", {localCamera, zenithpad}, chooseHere, collaboration},
        {"collaboration ability over the peer's choice", {zenithpad}, keep, collaboration},
        {"collaboration ability needs the take-photo action",
         {Ability(zenithpad.bundleName, zenithpad.abilityName, "other.action")},
         keep,
         peerChoice},
        {"old peer", {localCamera}, noAction, picker},
        {"action of another type: old peer", {}, [](Json::Value& extra) { extra["peerAction"] = 5; }, picker},
        {"old peer, collaboration ability installed", {zenithpad}, noAction, collaboration}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        device_.Env().SetLocalAbilities(row.localAbilities);
        Json::Value item = ValidItem();
        row.mutate(item["extraData"]);
        auto params = Create(Text({item}));
        ASSERT_EQ(params.size(), 1u);
        EXPECT_EQ(std::vector<std::string>({params[0]->bundleName, params[0]->abilityName, params[0]->action}),
                  row.expected);
    }
}

TEST_F(RequestTest, CallerAndPickerAreCheckedBeforeAnythingIsAsked)
{
    struct Row {
        const char* name;
        const char* foreground;
        const char* caller;  // the bundle of the caller's uid
        bool wifi;
        Vex::sptr<PickerResult> picker;
        Vex::sptr<Vex::IRemoteObject> callback;  // null: the application's own
        int32_t expected;
    };
    const char* app = APP_BUNDLE.c_str();
    // An object of the caller's, but not a collaboration callback.
    Vex::sptr<Vex::IRemoteObject> service;
    {
        Vex::ScopedIdentity as(APP_PID, APP_UID);
        service = new Vex::IPCObjectStub(u"quex.ITandra.ITandraService");
    }
    const Row rows[] = {{"another app in the foreground", "com.other.app", app, true, Picker(), nullptr, 1020},
                        {"foreground checked before Wi-Fi", "", app, false, Picker(), nullptr, 1020},
                        {"caller of no known bundle, nothing in the foreground", "", "", true, Picker(), nullptr, 1020},
                        {"Wi-Fi off", app, app, false, Picker(), nullptr, 2013},
                        {"no ability filter", app, app, true, Picker(false, true, true), nullptr, 1001},
                        {"no device", app, app, true, Picker(true, false, true), nullptr, 1001},
                        {"no local info", app, app, true, Picker(true, true, false), nullptr, 1001},
                        {"callback of another interface", app, app, true, Picker(), service, 1001}};
    for (const Row& row : rows) {
        device_.SetForegroundApp(row.foreground);
        device_.SetBundleName(APP_UID, row.caller);
        device_.Env().SetWifiState(row.wifi);
        EXPECT_EQ(Request(false, row.picker, row.callback), std::make_pair(row.expected, 0u)) << row.name;
    }
    EXPECT_TRUE(meshline_->Requests().empty());
    EXPECT_TRUE(device_.Peer().Sessions().empty());
}

// A second request for a peer that already has a collaboration joins it: the reply carries the
// running collaboration's id and nothing else happens: no second application for resources or
// state, no second session or command, and the running collaboration goes on to its end.
TEST_F(RequestTest, SecondRequestForThePeerJoinsTheRunningCollaboration)
{
    Collaboration collaboration = Start();
    ASSERT_TRUE(meshline_->WaitForActions());
    const size_t requests = meshline_->Requests().size();
    EXPECT_EQ(Request(true), std::make_pair(0, collaboration.id));
    EXPECT_EQ(meshline_->Requests().size(), requests);

    PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, 1));
    AwaitPhotoWait();
    PeerSends(collaboration, CameraMessage(CODE_LAST_PHOTO, 3, "abc"), true);
    Settle();
    EXPECT_EQ(device_.Peer().SessionsOpenedByDevice().size(), 1u);
    std::vector<uint32_t> heard;
    for (const AppCall& call : app_->Calls()) {
        heard.push_back(call.code);
        EXPECT_EQ(call.collaborationId, collaboration.id);
    }
    EXPECT_EQ(heard, (std::vector<uint32_t>{EVENT_PHOTO_COUNT, EVENT_LAST_PHOTO}));
    EXPECT_EQ(env_->bus_.Closes(), (std::vector<std::pair<int32_t, bool>>{{collaboration.sessionId, true}}));
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4, 1}));
}

// A control session that cannot be opened is reported with the peer's anonymised network id and
// the name the session was to have on both devices.
TEST_F(RequestTest, FailedSessionIsReportedUnderItsOwnName)
{
    Vex::SysEventCapture events;
    device_.Peer().FailSessionOpens(-7);
    auto [result, id] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(app_->Await(1));
    Settle();
    std::vector<Vex::SysEventRecord> reports;
    for (const auto& record : events.Records()) {
        if (record.func == "HandleSendTakePhotoReqError" && std::get<int32_t>(record.params.at(2).second) == 4 &&
            std::get<int32_t>(record.params.at(4).second) == 2) {
            reports.push_back(record);
        }
    }
    ASSERT_EQ(reports.size(), 1u);
    const std::string name = IdText(id) + "-" + peer_.networkId;
    std::map<std::string, Vex::SysEventValue> keys(reports[0].params.begin(), reports[0].params.end());
    EXPECT_EQ(std::get<std::string>(keys.at("LOCAL_SESS_NAME")), name);
    EXPECT_EQ(std::get<std::string>(keys.at("PEER_SESS_NAME")), name);
    EXPECT_EQ(std::get<std::string>(keys.at("PEER_NET_ID")), DfxHelper::GetAnonymousID(peer_.networkId));
    EXPECT_EQ(std::get<int32_t>(keys.at("ERROR_CODE")), -7);
}

// The reply does not wait for the peer: with the session's open held, the id is already known.
TEST_F(RequestTest, GrantedRequestRepliesFirstThenOpensTheSessionWithTheCommandText)
{
    device_.Peer().HoldSessionOpens();
    auto [result, id] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_NE(id, 0u);
    ASSERT_NE(process_->QueryCameraProcess(id), nullptr);
    EXPECT_EQ(process_->QueryCameraProcess(id)->GetStatus(), CameraProcessState::STATUS_WAITING);
    ASSERT_TRUE(device_.Peer().AwaitSessionOpenAttempts(1));
    EXPECT_EQ(PublishedStates(), std::vector<int32_t>{2});
    device_.Peer().ReleaseSessionOpens();
    ASSERT_TRUE(device_.Peer().AwaitSessionsOpened(1));

    const Testing::SessionRecord session = device_.Peer().SessionsOpenedByDevice().at(0);
    EXPECT_EQ(session.sessionName, IdText(id) + "-" + peer_.networkId);
    EXPECT_EQ(session.peerNetworkId, peer_.networkId);
    const auto command = Create(session.commandText);
    ASSERT_EQ(command.size(), 1u);
    EXPECT_EQ(command[0]->localBundleName, APP_BUNDLE);
    EXPECT_EQ(command[0]->localDeviceId, device_.Identity().udid);
    EXPECT_EQ(command[0]->bundleName, "com.peer.camera");
    EXPECT_EQ(command[0]->abilityName, "CameraAbility");
    // The application asked for the peer's camera (shared) and display, over a fast byte link.
    const auto resource = meshline_->Requests(Testing::APPLY_ADVANCED_RESOURCE).at(0).resource;
    ASSERT_EQ(resource.remote.size(), 2u);
    EXPECT_EQ(std::make_tuple(resource.remote[0].type, resource.remote[0].canShare, resource.remote[1].type,
                              resource.remote[1].canShare, resource.local.size()),
              std::make_tuple(1u, true, 4u, false, size_t{0}));
    const auto& link = resource.communication;
    EXPECT_EQ(std::make_tuple(link.minBandwidth, link.maxLatency, link.minLatency, link.maxWaitTime, link.maxBuffer,
                              link.dataType),
              std::make_tuple(0x1400000, 19000, 2000, 10, 0x8000000, std::string("DATA_TYPE_BYTES")));
    ASSERT_TRUE(meshline_->WaitForRequest(Testing::PUBLISH_SERVICE_STATE, 2).has_value());
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4}));
    EXPECT_TRUE(Vex::Clock::AwaitWaiters(1));
    EXPECT_EQ(process_->QuerySessionId(id), session.sessionId);
    EXPECT_TRUE(app_->Calls().empty());

    // The peer never answers: after exactly 180 s the application hears of it.
    Vex::Clock::Advance(180s - 1ms);
    EXPECT_FALSE(app_->Await(1, 1001202008, 0ms));
    Vex::Clock::Advance(1ms);
    ASSERT_TRUE(app_->Await(1, 1001202008));
    EXPECT_EQ(app_->Calls(101).at(0).collaborationId, id);
    EXPECT_EQ(app_->Calls(101).at(0).text, "errorcode");
}

class RequestDecisionTest : public RequestTest {
protected:
    RequestDecisionTest() { grant_ = false; }
};

// Anything but a grant for this peer and service within 15 s fails the request with 320003 (the
// service's own refusal passes unchanged) and undoes the disconnect subscription.
TEST_F(RequestDecisionTest, AnythingButAGrantFailsTheRequest)
{
    struct Row {
        const char* name;
        bool answer;
        const char* networkId;  // nullptr: the applicant's
        const char* service;    // nullptr: the applicant's
        int32_t serviceResult;
        int32_t applyResult;
        int32_t expected;
    };
    const Row rows[] = {{"refused", true, nullptr, nullptr, 320003, 0, 320003},
                        {"unknown result", true, nullptr, nullptr, 320002, 0, 320003},
                        {"grant for another service", true, nullptr, "OtherService", GRANTED, 0, 320003},
                        {"grant for another device", true, "OTHERNETWORKID", nullptr, GRANTED, 0, 320003},
                        {"no decision", false, nullptr, nullptr, 0, 0, 320003},
                        {"rejected by the service", false, nullptr, nullptr, 0, 1234, 1234}};
    const Row* current = nullptr;  // set between rows, read by the service's thread during one
    meshline_->OnRequest(Testing::APPLY_ADVANCED_RESOURCE, [this, &current](const Testing::RecordedRequest& r) {
        if (current->answer) {
            meshline_->CallApplyResult(r.callback, current->networkId ? current->networkId : r.strings.at(0),
                                       current->service ? current->service : r.strings.at(1), "", 0,
                                       current->serviceResult);
        }
    });
    Vex::Clock::UseScaledTime(1000);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        current = &row;
        meshline_->ClearRequests();
        meshline_->SetResult(Testing::APPLY_ADVANCED_RESOURCE, row.applyResult);
        EXPECT_EQ(Request(), std::make_pair(row.expected, 0u));
        auto unsubscribe = meshline_->WaitForRequest(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT);
        ASSERT_TRUE(unsubscribe.has_value());
        EXPECT_EQ(unsubscribe->strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK}));
        EXPECT_EQ(process_->QueryCameraProcess(peer_.networkId), nullptr);
        EXPECT_EQ(process_->QueryCurrentInfoByNetworkId(peer_.networkId), nullptr);
        ASSERT_TRUE(meshline_->WaitForActions());
    }
    EXPECT_TRUE(device_.Peer().Sessions().empty());
}

// One application per peer: a second request while the first is undecided fails; once it is
// granted, a later request joins its collaboration.
TEST_F(RequestDecisionTest, ConcurrentRequestsForOnePeer)
{
    auto first = std::async(std::launch::async, [this]() { return Request(); });
    auto apply = meshline_->WaitForRequest(Testing::APPLY_ADVANCED_RESOURCE);
    ASSERT_TRUE(apply.has_value());
    EXPECT_EQ(Request(), std::make_pair(1001, 0u));
    EXPECT_EQ(meshline_->RequestCount(Testing::APPLY_ADVANCED_RESOURCE), 1u);
    EXPECT_EQ(first.wait_for(0ms), std::future_status::timeout);

    EXPECT_EQ(meshline_->CallApplyResult(apply->callback, peer_.networkId, FRAMEWORK, "", 0, GRANTED).status, 0);
    ASSERT_EQ(first.wait_for(AWAIT), std::future_status::ready);
    auto [result, id] = first.get();
    ASSERT_EQ(result, 0);
    meshline_->AnswerApplyResource(GRANTED);
    EXPECT_EQ(Request(), std::make_pair(0, id));
}

}  // namespace
}  // namespace QUEX::Tandra::RequestingTesting
