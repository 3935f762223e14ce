// The take-photo command on the serving device: Execute's refusals, the pre-emption of a
// running collaboration and the wait for its release, the data channel's opening on a resource
// grant, and Release in each state the camera can be in.
#include "take_photo_command.h"

#include <atomic>
#include <future>
#include <map>

#include "dfx_helper.h"
#include "serving_fixture.h"

namespace QUEX::Tandra::Testing {
using namespace std::chrono_literals;

TEST_F(ServingDeviceTest, RefusedExecuteLeavesNothingBehind)
{
    // Wi-Fi off refuses before anything else; a failed start returns its own code.
    device_.Env().SetWifiState(false);
    int32_t result = 0;
    int32_t sessionId = OpenCollaboration(result);
    EXPECT_EQ(result, 2005);
    EXPECT_TRUE(meshline_->Requests().empty());
    EXPECT_TRUE(EventsOf("Execute").empty());
    device_.Env().SetWifiState(true);
    device_.Launcher().SetResult(4321);
    sessionId = OpenCollaboration(result, "00000000008-LOCALNETWORKID0001");
    EXPECT_EQ(result, 4321);
    EXPECT_TRUE(HasEvent("Execute", {3, 5, 2, 4321}));
    EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_NOTIFY_DISCONNECT) + meshline_->RequestCount(APPLY_ADVANCED_RESOURCE),
              0u);
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId), nullptr);
    EXPECT_EQ(device_.Launcher().StartCount(), 1u);
}

// A second requester arrives while a collaboration runs: the running one is told to its requester
// (1001201905) and to its camera application, and the new command waits for the service to be
// free (the old command's release, then a pause for the old camera to go) or 5 s.
class PreemptTest : public ServingDeviceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PreemptTest, WaitsForTheRunningCommandsRelease)
{
    const bool released = GetParam();
    // The connection manager tells its subscriber when a device publishes the service free.
    ScriptedMeshlineService* service = meshline_.GetRefPtr();
    meshline_->OnRequest(PUBLISH_SERVICE_STATE, [service](const RecordedRequest& publish) {
        if (publish.ints.at(0) == 1 && service->RequestCount(SUBSCRIBE_SERVICE_STATE) != 0) {
            auto subscriber = service->Requests(SUBSCRIBE_SERVICE_STATE).back().callback;
            service->CallServiceStateChanged(subscriber, "", publish.strings.at(1), "", 1, 0);
        }
    });
    int32_t first = OpenCollaborationWithChannel();
    int32_t second = Peer().OpenSessionToDevice(REQUESTER, "00000000008-LOCALNETWORKID0001", commandText_);
    auto subscription = meshline_->WaitForRequest(SUBSCRIBE_SERVICE_STATE);
    ASSERT_TRUE(subscription.has_value());
    ASSERT_TRUE(Peer().AwaitCondition([&] {
        return ControlCodes(first) == Codes{CODE_CAMERA_STARTED, CODE_DISCONNECTED_BEFORE_SEND};
    }));
    EXPECT_EQ(app_->Events(1), std::vector<CameraApp::Event>({{CALLBACK_CANCEL, CODE_LOCAL_TAKE_PHOTO_CANCELLED}}));
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    // Notices that do not free this service leave the wait alone.
    meshline_->CallServiceStateChanged(subscription->callback, "", "Tandra", "", 4, 0);
    meshline_->CallServiceStateChanged(subscription->callback, "", "Tandra2", "", 1, 0);
    int32_t result = -1;
    EXPECT_FALSE(Peer().AwaitOpenResult(second, result, 0ms));
    if (released) {
        ASSERT_TRUE(Peer().AwaitDelivered(Peer().CloseSession(first)));
        ASSERT_TRUE(meshline_->WaitForRequest(UNSUBSCRIBE_SERVICE_STATE).has_value());
        ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
        EXPECT_FALSE(Peer().AwaitOpenResult(second, result, 0ms));
        Vex::Clock::Advance(500ms);
    } else {
        Vex::Clock::Advance(5s - 1ms);
        EXPECT_FALSE(Peer().AwaitOpenResult(second, result, 0ms));
        Vex::Clock::Advance(1ms);
    }
    ASSERT_TRUE(Peer().AwaitOpenResult(second, result));
    EXPECT_EQ(result, released ? 0 : 2010);
    EXPECT_EQ(device_.Launcher().StartCount(), released ? 2u : 1u);
    // Granted or not, the new command stops listening to service states.
    EXPECT_EQ(meshline_->RequestCount(UNSUBSCRIBE_SERVICE_STATE), 1u);
    EXPECT_TRUE(released || HasEvent("Execute", {3, 6, 2, 2010}));
    EXPECT_TRUE(!released || Peer().AwaitChannelsOpened(2));

    // Once both collaborations are over, nothing of either is left: no context, no channel id,
    // no current task, and every subscription made is undone.
    ASSERT_TRUE(Peer().AwaitDelivered(Peer().CloseSession(released ? second : first)));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    ASSERT_TRUE(meshline_->WaitForActions());
    auto process = CameraAbilityProcess::GetInstance();
    EXPECT_TRUE(process->GetAllPutPhotoContexts().empty());
    EXPECT_EQ(process->QueryDataChannelId(first), -1);
    EXPECT_EQ(process->QueryDataChannelId(second), -1);
    EXPECT_EQ(process->GetCollaborationDataInfo(), (std::pair<int32_t, std::string>{0, ""}));
    EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_SERVICE_STATE), meshline_->RequestCount(UNSUBSCRIBE_SERVICE_STATE));
    EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_NOTIFY_DISCONNECT),
              meshline_->RequestCount(UNSUBSCRIBE_NOTIFY_DISCONNECT));
    EXPECT_EQ(Vex::Clock::WaitingCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(FirstReleased, PreemptTest, ::testing::Bool());

// A current task whose record is gone cannot be pre-empted (22): the refused command leaves
// neither its context nor its service-state subscription behind.
TEST_F(ServingDeviceTest, PreemptionOfATaskWithoutRecordLeavesNothingBehind)
{
    auto process = CameraAbilityProcess::GetInstance();
    process->SetCollaborationDataInfo(99, "com.gone.camera");
    int32_t result = -1;
    int32_t sessionId = OpenCollaboration(result);
    EXPECT_EQ(result, 22);
    ASSERT_TRUE(meshline_->WaitForActions());
    EXPECT_EQ(process->QueryPutPhotoContext(sessionId), nullptr);
    EXPECT_TRUE(process->GetAllPutPhotoContexts().empty());
    EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_SERVICE_STATE), 1u);
    EXPECT_EQ(meshline_->RequestCount(UNSUBSCRIBE_SERVICE_STATE), 1u);
    EXPECT_EQ(device_.Launcher().StartCount(), 0u);
    // The task it found is not its own to clear.
    EXPECT_EQ(process->GetCollaborationDataInfo(), (std::pair<int32_t, std::string>{99, "com.gone.camera"}));
    process->ClearCollaborationDataInfo();
}

// The behaviour events of the serving side name the requester by its network id, not by the
// UDID its command carries, and the session by the name it was opened with; the failed
// pre-emption and the failed start carry the common keys only.
TEST_F(ServingDeviceTest, EventsNameTheRequestersNetworkIdAndSession)
{
    const std::string udid = "REQUESTERUDID9999";
    for (size_t at = commandText_.find(REQUESTER_UDID); at != std::string::npos;
         at = commandText_.find(REQUESTER_UDID)) {
        commandText_.replace(at, REQUESTER_UDID.size(), udid);
    }
    int32_t sessionId = OpenCollaborationWithChannel();
    const std::string name = "00000000007-LOCALNETWORKID0001";
    auto keysOf = [this](const std::string& func, int32_t stage, int32_t res) {
        std::vector<std::map<std::string, Vex::SysEventValue>> found;
        for (const auto& record : events_.Records()) {
            std::map<std::string, Vex::SysEventValue> keys(record.params.begin(), record.params.end());
            if (record.func == func && std::get<int32_t>(keys.at("BIZ_STAGE")) == stage &&
                std::get<int32_t>(keys.at("STAGE_RES")) == res) {
                found.push_back(keys);
            }
        }
        return found;
    };
    auto opened = keysOf("OpenChannel", 7, 1);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(std::get<std::string>(opened[0].at("PEER_NET_ID")), DfxHelper::GetAnonymousID(REQUESTER));
    EXPECT_NE(DfxHelper::GetAnonymousID(REQUESTER), DfxHelper::GetAnonymousID(udid));
    EXPECT_EQ(std::get<std::string>(opened[0].at("LOCAL_SESS_NAME")), name);
    EXPECT_EQ(std::get<std::string>(opened[0].at("PEER_SESS_NAME")), name);

    // A second requester: pre-empting a task without record fails, then a start fails.
    auto process = CameraAbilityProcess::GetInstance();
    ASSERT_TRUE(Peer().AwaitDelivered(Peer().CloseSession(sessionId)));
    process->SetCollaborationDataInfo(99, "com.gone.camera");
    int32_t result = -1;
    OpenCollaboration(result, "00000000008-LOCALNETWORKID0001");
    EXPECT_EQ(result, 22);
    process->ClearCollaborationDataInfo();
    device_.Launcher().SetResult(4321);
    OpenCollaboration(result, "00000000009-LOCALNETWORKID0001");
    EXPECT_EQ(result, 4321);
    const size_t common = 12;
    for (const auto& [stage, error] : {std::make_pair(6, 22), std::make_pair(5, 4321)}) {
        auto failed = keysOf("Execute", stage, 2);
        ASSERT_EQ(failed.size(), 1u) << stage;
        EXPECT_EQ(failed[0].size(), common) << stage;
        EXPECT_EQ(std::get<int32_t>(failed[0].at("ERROR_CODE")), error);
    }
}

// The requester's session ends just as the data channel opens: the channel is closed, no id of
// it stays registered, and the last state published is free. Either the release lands while the
// opening records the channel, or the link is already gone when the opening looks for the
// session and the release follows.
class ReleaseWhileOpeningTest : public ServingDeviceTest, public ::testing::WithParamInterface<bool> {};

// A bus whose control sessions are already gone when a channel opening asks for them.
struct LinkLostEnv : DeviceEnvWrapper {
    struct Bus : ScriptedPeer {
        bool HasCtrlSession(int32_t) override { return false; }
    } bus;
    using DeviceEnvWrapper::DeviceEnvWrapper;
    SoftBus& GetSoftBus() override { return bus; }
};

TEST_P(ReleaseWhileOpeningTest, ChannelOpenedAroundTheReleaseIsClosed)
{
    const bool linkLost = GetParam();
    std::shared_ptr<LinkLostEnv> env;
    if (linkLost) {
        env = std::make_shared<LinkLostEnv>(device_.EnvPtr());
        bus_ = &env->bus;
        DeviceContext::Get().InstallEnv(env);
    }
    meshline_->AnswerApplyResource(GRANTED);
    std::atomic<int32_t> sessionId{-1};
    std::atomic<bool> fired{false};
    ScriptedMeshlineService* service = meshline_.GetRefPtr();
    ScriptedPeer* bus = &Peer();
    if (!linkLost) {
        // The release comes while the opening tells the connection manager that the channel is up.
        meshline_->SetReplyWriter(PUBLISH_SERVICE_STATE, [&, service, bus](Vex::MessageParcel& reply) {
            auto published = service->Requests(PUBLISH_SERVICE_STATE);
            if (!published.empty() && published.back().ints.at(0) == 4 && !fired.exchange(true)) {
                bus->CloseSession(sessionId.load());
                EXPECT_TRUE(bus->AwaitChannelClosedByDevice(bus->Channels().at(0).channelId));
            }
            reply.WriteInt32(0);
        });
    }
    int32_t result = -1;
    sessionId = bus->OpenSessionToDevice(REQUESTER, "00000000007-LOCALNETWORKID0001", commandText_);
    ASSERT_TRUE(bus->AwaitOpenResult(sessionId, result));
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(bus->AwaitChannelsOpened(1));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    if (linkLost) {
        ASSERT_TRUE(bus->AwaitDelivered(bus->CloseSession(sessionId)));
    }
    ASSERT_TRUE(bus->AwaitIdle());
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    ASSERT_TRUE(meshline_->WaitForActions());
    auto process = CameraAbilityProcess::GetInstance();
    EXPECT_TRUE(process->GetAllPutPhotoContexts().empty());
    EXPECT_EQ(process->QueryDataChannelId(sessionId), -1);
    EXPECT_EQ(bus->ChannelsClosedByDevice(), std::vector<int32_t>{bus->Channels().at(0).channelId});
    auto published = meshline_->Requests(PUBLISH_SERVICE_STATE);
    ASSERT_FALSE(published.empty());
    EXPECT_EQ(published.back().ints, std::vector<int32_t>{1});
    meshline_->SetReplyWriter(PUBLISH_SERVICE_STATE, nullptr);
}

INSTANTIATE_TEST_SUITE_P(LinkLost, ReleaseWhileOpeningTest, ::testing::Bool());

// OpenChannel called as the command's worker calls it, for a command of session 77.
class ChannelTest : public ServingDeviceTest, public ::testing::WithParamInterface<int> {
protected:
    // Answers every resource application with (applicant, service, code); null: this command's.
    void AnswerApply(const char* applicant, std::string service, int32_t code, bool cameraEnds = false)
    {
        ScriptedMeshlineService* meshline = meshline_.GetRefPtr();
        meshline_->OnRequest(APPLY_ADVANCED_RESOURCE, [=, context = context_](const RecordedRequest& apply) {
            if (cameraEnds) {
                context->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED);
            }
            meshline->CallApplyResult(apply.callback, applicant ? applicant : apply.strings.at(0), service, "", 0,
                                      code);
        });
    }
    int32_t OpenChannel()
    {
        auto param = std::make_shared<StartAbilityParam>();
        param->bundleName = CAMERA_BUNDLE;
        param->localDeviceId = REQUESTER;
        return std::make_shared<TakePhotoCommand>(param)->OpenChannel(context_);
    }

    std::shared_ptr<PutPhotoContext> context_ = std::make_shared<PutPhotoContext>(77);
};

struct GrantCase {
    const char* name;
    int32_t answer;         // 0: no answer at all
    const char* applicant;  // of the answer, null: this command
    const char* service;
    int32_t result;   // 320003 after the whole 15 s wait, unless refused
    bool cameraEnds;  // while the grant is on its way
};

const GrantCase GRANT_CASES[] = {
    {"Granted", GRANTED, nullptr, "Tandra", 0, false},
    {"Refused", 320003, nullptr, "Tandra", 320003, false},
    {"Silence", 0, nullptr, "", 320003, false},
    {"OtherDevice", GRANTED, "PEERNETWORKID0002", "Tandra", 320003, false},
    {"OtherService", GRANTED, nullptr, "Tandr", 320003, false},
    {"NoApplicant", GRANTED, "", "Tandra", 320003, false},
    {"CameraClosedWhileOpening", GRANTED, nullptr, "Tandra", 2011, true},  // the new channel is closed
};

class GrantTest : public ChannelTest {};

TEST_P(GrantTest, OpensTheChannelOnlyOnThisCommandsGrant)
{
    const GrantCase& c = GRANT_CASES[GetParam()];
    if (c.answer != 0) {
        AnswerApply(c.applicant, c.service, c.answer, c.cameraEnds);
    }
    auto opening = std::async(std::launch::async, [this] { return OpenChannel(); });
    auto apply = meshline_->WaitForRequest(APPLY_ADVANCED_RESOURCE);
    ASSERT_TRUE(apply.has_value());
    EXPECT_EQ(apply->strings, std::vector<std::string>({REQUESTER, "Tandra"}));
    if (c.result == 320003 && c.answer != 320003) {
        ASSERT_TRUE(meshline_->WaitForActions());
        ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
        Vex::Clock::Advance(15s - 1ms);
        EXPECT_EQ(opening.wait_for(0s), std::future_status::timeout);
        Vex::Clock::Advance(1ms);
    }
    ASSERT_EQ(opening.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(opening.get(), c.result);
    std::vector<ChannelRecord> channels = Peer().Channels();
    ASSERT_EQ(channels.size(), c.result == 320003 ? 0u : 1u);
    EXPECT_EQ(Peer().ChannelsClosedByDevice(),
              c.cameraEnds ? std::vector{channels[0].channelId} : std::vector<int32_t>{});
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryDataChannelId(77), c.result == 0 ? channels[0].channelId : -1);
    auto published = meshline_->Requests(PUBLISH_SERVICE_STATE);
    ASSERT_EQ(published.size(), c.result == 0 ? 1u : 0u);
    if (c.result == 0) {
        EXPECT_EQ(channels[0].peerDeviceId, REQUESTER);
        EXPECT_EQ(channels[0].attr.dataType, TYPE_BYTES);
        EXPECT_EQ(channels[0].attr.linkTypeNum, 9);
        EXPECT_EQ(published[0].ints, std::vector<int32_t>({4}));
    } else if (c.result == 320003) {
        EXPECT_TRUE(HasEvent("IniandApplytResource", {3, 7, 2, 320003}));
    }
}

INSTANTIATE_TEST_SUITE_P(Answers, GrantTest, ::testing::Range(0, 7),
                         [](const auto& info) { return std::string(GRANT_CASES[info.param].name); });

TEST_F(ChannelTest, FailedOpenIsReportedAndWakesSendersAtOnce)
{
    Peer().FailChannelOpens(-5);
    meshline_->AnswerApplyResource(GRANTED);
    auto sender = std::async(std::launch::async, [this] {
        CameraMsgHeader header{CODE_PHOTO_COUNT, 1};
        return CameraAbilityProcess::GetInstance()->SendMsgHeaderByDataChannel(context_, header);
    });
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    EXPECT_EQ(OpenChannel(), -5);
    ASSERT_EQ(sender.wait_for(5s), std::future_status::ready);  // with no clock advance
    EXPECT_EQ(sender.get(), -5);
    EXPECT_EQ(context_->GetTransmitChanelStatus(), std::make_pair(-1, -5));
    EXPECT_TRUE(HasEvent("OpenChannel", {3, 7, 2, 5}));
    EXPECT_EQ(meshline_->RequestCount(PUBLISH_SERVICE_STATE), 0u);
}

// Release when the requester closes the session, by camera status.
enum Camera { RUNNING, NEVER_SUBSCRIBED, PUTTING, PUTTING_OPEN_FAILED, PUTTING_UNGRANTED, ENDED, CANCELLED };

struct ReleaseCase {
    const char* name;
    Camera camera;
    std::vector<int32_t> report;  // the release's event (scene, stage, result, error, state), empty: none
    bool cancelToApp;
    bool channelOpened;
    friend void PrintTo(const ReleaseCase& c, std::ostream* os) { *os << c.name; }
};

const ReleaseCase RELEASE_CASES[] = {
    {"RunningAlive", RUNNING, {3, 8, 3, 0, 2}, true, true},
    {"RunningDead", NEVER_SUBSCRIBED, {3, 8, 2, 461440992, 2}, false, true},
    {"PuttingOpen", PUTTING, {}, false, true},
    {"PuttingFailed", PUTTING_OPEN_FAILED, {}, false, false},
    {"PuttingUnsettled", PUTTING_UNGRANTED, {5, 9, 3, 0, 2}, false, false},
    {"Ended", ENDED, {}, false, true},
    {"RemoteCancelled", CANCELLED, {}, false, true},
};

class ReleaseTest : public ServingDeviceTest, public ::testing::WithParamInterface<ReleaseCase> {};

TEST_P(ReleaseTest, ReportsAndTakesDown)
{
    const ReleaseCase& c = GetParam();
    Peer().FailChannelOpens(c.camera == PUTTING_OPEN_FAILED ? -5 : 0);
    if (c.camera != PUTTING_UNGRANTED) {
        meshline_->AnswerApplyResource(GRANTED);
    }
    int32_t result = -1;
    int32_t sessionId = OpenCollaboration(result);
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(meshline_->WaitForRequest(APPLY_ADVANCED_RESOURCE).has_value());
    ASSERT_TRUE(c.camera == PUTTING_UNGRANTED || AsynThreadPool::WaitIdle());
    if (c.camera != NEVER_SUBSCRIBED) {
        app_->Subscribe();
    }
    auto context = CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId);
    if (c.camera == PUTTING || c.camera == PUTTING_OPEN_FAILED || c.camera == PUTTING_UNGRANTED) {
        PhotoFiles photo({256});
        EXPECT_EQ(app_->PutImage(sessionId, 0, 1, photo.fds), 0);
        ASSERT_EQ(app_->Events(1).size(), 1u);  // told at once that its photos are taken over
    } else if (c.camera == ENDED || c.camera == CANCELLED) {
        context->ChangeCameraStatus(c.camera == ENDED ? PutPhotoContext::CAMERA_ENDED
                                                      : PutPhotoContext::CAMERA_REMOTE_CANCELLED);
    }
    ASSERT_TRUE(c.camera == PUTTING_UNGRANTED || AsynThreadPool::WaitIdle());
    std::vector<ChannelRecord> channels = Peer().Channels();

    ASSERT_TRUE(Peer().AwaitDelivered(Peer().CloseSession(sessionId)));
    EXPECT_EQ(EventsOf("RecordCommandReleaseResult"), c.report.empty() ? Rows{} : Rows{c.report});
    auto heard = app_->Events();
    const CameraApp::Event cancel(CALLBACK_CANCEL, CODE_LOCAL_TAKE_PHOTO_CANCELLED);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), cancel), c.cancelToApp ? 1 : 0);
    if (c.camera == PUTTING_UNGRANTED) {
        // The opening still waits for its grant; it runs out and opens nothing.
        ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
        Vex::Clock::Advance(15s);
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        EXPECT_TRUE(Peer().Channels().empty());
    }
    ExpectReleased(sessionId,
                   c.channelOpened ? std::vector<int32_t>{channels.at(0).channelId} : std::vector<int32_t>{});
}

INSTANTIATE_TEST_SUITE_P(CameraStatus, ReleaseTest, ::testing::ValuesIn(RELEASE_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace QUEX::Tandra::Testing
