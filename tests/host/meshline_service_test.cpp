// The connection-management service through the plugin's own client: decisions on resource
// applications (grant, refusal, pre-emption), service-state publication, disconnect notices,
// device tasks and conflict checks, and the release of everything a client held when it dies.
// Clients are in-process "processes" (their own pids); the service is one more.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"
#include "ipc_skeleton.h"
#include "meshline_service.h"
#include "vex_clock.h"

namespace QUEX::Tandra::Testing {
namespace {

constexpr int32_t CLIENT_A = 5001;
constexpr int32_t CLIENT_B = 5002;
constexpr int32_t CLIENT_UID = 20010001;
const std::string PEER = "peer-net";
const std::string PEER_UDID = "peer-udid";
const std::string OTHER_PEER = "other-net";
const std::string GRANTED = "granted|0|1004720001";
const std::string REFUSED = "|0|1004720002";

MeshlineManager& Manager()
{
    return MeshlineManager::GetInstance();
}

class Links : public LinkStatus {
public:
    bool CanCarry(const std::string& deviceId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return cannotCarry_.count(deviceId) == 0;
    }
    void Refuse(const std::string& deviceId)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        cannotCarry_.insert(deviceId);
    }

private:
    std::mutex mutex_;
    std::set<std::string> cannotCarry_;
};

// Records state notices too.
class Callback : public RecordingCallback {
public:
    int32_t StateNotify(int32_t state, std::vector<uint32_t> ids, std::vector<sptr<ServiceStateInfo>> infos) override
    {
        std::string text = "StateNotify " + std::to_string(state);
        for (uint32_t id : ids) {
            text += "|" + std::to_string(id);
        }
        for (const auto& info : infos) {
            text += "|" + Join(info->GetDeviceId(), info->GetLinkType(), info->GetConnectState());
        }
        return RecordingCallback::OnEvent(0, 0, text);
    }
};

// A client process: its pid and its callback object (owned by that pid).
struct Client {
    int32_t pid;
    sptr<Callback> callback;

    template <typename F>
    auto Do(F f) const
    {
        Vex::ScopedIdentity as(pid, CLIENT_UID);
        return f();
    }
    int32_t Apply(const std::string& device, sptr<ResourceRequest> request = nullptr) const
    {
        return Do([&]() {
            return Manager().ApplyAdvancedResource(device, "Tandra", request != nullptr ? request : CameraRequest(),
                                                   callback);
        });
    }
    int32_t Subscribe(const std::string& device) const
    {
        return Do([&]() { return Manager().SubscribeNotifyDisconnect(device, "Tandra", "disconnect", callback); });
    }
    int32_t Publish(const std::string& device, int32_t state) const
    {
        return Do([&]() { return Manager().PublishServiceState(device, "Tandra", "", state); });
    }
    static sptr<ResourceRequest> CameraRequest(bool shareDisplay = false)
    {
        sptr<ResourceRequest> request = new ResourceRequest();
        request->SetCommunicationRequest(new CommunicationRequest(0x1400000, 19000, 2000, 10, 0x8000000));
        request->SetRemoteHardwareList(
            {new HardwareRequest(HardwareType::CAMERA, true), new HardwareRequest(HardwareType::DISPLAY, shareDisplay)});
        return request;
    }
};

using Calls = std::vector<std::string>;

class MeshlineServiceTest : public InnerkitsTest {
public:
    void SetUp() override
    {
        InnerkitsTest::SetUp();
        links_ = std::make_shared<Links>();
        Vex::ScopedIdentity asService(SERVICE_PID, SERVICE_UID);
        meshline_ = MeshlineService::Create(links_);
        ASSERT_TRUE(meshline_->Register());
    }
    void TearDown() override
    {
        meshline_->Stop();
        meshline_->Unregister();
        Vex::Clock::UseRealTime();
        InnerkitsTest::TearDown();
        for (int32_t pid : {CLIENT_A, CLIENT_B}) {
            Vex::ProcessRegistry::Get().Revive(pid);
        }
    }
    Client MakeClient(int32_t pid)
    {
        Vex::ScopedIdentity as(pid, CLIENT_UID);
        return {pid, new Callback()};
    }
    std::vector<std::string> CallsOf(const Client& client)
    {
        EXPECT_TRUE(meshline_->WaitIdle());
        return client.callback->Calls();
    }
    void Kill(int32_t pid)
    {
        Vex::ProcessRegistry::Get().DeclareDead(pid);
        ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
        ASSERT_TRUE(meshline_->WaitIdle());
    }

    std::shared_ptr<Links> links_;
    sptr<MeshlineService> meshline_;
};


// Decisions that need no waiting: the applicant's calls after one scenario.
struct DecisionCase {
    const char* name;
    std::function<void(MeshlineServiceTest&, const Client& holder, const Client& applicant)> before;
    std::function<int32_t(const Client& applicant)> apply;
    Calls applicantCalls;
    size_t grants;
};

std::string Apply(const std::string& device, const std::string& outcome)
{
    return "ApplyResult " + device + "|Tandra|" + outcome;
}

// clang-format off
const DecisionCase DECISIONS[] = {
    {"FreeLink", [](auto&, auto&, auto&) {}, [](auto& c) { return c.Apply(PEER); },
     {Apply(PEER, GRANTED)}, 1},
    {"LinkCannotCarry", [](MeshlineServiceTest& t, auto&, auto&) { t.links_->Refuse(PEER); },
     [](auto& c) { return c.Apply(PEER); }, {Apply(PEER, "link cannot carry" + REFUSED)}, 0},
    {"WifiOff", [](MeshlineServiceTest& t, auto&, auto&) { t.meshline_->NotifyWifiState(false); },
     [](auto& c) { return c.Apply(PEER); }, {Apply(PEER, "wifi off" + REFUSED)}, 0},
    {"BusyLinkHolderCannotBeToldToLeave", [](auto&, auto& holder, auto&) { holder.Apply(PEER); },
     [](auto& c) { return c.Apply(PEER); }, {Apply(PEER, "link busy" + REFUSED)}, 1},
    {"HolderAppliesAgainAndJoins", [](auto&, auto&, auto& applicant) { applicant.Apply(PEER); },
     [](auto& c) { return c.Apply(PEER); }, {Apply(PEER, GRANTED), Apply(PEER, GRANTED)}, 1},
    {"OtherLink", [](auto&, auto& holder, auto&) { holder.Apply(PEER); },
     [](auto& c) { return c.Apply(OTHER_PEER); }, {Apply(OTHER_PEER, GRANTED)}, 2},
    {"LinkFreedByItsHolder", [](auto&, auto& holder, auto&) { holder.Apply(PEER); holder.Publish(PEER, 1); },
     [](auto& c) { return c.Apply(PEER); }, {Apply(PEER, GRANTED)}, 1},
    {"LocalHardwareNotShared",
     [](auto&, auto& holder, auto&) {
         sptr<ResourceRequest> request = Client::CameraRequest();
         request->SetLocalHardwareList({new HardwareRequest(HardwareType::DISPLAY, false)});
         holder.Apply(OTHER_PEER, request);
     },
     [](auto& c) {
         sptr<ResourceRequest> request = Client::CameraRequest();
         request->SetLocalHardwareList({new HardwareRequest(HardwareType::DISPLAY, true)});
         return c.Apply(PEER, request);
     },
     {Apply(PEER, "link busy" + REFUSED)}, 1},
};
// clang-format on

class DecisionTest : public MeshlineServiceTest, public ::testing::WithParamInterface<DecisionCase> {};

TEST_P(DecisionTest, ApplicantHearsTheDecision)
{
    const DecisionCase& row = GetParam();
    Client holder = MakeClient(CLIENT_A);
    Client applicant = MakeClient(CLIENT_B);
    row.before(*this, holder, applicant);
    ASSERT_TRUE(meshline_->WaitIdle());
    EXPECT_EQ(row.apply(applicant), 0);
    EXPECT_EQ(CallsOf(applicant), row.applicantCalls);
    EXPECT_EQ(meshline_->GetCounts().grants, row.grants);
    EXPECT_EQ(meshline_->GetCounts().pendingApplications, 0u);
}

INSTANTIATE_TEST_SUITE_P(Meshline, DecisionTest, ::testing::ValuesIn(DECISIONS),
                         [](const auto& info) { return std::string(info.param.name); });

// A holder that listens for disconnect notices is asked to give way; the applicant is granted
// once it publishes that its service is free, or refused when it does not within the wait.
TEST_F(MeshlineServiceTest, PreemptionWaitsForTheHolderToGiveWay)
{
    Vex::Clock::UseSimulatedTime();
    for (bool givesWay : {true, false}) {
        SCOPED_TRACE(givesWay ? "gives way" : "holds on");
        Client holder = MakeClient(CLIENT_A);
        Client applicant = MakeClient(CLIENT_B);
        ASSERT_EQ(holder.Subscribe(PEER), 0);
        ASSERT_EQ(holder.Apply(PEER), 0);
        ASSERT_EQ(applicant.Apply(PEER), 0);
        EXPECT_EQ(CallsOf(holder), (Calls{Apply(PEER, GRANTED), "OnDisconnected Tandra|2",
                                        "OnDisconnected " + PEER + "|disconnect"}));
        EXPECT_EQ(CallsOf(applicant), Calls{});
        ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
        if (givesWay) {
            Vex::Clock::Advance(MeshlineService::PREEMPT_WAIT - std::chrono::milliseconds(1));
            EXPECT_EQ(holder.Publish(PEER, 1), 0);
            EXPECT_EQ(CallsOf(applicant), Calls{Apply(PEER, "granted after pre-emption|0|1004720001")});
        } else {
            Vex::Clock::Advance(MeshlineService::PREEMPT_WAIT);
            EXPECT_EQ(CallsOf(applicant),
                      Calls{Apply(PEER, "the collaboration holding the link did not give way" + REFUSED)});
            // A later applicant asks the holder again.
            ASSERT_EQ(applicant.Apply(PEER), 0);
            EXPECT_EQ(CallsOf(holder).size(), 5u);
            ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
            Vex::Clock::Advance(MeshlineService::PREEMPT_WAIT);
            EXPECT_EQ(CallsOf(applicant).size(), 2u);
        }
        EXPECT_EQ(meshline_->GetCounts().grants, 1u);
        EXPECT_EQ(meshline_->GetCounts().pendingApplications, 0u);
        Kill(CLIENT_A);
        Kill(CLIENT_B);
        EXPECT_EQ(meshline_->ActiveTaskCount() + meshline_->SubscriberCount() + meshline_->CallbackCount(), 0u);
        Vex::ProcessRegistry::Get().Revive(CLIENT_A);
        Vex::ProcessRegistry::Get().Revive(CLIENT_B);
    }
}

TEST_F(MeshlineServiceTest, PublishedStatesReachEverySubscriberAndFreeEndsTheGrant)
{
    Client publisher = MakeClient(CLIENT_A);
    Client subscriber = MakeClient(CLIENT_B);
    ASSERT_EQ(subscriber.Do([&]() { return Manager().SubscribeServiceState(subscriber.callback); }), 0);
    ASSERT_EQ(publisher.Apply(PEER), 0);
    EXPECT_EQ(publisher.Do([&]() { return Manager().PublishServiceState(PEER, "Tandra", "extra", 4); }), 0);
    EXPECT_EQ(publisher.Publish(PEER, 1), 0);
    EXPECT_EQ(CallsOf(subscriber), (Calls{"OnServiceStateChanged " + Join(PEER, "Tandra", "extra", 4, CLIENT_A),
                                        "OnServiceStateChanged " + Join(PEER, "Tandra", "", 1, CLIENT_A)}));
    EXPECT_EQ(meshline_->GetCounts().grants, 0u);
    EXPECT_EQ(meshline_->GetCounts().serviceStates, 0u);

    // Unsubscribed, it hears nothing more; a second unsubscribe finds nothing.
    EXPECT_EQ(subscriber.Do([]() { return Manager().UnSubscribeServiceStateWithPid(); }),
              std::make_pair(0, CLIENT_B));
    EXPECT_EQ(subscriber.Do([]() { return Manager().UnSubscribeServiceState(); }), MeshlineResult::NOT_FOUND);
    EXPECT_EQ(publisher.Publish(PEER, 2), 0);
    EXPECT_EQ(CallsOf(subscriber).size(), 2u);
}

// A lost peer ends what names it by either of its ids, and nothing else.
TEST_F(MeshlineServiceTest, PeerLostReachesItsDisconnectSubscribersAndEndsItsGrants)
{
    Vex::Clock::UseSimulatedTime();
    Client requester = MakeClient(CLIENT_A);
    Client server = MakeClient(CLIENT_B);
    ASSERT_EQ(requester.Subscribe(PEER), 0);
    ASSERT_EQ(requester.Subscribe(OTHER_PEER), 0);
    ASSERT_EQ(requester.Apply(PEER), 0);
    ASSERT_EQ(server.Subscribe(PEER_UDID), 0);
    ASSERT_EQ(server.Apply(PEER_UDID), 0);
    Client waiting = MakeClient(CLIENT_B);
    ASSERT_EQ(waiting.Apply(PEER), 0);  // pre-empting the requester
    ASSERT_TRUE(meshline_->WaitIdle());

    meshline_->NotifyPeerLost(PEER, PEER_UDID);
    EXPECT_EQ(CallsOf(requester), (Calls{Apply(PEER, GRANTED), "OnDisconnected Tandra|2",
                                       "OnDisconnected " + PEER + "|disconnect", "OnDisconnected Tandra|1",
                                       "OnDisconnected " + PEER + "|disconnect"}));
    EXPECT_EQ(CallsOf(server), (Calls{Apply(PEER_UDID, GRANTED), "OnDisconnected Tandra|1",
                                    "OnDisconnected " + PEER_UDID + "|disconnect"}));
    EXPECT_EQ(CallsOf(waiting), Calls{Apply(PEER, "peer lost" + REFUSED)});
    EXPECT_EQ(meshline_->GetCounts().grants, 0u);
    EXPECT_EQ(meshline_->GetCounts().disconnectSubscriptions, 3u);  // the link may come back
}

TEST_F(MeshlineServiceTest, DeviceTasksAreNotifiedCheckedAndDisconnected)
{
    Client reporter = MakeClient(CLIENT_A);
    Client watcher = MakeClient(CLIENT_B);
    ASSERT_EQ(watcher.Do([&]() { return Manager().RegisterDeviceStateSubscriber(watcher.callback); }), 0);
    ASSERT_EQ(reporter.Do([&]() { return Manager().RegisterDeviceStateManagerCallback(PEER, 7, reporter.callback); }),
              0);
    ASSERT_EQ(reporter.Do([&]() { return Manager().NotifyDeviceConnectState(PEER, 7, new ServiceStateInfo("", 2, 3)); }),
              0);
    EXPECT_EQ(watcher.Do([]() { return Manager().NotifyAllState(); }), 0);

    std::vector<sptr<DistributeTaskInfo>> tasks;
    EXPECT_EQ(reporter.Do([&]() { return Manager().CheckConflict(PEER, 7, 2, tasks); }), 0);  // its own task
    EXPECT_EQ(watcher.Do([&]() { return Manager().CheckConflict(PEER, 9, 0, tasks); }), MeshlineResult::TASK_CONFLICT);
    EXPECT_EQ(watcher.Do([&]() { return Manager().CheckConflict(PEER, 9, 1, tasks); }), 0);  // another link
    EXPECT_EQ(watcher.Do([&]() { return Manager().CheckConflict(OTHER_PEER, 9, 0, tasks); }), 0);
    ASSERT_EQ(tasks.size(), 3u);
    EXPECT_EQ(tasks[0]->GetDeviceId(), PEER);
    EXPECT_EQ(tasks[0]->GetServiceType(), 7u);
    EXPECT_EQ(tasks[0]->GetLinkType(), 2u);

    EXPECT_EQ(watcher.Do([]() { return Manager().DisconnectCurrentDevice(PEER, 7, 0); }), 0);
    EXPECT_EQ(watcher.Do([]() { return Manager().DisconnectCurrentDevice(PEER, 7, 0); }), MeshlineResult::NOT_FOUND);
    EXPECT_EQ(CallsOf(reporter), Calls{"DisconnectDevice " + Join(PEER, 7)});
    const std::string connected = "Event 0|0|StateNotify 3|7|" + Join(PEER, 2, 3);
    EXPECT_EQ(CallsOf(watcher), (Calls{connected, connected, "Event 0|0|StateNotify 0|7|" + Join(PEER, 2, 0)}));
    EXPECT_EQ(meshline_->GetCounts().deviceTasks, 0u);
}

// Everything a client registered goes with it; whoever waited for its service hears it is free.
TEST_F(MeshlineServiceTest, ClientDeathReleasesEverythingItHeld)
{
    Client dying = MakeClient(CLIENT_A);
    Client survivor = MakeClient(CLIENT_B);
    ASSERT_EQ(survivor.Do([&]() { return Manager().SubscribeServiceState(survivor.callback); }), 0);
    dying.Do([&]() {
        EXPECT_EQ(Manager().RegisterDeviceStateManagerCallback(PEER, 7, dying.callback), 0);
        EXPECT_EQ(Manager().RegisterDeviceStateSubscriber(dying.callback), 0);
        EXPECT_EQ(Manager().SubscribeServiceStateWithPid(dying.callback), std::make_pair(0, CLIENT_A));
        EXPECT_EQ(Manager().NotifyDeviceConnectState(PEER, 7, new ServiceStateInfo(PEER, 1, 3)), 0);
    });
    ASSERT_EQ(dying.Subscribe(PEER), 0);
    ASSERT_EQ(dying.Apply(PEER), 0);
    ASSERT_EQ(dying.Publish(PEER, 4), 0);
    ASSERT_TRUE(meshline_->WaitIdle());
    MeshlineService::Counts held = meshline_->GetCounts();
    EXPECT_EQ(held.grants + held.deviceTasks + held.serviceStates, 3u);
    EXPECT_EQ(held.deviceManagers + held.stateSubscribers + held.disconnectSubscriptions, 3u);
    EXPECT_EQ(held.watchedCallbacks, 2u);  // one object per client, watched once

    Kill(CLIENT_A);
    EXPECT_EQ(meshline_->ActiveTaskCount(), 0u);
    EXPECT_EQ(meshline_->SubscriberCount(), 1u);
    EXPECT_EQ(meshline_->CallbackCount(), 1u);
    EXPECT_EQ(meshline_->GetCounts().serviceStates, 0u);
    EXPECT_EQ(CallsOf(survivor).back(), "OnServiceStateChanged " + Join(PEER, "Tandra", "", 1, CLIENT_A));
    EXPECT_EQ(survivor.Apply(PEER), 0);
    EXPECT_EQ(CallsOf(survivor).back(), Apply(PEER, GRANTED));
}

TEST_F(MeshlineServiceTest, StoppingRefusesWaitingApplicantsAndLaterRequests)
{
    Vex::Clock::UseSimulatedTime();
    Client holder = MakeClient(CLIENT_A);
    Client applicant = MakeClient(CLIENT_B);
    ASSERT_EQ(holder.Subscribe(PEER), 0);
    ASSERT_EQ(holder.Apply(PEER), 0);
    ASSERT_EQ(applicant.Apply(PEER), 0);
    meshline_->Stop();
    EXPECT_EQ(applicant.callback->Calls(), Calls{Apply(PEER, "service stopping" + REFUSED)});
    EXPECT_EQ(applicant.Apply(PEER), MeshlineResult::SERVICE_STOPPED);
    EXPECT_EQ(holder.Publish(PEER, 1), MeshlineResult::SERVICE_STOPPED);
    EXPECT_EQ(meshline_->ActiveTaskCount() + meshline_->SubscriberCount() + meshline_->CallbackCount(), 0u);
}

// Requests the client would never send: the service decides from the bytes alone.
TEST_F(MeshlineServiceTest, MalformedRequestsAreRefusedWithoutEffect)
{
    struct Row {
        const char* name;
        std::function<void(MessageParcel&)> write;
        int32_t status;
        int32_t result;  // when status is 0
    };
    auto envelope = [](MessageParcel& data, uint32_t operation) {
        data.WriteInterfaceToken(u"quex.ITandra.ITandraService");
        for (uint32_t value : {501u, operation, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
    };
    const Row rows[] = {
        {"wrong token", [](MessageParcel& d) { d.WriteInterfaceToken(u"quex.ITandra.ITandraCallback"); },
         Vex::ERR_INVALID_DATA, 0},
        {"unknown operation", [&](MessageParcel& d) { envelope(d, 17); }, Vex::ERR_INVALID_DATA, 0},
        {"publish state 5",
         [&](MessageParcel& d) {
             envelope(d, MeshlineWire::PUBLISH_SERVICE_STATE);
             d.WriteString(PEER);
             d.WriteString("Tandra");
             d.WriteString("");
             d.WriteInt32(5);
         },
         0, MeshlineResult::INVALID_PARAM},
        {"truncated apply",
         [&](MessageParcel& d) {
             envelope(d, MeshlineWire::APPLY_ADVANCED_RESOURCE);
             d.WriteString(PEER);
         },
         0, MeshlineResult::APPLY_INVALID_PARAM},
        {"subscribe without callback", [&](MessageParcel& d) { envelope(d, MeshlineWire::SUBSCRIBE_SERVICE_STATE); }, 0,
         MeshlineResult::INVALID_PARAM},
        {"empty device", [&](MessageParcel& d) {
             envelope(d, MeshlineWire::UNSUBSCRIBE_NOTIFY_DISCONNECT);
             d.WriteString("");
             d.WriteString("Tandra");
         },
         0, MeshlineResult::NOT_FOUND},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        row.write(data);
        Vex::ScopedIdentity as(CLIENT_A, CLIENT_UID);
        EXPECT_EQ(meshline_->SendRequest(501, data, reply, option), row.status);
        if (row.status == 0) {
            int32_t result = -1;
            EXPECT_TRUE(reply.ReadInt32(result));
            EXPECT_EQ(result, row.result);
        }
    }
    EXPECT_EQ(meshline_->ActiveTaskCount() + meshline_->SubscriberCount() + meshline_->CallbackCount(), 0u);
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
