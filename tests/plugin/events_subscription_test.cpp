// Event subscriptions on the serving side (requests 2 and 5 as the host dispatches them) and
// the cache of events that fell due before their addressee subscribed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "ipc_skeleton.h"
#include "messages_app_callback.h"
#include "test_device.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace MessagesTesting;
using Testing::TestDevice;

constexpr int32_t CAMERA_PID = 5100;
constexpr int32_t CAMERA_UID = 20020002;
constexpr int32_t OTHER_UID = 20030003;
constexpr uint32_t CANCELLED = 1001201915;
constexpr uint32_t SUBSCRIBE = 2;
constexpr uint32_t UNREGISTER = 5;
const std::string CAMERA_BUNDLE = "com.peer.camera";
const std::string OTHER_BUNDLE = "com.other.app";
const std::string PREVIEW_CANCEL = "imagePreviewCancel";
const std::string IMAGE_COMPLETE = "imageProcessComplete";

class EventsSubscriptionTest : public testing::Test {
protected:
    void SetUp() override
    {
        device_.SetBundleName(CAMERA_UID, CAMERA_BUNDLE);
        device_.SetBundleName(OTHER_UID, OTHER_BUNDLE);
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
    }

    void TearDown() override { EXPECT_TRUE(AsynThreadPool::WaitIdle()); }

    Vex::sptr<AppCallback> NewCallback(int32_t pid, int32_t uid)
    {
        Vex::ScopedIdentity as(pid, uid);
        return new AppCallback();
    }

    // Request 2 as the host hands it over: dispatch header, collaboration id, event, callback.
    int32_t Subscribe(int32_t pid, int32_t uid, uint32_t collaborationId, const std::string& event,
                      const Vex::sptr<AppCallback>& callback)
    {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        Vex::MessageOption option;
        data.WriteUint32(SUBSCRIBE);
        for (int i = 0; i < 3; ++i) {
            data.WriteUint32(0);
        }
        data.WriteUint32(collaborationId);
        data.WriteString(event);
        data.WriteRemoteObject(callback);
        return process_->DispatchRequest(data, reply, option, IPCContext{pid, uid});
    }

    // Request 5: the result, and the two Uint32 of the reply.
    int32_t Unregister(int32_t pid, int32_t uid, const std::string& event, uint32_t& first, uint32_t& second)
    {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        Vex::MessageOption option;
        data.WriteUint32(UNREGISTER);
        for (int i = 0; i < 3; ++i) {
            data.WriteUint32(0);
        }
        data.WriteString(event);
        int32_t result = process_->DispatchRequest(data, reply, option, IPCContext{pid, uid});
        first = reply.ReadUint32();
        second = reply.ReadUint32();
        return result;
    }

    TestDevice device_;
    CameraAbilityProcess* process_ = nullptr;
};

TEST_F(EventsSubscriptionTest, KeyJoinsPidUidAndEventWithoutSeparator)
{
    EXPECT_EQ(CameraAbilityProcess::StitchingEventToKey(1234, 20010001, IMAGE_COMPLETE),
              "123420010001imageProcessComplete");
    EXPECT_EQ(CameraAbilityProcess::StitchingEventToKey(12, 345, "e"),
              CameraAbilityProcess::StitchingEventToKey(123, 45, "e"));
}

TEST_F(EventsSubscriptionTest, FirstSubscriptionAndItsCallbackStay)
{
    auto first = NewCallback(CAMERA_PID, CAMERA_UID);
    auto second = NewCallback(CAMERA_PID, CAMERA_UID);
    EXPECT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 7, IMAGE_COMPLETE, first), 0);
    EXPECT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 8, IMAGE_COMPLETE, second), 0);

    std::string event = IMAGE_COMPLETE;
    auto subscription = process_->QueryOnEventProcess(CAMERA_PID, CAMERA_UID, event);
    ASSERT_NE(subscription, nullptr);
    EXPECT_EQ(subscription->collaborationId, 7u);
    EXPECT_EQ(subscription->bundleName, CAMERA_BUNDLE);
    ASSERT_NE(subscription->callback, nullptr);
    EXPECT_EQ(subscription->callback->GetRemote(), Vex::sptr<Vex::IRemoteObject>(first));

    // pid 12 with uid 345 and pid 123 with uid 45 are one subscriber: the second keeps the first.
    auto a = NewCallback(12, 345);
    auto b = NewCallback(123, 45);
    EXPECT_EQ(Subscribe(12, 345, 1, IMAGE_COMPLETE, a), 0);
    EXPECT_EQ(Subscribe(123, 45, 2, IMAGE_COMPLETE, b), 0);
    subscription = process_->QueryOnEventProcess(123, 45, event);
    ASSERT_NE(subscription, nullptr);
    EXPECT_EQ(subscription->pid, 12);
    EXPECT_EQ(subscription->collaborationId, 1u);
}

TEST_F(EventsSubscriptionTest, SubscriptionWithoutACallbackIsRefused)
{
    EXPECT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 7, IMAGE_COMPLETE, nullptr), 1001);
    std::string event = IMAGE_COMPLETE;
    EXPECT_EQ(process_->QueryOnEventProcess(CAMERA_PID, CAMERA_UID, event), nullptr);
}

TEST_F(EventsSubscriptionTest, UnregistrationRepliesOneAndTheIdOrTwoAndZero)
{
    ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 42, IMAGE_COMPLETE, NewCallback(CAMERA_PID, CAMERA_UID)), 0);
    uint32_t first = 0;
    uint32_t second = 0;
    EXPECT_EQ(Unregister(CAMERA_PID, CAMERA_UID, IMAGE_COMPLETE, first, second), 0);
    EXPECT_EQ(first, 1u);
    EXPECT_EQ(second, 42u);

    EXPECT_EQ(Unregister(CAMERA_PID, CAMERA_UID, IMAGE_COMPLETE, first, second), 1907);
    EXPECT_EQ(first, 2u);
    EXPECT_EQ(second, 0u);
}

TEST_F(EventsSubscriptionTest, EraseByPidRemovesEveryEventOfThatProcess)
{
    ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 1, IMAGE_COMPLETE, NewCallback(CAMERA_PID, CAMERA_UID)), 0);
    ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 1, PREVIEW_CANCEL, NewCallback(CAMERA_PID, CAMERA_UID)), 0);
    ASSERT_EQ(Subscribe(CAMERA_PID + 1, OTHER_UID, 2, PREVIEW_CANCEL, NewCallback(CAMERA_PID + 1, OTHER_UID)), 0);
    EXPECT_TRUE(process_->EraseOnEventByPid(CAMERA_PID));
    EXPECT_EQ(process_->QueryOnEventProcess(CAMERA_PID), nullptr);
    EXPECT_NE(process_->QueryOnEventProcess(CAMERA_PID + 1), nullptr);
}

// A cancel reported before the camera application subscribed is kept, and delivered in order
// once it subscribes; an entry for a bundle that still has no subscriber stays cached.
TEST_F(EventsSubscriptionTest, CachedCancelsAreDeliveredInOrderOnSubscription)
{
    std::string event = PREVIEW_CANCEL;
    std::string camera = CAMERA_BUNDLE;
    std::string other = OTHER_BUNDLE;
    EXPECT_EQ(process_->ProcessCancelTakePhotoCallBack(CANCELLED, event, camera), 1007);
    EXPECT_EQ(process_->ProcessCancelTakePhotoCallBack(1001201903, event, other), 1007);
    EXPECT_EQ(process_->ProcessCancelTakePhotoCallBack(1001201904, event, camera), 1007);
    ASSERT_EQ(process_->QueryCacheEventSize(), 3u);

    auto callback = NewCallback(CAMERA_PID, CAMERA_UID);
    ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 77, PREVIEW_CANCEL, callback), 0);
    ASSERT_TRUE(callback->AwaitCalls(2));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());

    std::vector<AppCall> calls = callback->Calls();
    ASSERT_EQ(calls.size(), 2u);
    const uint32_t expected[] = {CANCELLED, 1001201904};
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].serviceType, 101u);
        EXPECT_EQ(calls[i].subServiceType, 106u);
        EXPECT_EQ(calls[i].code, expected[i]);
        EXPECT_EQ(calls[i].collaborationId, 77u);
        EXPECT_EQ(calls[i].text, "category NO use");
    }
    ASSERT_EQ(process_->QueryCacheEventSize(), 1u);
    CachedEvent left = process_->PopCachedEvent();
    EXPECT_EQ(left.code, 1001201903u);
    EXPECT_EQ(left.bundleName, OTHER_BUNDLE);
}

TEST_F(EventsSubscriptionTest, ClearCachedEventRemovesOnlyItsBundle)
{
    std::string event = PREVIEW_CANCEL;
    std::string camera = CAMERA_BUNDLE;
    std::string other = OTHER_BUNDLE;
    process_->AddCachedEvent(1, event, camera);
    process_->AddCachedEvent(2, event, other);
    process_->AddCachedEvent(3, event, camera);
    process_->AddCachedEvent(4, event, other);
    process_->ClearCachedEvent(CAMERA_BUNDLE);
    ASSERT_EQ(process_->QueryCacheEventSize(), 2u);
    EXPECT_EQ(process_->PopCachedEvent().code, 2u);
    EXPECT_EQ(process_->PopCachedEvent().code, 4u);
    EXPECT_EQ(process_->PopCachedEvent().code, 0u);  // empty
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
