// The serving side's data channel: finding it (waiting while it opens, on simulated time) and
// putting headers and photo messages on it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "camera_ability_process.h"
#include "messages_app_callback.h"
#include "session_manager.h"
#include "test_device.h"
#include "vex_clock.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace MessagesTesting;
using Testing::TestDevice;
using Result = std::pair<int32_t, int32_t>;

constexpr int32_t TIMEOUT_RESULT = 461440990;
constexpr auto NOT_YET = std::chrono::milliseconds(0);
constexpr auto REAL_LIMIT = std::chrono::seconds(5);

class MessagesDataChannelTest : public testing::Test {
protected:
    void SetUp() override
    {
        Vex::Clock::UseSimulatedTime();
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
    }

    void TearDown() override { Vex::Clock::UseRealTime(); }

    std::future<Result> QueryAsync(std::shared_ptr<PutPhotoContext> context)
    {
        return std::async(std::launch::async, [this, context]() { return process_->QueryDataChannel(context); });
    }

    TestDevice device_;
    CameraAbilityProcess* process_ = nullptr;
};

TEST_F(MessagesDataChannelTest, RegisteredChannelIsFoundAtOnce)
{
    for (int32_t status : {PutPhotoContext::CHANNEL_UNSETTLED, PutPhotoContext::CHANNEL_OPENED}) {
        auto context = std::make_shared<PutPhotoContext>(5 + status);
        context->ChangeTransmitChanelStatus(status, 0);
        ASSERT_TRUE(process_->AddDataChannelId(5 + status, 77));
        // Simulated time stands still: anything but an immediate answer would hang here.
        auto result = QueryAsync(context);
        ASSERT_EQ(result.wait_for(REAL_LIMIT), std::future_status::ready);
        EXPECT_EQ(result.get(), Result(0, 77));
    }
}

TEST_F(MessagesDataChannelTest, RegistryKeepsTheFirstChannelOfASession)
{
    EXPECT_TRUE(process_->AddDataChannelId(8, 100));
    EXPECT_FALSE(process_->AddDataChannelId(8, 200));
    EXPECT_EQ(process_->QueryDataChannelId(8), 100);
    EXPECT_TRUE(process_->EraseDataChannelId(8));
    EXPECT_FALSE(process_->EraseDataChannelId(8));
    EXPECT_EQ(process_->QueryDataChannelId(8), -1);
}

TEST_F(MessagesDataChannelTest, FailedOrCancelledChannelAnswersAtOnce)
{
    struct Row {
        int32_t status;
        int32_t code;
    };
    for (const Row& row : {Row{PutPhotoContext::CHANNEL_FAILED, -5}, Row{PutPhotoContext::CHANNEL_CANCELLED, 0}}) {
        auto context = std::make_shared<PutPhotoContext>(20 + row.status);
        context->ChangeTransmitChanelStatus(row.status, row.code);
        auto result = QueryAsync(context);
        ASSERT_EQ(result.wait_for(REAL_LIMIT), std::future_status::ready);
        EXPECT_EQ(result.get(), Result(row.code, -1));
    }
}

TEST_F(MessagesDataChannelTest, ChannelRegisteredDuringTheWaitWakesItEarly)
{
    auto context = std::make_shared<PutPhotoContext>(30);
    const auto start = Vex::Clock::Now();
    auto result = QueryAsync(context);
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    ASSERT_TRUE(process_->AddDataChannelId(30, 1234));
    process_->Releaselock();
    ASSERT_EQ(result.wait_for(REAL_LIMIT), std::future_status::ready);
    EXPECT_EQ(result.get(), Result(0, 1234));
    EXPECT_EQ(Vex::Clock::Now(), start);  // no time had to pass
}

TEST_F(MessagesDataChannelTest, OpeningFailureDuringTheWaitEndsIt)
{
    auto context = std::make_shared<PutPhotoContext>(31);
    auto result = QueryAsync(context);
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    context->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_FAILED, -7);
    process_->Releaselock();
    ASSERT_EQ(result.wait_for(REAL_LIMIT), std::future_status::ready);
    EXPECT_EQ(result.get(), Result(-7, -1));
}

TEST_F(MessagesDataChannelTest, ChannelThatNeverOpensTimesOutAfterTenSeconds)
{
    auto context = std::make_shared<PutPhotoContext>(32);
    context->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_OPENED, 0);  // said open, never registered
    const auto start = Vex::Clock::Now();
    auto result = QueryAsync(context);
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    Vex::Clock::Advance(std::chrono::milliseconds(9999));
    EXPECT_EQ(result.wait_for(NOT_YET), std::future_status::timeout);
    Vex::Clock::Advance(std::chrono::milliseconds(1));
    ASSERT_EQ(result.wait_for(REAL_LIMIT), std::future_status::ready);
    EXPECT_EQ(result.get(), Result(TIMEOUT_RESULT, -1));
    EXPECT_EQ(Vex::Clock::Now() - start, std::chrono::seconds(10));
}

// What goes on the link: the header's 8 bytes, and a photo's buffer as it stands, on the
// registered channel and under the collaboration's control session.
TEST_F(MessagesDataChannelTest, HeadersAndPhotosGoOutOnTheDataChannel)
{
    auto [openResult, channelId] =
        SessionManager::OpenDataTransmitChannel(TestDevice::PeerIdentity().udid, SessionAttribute{});
    ASSERT_EQ(openResult, 0);
    constexpr int32_t SESSION = 40;
    auto context = std::make_shared<PutPhotoContext>(SESSION);
    ASSERT_TRUE(process_->AddDataChannelId(SESSION, channelId));

    CameraMsgHeader header{1001201912, 2};
    EXPECT_EQ(process_->SendMsgHeaderByDataChannel(context, header), 0);

    const std::string photo = PhotoBytes(50000, 4);
    auto param = std::make_shared<PhotoParam>(PhotoParam::REQUEST_PUT_IMAGE);
    const std::string message = CameraMessage(1001201918, photo.size(), photo);
    auto buffer = std::make_unique<char[]>(message.size());
    std::memcpy(buffer.get(), message.data(), message.size());
    param->SetBuffer(std::move(buffer));
    param->code = 1001201918;
    param->photoLength = photo.size();
    param->totalLength = message.size();
    EXPECT_EQ(process_->SendPhotoData(context, param, true), 0);

    std::vector<Testing::SentMessage> sent = device_.Peer().SentOnChannel(channelId);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].bytes, CameraMessage(1001201912, 2));
    EXPECT_EQ(sent[0].sessionId, SESSION);
    EXPECT_EQ(sent[0].type, MSG_TYPE_CAMERA);
    EXPECT_FALSE(sent[0].isFirst);
    EXPECT_TRUE(sent[1].bytes == message);
    EXPECT_EQ(sent[1].sessionId, SESSION);
    EXPECT_TRUE(sent[1].isFirst);

    // A failed channel: nothing is sent and the opening's code is the result.
    auto failed = std::make_shared<PutPhotoContext>(41);
    failed->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_FAILED, -9);
    EXPECT_EQ(process_->SendMsgHeaderByDataChannel(failed, header), -9);
    EXPECT_EQ(process_->SendPhotoData(failed, param, false), -9);
    EXPECT_EQ(device_.Peer().SentOnChannel(channelId).size(), 2u);
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
