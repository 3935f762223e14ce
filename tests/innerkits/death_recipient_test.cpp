// The service's death: what the registered callback hears, the cached proxy being dropped, and
// the registration rules of the one death recipient.
#include "death_recipient.h"

#include <gtest/gtest.h>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"

namespace QUEX::Tandra::Testing {
namespace {

using DeathRecipientTest = InnerkitsTest;

void KillService(int32_t pid)
{
    Vex::ProcessRegistry::Get().DeclareDead(pid);
    ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
}

TEST_F(DeathRecipientTest, DeathReachesTheCallbackAndDropsTheProxy)
{
    StartService();
    sptr<RecordingCallback> callback = new RecordingCallback();
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", callback), 0);
    ASSERT_EQ(saManager_->Lookups(), 1);

    KillService(SERVICE_PID);
    ASSERT_TRUE(callback->WaitForEvents(1));
    auto events = callback->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].code, static_cast<uint32_t>(IpcResult::SERVICE_DEAD));
    EXPECT_EQ(events[0].eventId, 0u);
    EXPECT_EQ(events[0].data, "camera");

    // A new service takes the id; the next request finds it instead of the dead one.
    service_->Unregister();
    ScriptedMeshlineService& replacement = StartService(SECOND_SERVICE_PID);
    EXPECT_EQ(MeshlineManager::GetInstance().NotifyAllState(), 0);
    EXPECT_EQ(saManager_->Lookups(), 2);
    EXPECT_EQ(replacement.RequestCount(NOTIFY_ALL_STATE), 1u);

    // And the recipient watches the new service once registered again.
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", callback), 0);
    KillService(SECOND_SERVICE_PID);
    EXPECT_TRUE(callback->WaitForEvents(2));
}

TEST_F(DeathRecipientTest, RegistrationWhileTheServiceIsDownRegistersNothing)
{
    sptr<RecordingCallback> callback = new RecordingCallback();
    EXPECT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", callback), 0);

    StartService();
    EXPECT_EQ(MeshlineManager::GetInstance().NotifyAllState(), 0);
    KillService(SERVICE_PID);
    EXPECT_TRUE(callback->Events().empty());
}

TEST_F(DeathRecipientTest, SecondRegistrationKeepsTheFirstCallbackAndAttachesOnce)
{
    StartService();
    sptr<RecordingCallback> first = new RecordingCallback();
    sptr<RecordingCallback> second = new RecordingCallback();
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("first", first), 0);
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("second", second), 0);

    KillService(SERVICE_PID);
    auto events = first->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].data, "second");
    EXPECT_TRUE(second->Events().empty());
}

TEST_F(DeathRecipientTest, UnregisteredRecipientHearsNothing)
{
    StartService();
    sptr<RecordingCallback> callback = new RecordingCallback();
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", callback), 0);
    EXPECT_EQ(MeshlineManager::GetInstance().UnRegisterServiceDeathRecipient(), 0);
    // Without a registration it still succeeds while the service is reachable.
    EXPECT_EQ(MeshlineManager::GetInstance().UnRegisterServiceDeathRecipient(), 0);

    KillService(SERVICE_PID);
    EXPECT_TRUE(callback->Events().empty());
}

TEST_F(DeathRecipientTest, RegistrationRefusals)
{
    sptr<RecordingCallback> callback = new RecordingCallback();
    EXPECT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("", callback), IpcResult::INVALID_PARAM);
    EXPECT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", nullptr),
              IpcResult::INVALID_PARAM);
    EXPECT_EQ(MeshlineManager::GetInstance().UnRegisterServiceDeathRecipient(), IpcResult::REMOTE_NULL);
}

TEST(DeathRecipientDataTest, KeepsTheFirstCallbackUntilCleared)
{
    sptr<RecordingCallback> first = new RecordingCallback();
    sptr<RecordingCallback> second = new RecordingCallback();
    sptr<DeathRecipient> recipient = new DeathRecipient();
    recipient->SetCallback(first);
    recipient->SetCallback(second);
    recipient->SetDeathRecipientid(9);
    recipient->SetCategory("camera");
    EXPECT_EQ(recipient->GetCallback(), sptr<CallbackSkeleton>(first));

    recipient->DestroyData();
    EXPECT_EQ(recipient->GetCallback(), nullptr);
    EXPECT_EQ(recipient->GetDeathRecipientid(), 0u);
    EXPECT_EQ(recipient->GetCategory(), "errorcode");
    recipient->SetCallback(second);
    EXPECT_EQ(recipient->GetCallback(), sptr<CallbackSkeleton>(second));
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
