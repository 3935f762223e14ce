// Watching client processes: a requesting application's death cancels its collaboration; the
// camera application's death is told to the peer of every put-photo session and forgets its
// subscriptions; one recipient per process.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <tuple>
#include <vector>

#include "asyn_thread_pool.h"
#include "callback_skeleton_proxy.h"
#include "camera_ability_process.h"
#include "host_death_recipient.h"
#include "ipc_skeleton.h"
#include "iremote_stub.h"
#include "process_registry.h"
#include "session_manager.h"
#include "test_device.h"
#include "vex_log.h"
#include "vex_sys_event.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace Vex;
using Testing::TestDevice;

constexpr int32_t APP_UID = 20032001;
constexpr int32_t CAMERA_UID = 20031001;
// Each test's processes are its own, so that the tests also pass when run in one process.
int32_t NewPid()
{
    static int32_t next = 31001;
    return next++;
}

// A callback object owned by the given process, as an application would hand it over.
sptr<IRemoteObject> CallbackOwnedBy(int32_t pid, int32_t uid)
{
    ScopedIdentity identity(pid, uid);
    return new IPCObjectStub(ICollaborationCallback::GetDescriptor());
}

std::string CodeMessage(uint32_t code)
{
    CameraMsgHeader header{code, 0};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header));
}

class SpineDeathTest : public testing::Test {
protected:
    SpineDeathTest() : process_(*CameraAbilityProcess::GetInstance())
    {
        device_.AddPeerDevice(TestDevice::PeerIdentity());
        VexSysEvent::ResetWriteLimit();
    }
    ~SpineDeathTest() override
    {
        (void)AsynThreadPool::WaitIdle();
        for (int32_t sessionId : contexts_) {
            (void)process_.RemovePhotoContext(sessionId);
        }
        process_.ClearCollaborationDataInfo();
    }

    std::shared_ptr<PutPhotoContext> AddContext(int32_t sessionId)
    {
        auto context = std::make_shared<PutPhotoContext>(sessionId);
        EXPECT_TRUE(process_.AddPutPhotoContext(sessionId, context));
        contexts_.push_back(sessionId);
        return context;
    }

    int32_t OpenControlSession(uint32_t collaborationId)
    {
        const std::string peer = TestDevice::PeerIdentity().networkId;
        char name[16] = {0};
        (void)snprintf(name, sizeof(name), "%011u", collaborationId);
        auto info = std::make_shared<ServiceInfo>(2, 1, std::string(name) + "-" + peer, "{}");
        auto [result, sessionId] =
            SessionManager::CollaborationToDeviceByCtrlSession(device_.Identity().networkId, peer, info);
        EXPECT_EQ(result, 0);
        return sessionId;
    }

    void Subscribe(int32_t pid, int32_t uid, const sptr<IRemoteObject>& callback)
    {
        auto subscription = std::make_shared<OnEventProcess>();
        subscription->pid = pid;
        subscription->uid = uid;
        subscription->event = "imageProcessComplete";
        subscription->callback = new CallbackSkeletonProxy(callback);
        std::string event = subscription->event;
        ASSERT_TRUE(process_.AddOnEventProcess(pid, uid, event, subscription));
    }

    TestDevice device_;
    CameraAbilityProcess& process_;
    std::vector<int32_t> contexts_;
    const int32_t cameraPid_ = NewPid();
    const int32_t appPid_ = NewPid();
};

TEST_F(SpineDeathTest, RequesterDeathCancelsItsCollaboration)
{
    sptr<IRemoteObject> callback = CallbackOwnedBy(appPid_, APP_UID);
    auto state = std::make_shared<CameraProcessState>(41, TestDevice::PeerIdentity().networkId,
                                                      new CallbackSkeletonProxy(callback));
    ASSERT_TRUE(process_.AddCameraProcess(41, state));
    ASSERT_TRUE(process_.AddSessionId(41, OpenControlSession(41)));
    ASSERT_EQ(
        process_.RegistDeathRecipientByCollaborationId(41, HostDeathRecipient::DEATH_KIND_REQUESTER, callback, state),
        0);
    EXPECT_EQ(state->GetRemoteObject(), callback);
    ASSERT_NE(state->GetDeathRecipientObject(), nullptr);

    LogCapture log;
    ProcessRegistry::Get().DeclareDead(appPid_);
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_EQ(log.Count("Remote died, do clean works. deathCode=101"), 1u);
    EXPECT_EQ(log.Count("RemoveHost enter"), 1u);
    EXPECT_FALSE(log.Contains("canel takephoto request failed"));
    // The collaboration is gone from the registries.
    EXPECT_EQ(process_.QueryCameraProcess(41), nullptr);
    EXPECT_EQ(process_.QuerySessionId(41), -2);
}

TEST_F(SpineDeathTest, RegistrationOnADeadObjectFailsAndReleasesThePid)
{
    sptr<IRemoteObject> callback = CallbackOwnedBy(cameraPid_, CAMERA_UID);
    ProcessRegistry::Get().DeclareDead(cameraPid_);
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());

    auto state = std::make_shared<CameraProcessState>(42, "NET", nullptr);
    EXPECT_EQ(
        process_.RegistDeathRecipientByCollaborationId(42, HostDeathRecipient::DEATH_KIND_REQUESTER, callback, state),
        1001);
    EXPECT_EQ(state->GetRemoteObject(), nullptr);
    EXPECT_EQ(process_.RegistDeathRecipientByPid(cameraPid_, 0, HostDeathRecipient::DEATH_KIND_SUBSCRIBER, callback),
              1001);
    // The failed registration gave the pid back, so a later one may try again.
    EXPECT_FALSE(process_.QueryIsDeathRecipient(cameraPid_));
}

TEST_F(SpineDeathTest, CameraSubscriptionTellsThePeerOnceAndItsDeathReachesEverySession)
{
    const int32_t running = OpenControlSession(51);
    const int32_t other = OpenControlSession(52);
    auto runningContext = AddContext(running);
    auto otherContext = AddContext(other);
    process_.SetCollaborationDataInfo(running, "com.example.camera");

    sptr<IRemoteObject> callback = CallbackOwnedBy(cameraPid_, CAMERA_UID);
    Subscribe(cameraPid_, CAMERA_UID, callback);
    SysEventCapture events;
    ASSERT_EQ(process_.RegistDeathRecipientByPid(cameraPid_, 0, HostDeathRecipient::DEATH_KIND_SUBSCRIBER, callback),
              0);

    // The camera-started code goes at once, to the running collaboration only.
    auto sent = device_.Peer().SentOnSession(running);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].bytes, CodeMessage(CODE_CAMERA_STARTED));
    EXPECT_EQ(sent[0].type, MSG_TYPE_CAMERA);
    EXPECT_TRUE(device_.Peer().SentOnSession(other).empty());
    EXPECT_TRUE(runningContext->IsCameraAlive());
    auto records = events.Records();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& [index, stage, res] : {std::tuple<size_t, int32_t, int32_t>{0, 5, 1}, {1, 8, 0}}) {
        EXPECT_EQ(records[index].func, "RegistDeathRecipientByPid");
        EXPECT_EQ(records[index].params[1].second, SysEventValue(int32_t{3}));
        EXPECT_EQ(records[index].params[2].second, SysEventValue(stage));
        EXPECT_EQ(records[index].params[4].second, SysEventValue(res));
    }

    // A second subscription of the same process registers nothing and tells nobody.
    events.Clear();
    sptr<IRemoteObject> second = CallbackOwnedBy(cameraPid_, CAMERA_UID);
    EXPECT_EQ(process_.RegistDeathRecipientByPid(cameraPid_, 1, HostDeathRecipient::DEATH_KIND_SUBSCRIBER, second), 0);
    EXPECT_TRUE(events.Records().empty());
    EXPECT_EQ(device_.Peer().SentOnSession(running).size(), 1u);

    LogCapture log;
    ProcessRegistry::Get().DeclareDead(cameraPid_);
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    ASSERT_TRUE(device_.Peer().AwaitSentOnSession(running, 2));
    ASSERT_TRUE(device_.Peer().AwaitSentOnSession(other, 1));
    EXPECT_EQ(device_.Peer().SentOnSession(running)[1].bytes, CodeMessage(CODE_CAMERA_DIED));
    EXPECT_EQ(device_.Peer().SentOnSession(other)[0].bytes, CodeMessage(CODE_CAMERA_DIED));
    // One recipient per process: one death handling, not two.
    EXPECT_EQ(log.Count("Remote died, do clean works. deathCode=102"), 1u);
    EXPECT_FALSE(runningContext->IsCameraAlive());
    EXPECT_FALSE(otherContext->IsCameraAlive());
    EXPECT_EQ(process_.QueryOnEventProcess(cameraPid_), nullptr);
    EXPECT_FALSE(process_.QueryIsDeathRecipient(cameraPid_));
}

TEST_F(SpineDeathTest, CameraDeathWithoutSubscriptionSendsNothing)
{
    const int32_t session = OpenControlSession(61);
    AddContext(session);
    sptr<IRemoteObject> callback = CallbackOwnedBy(cameraPid_, CAMERA_UID);
    ASSERT_EQ(process_.RegistDeathRecipientByPid(cameraPid_, 0, HostDeathRecipient::DEATH_KIND_SUBSCRIBER, callback),
              0);

    LogCapture log;
    ProcessRegistry::Get().DeclareDead(cameraPid_);
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_TRUE(log.Contains("The channel is disconnected."));
    EXPECT_TRUE(AsynThreadPool::WaitIdle());
    EXPECT_TRUE(device_.Peer().SentOnSession(session).empty());
    EXPECT_FALSE(process_.QueryIsDeathRecipient(cameraPid_));
}

TEST_F(SpineDeathTest, CameraDeathWithoutPutPhotoSessionsStillDropsTheSubscriptions)
{
    sptr<IRemoteObject> callback = CallbackOwnedBy(cameraPid_, CAMERA_UID);
    Subscribe(cameraPid_, CAMERA_UID, callback);
    ASSERT_EQ(process_.RegistDeathRecipientByPid(cameraPid_, 0, HostDeathRecipient::DEATH_KIND_SUBSCRIBER, callback),
              0);
    LogCapture log;
    ProcessRegistry::Get().DeclareDead(cameraPid_);
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_TRUE(log.Contains("camera died, send camera death Code"));
    EXPECT_EQ(process_.QueryOnEventProcess(cameraPid_), nullptr);
    EXPECT_TRUE(device_.Peer().Sent().empty());
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
