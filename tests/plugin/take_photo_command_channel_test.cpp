// The take-photo command's data channel: resource application, the wait for the grant, and
// the opening, called as the command's worker calls it.
#include <chrono>
#include <future>

#include "serving_test_support.h"
#include "take_photo_command.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

using namespace std::chrono_literals;

constexpr int32_t SESSION_ID = 77;
constexpr int32_t SERVICE_GRANTED = 320001;
constexpr int32_t SERVICE_REFUSED = 320003;

class ChannelTest : public ServingDeviceTest {
protected:
    void SetUp() override
    {
        ServingDeviceTest::SetUp();
        auto param = std::make_shared<StartAbilityParam>();
        param->bundleName = CAMERA_BUNDLE;
        param->localDeviceId = RequesterNetworkId();
        command_ = std::make_shared<TakePhotoCommand>(param);
        context_ = std::make_shared<PutPhotoContext>(SESSION_ID);
    }

    std::future<int32_t> OpenChannelAsync()
    {
        return std::async(std::launch::async, [this] { return command_->OpenChannel(context_); });
    }

    // The opening that must outwait the whole grant period.
    void ExpectGrantWaitRunsOut()
    {
        std::future<int32_t> opening = OpenChannelAsync();
        ASSERT_TRUE(meshline_->WaitForRequest(APPLY_ADVANCED_RESOURCE).has_value());
        ASSERT_TRUE(meshline_->WaitForActions());
        ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
        Vex::Clock::Advance(15s - 1ms);
        EXPECT_EQ(opening.wait_for(0s), std::future_status::timeout);
        Vex::Clock::Advance(1ms);
        ASSERT_EQ(opening.wait_for(5s), std::future_status::ready);
        EXPECT_EQ(opening.get(), 320003);
        EXPECT_TRUE(device_.Peer().Channels().empty());
    }

    std::shared_ptr<TakePhotoCommand> command_;
    std::shared_ptr<PutPhotoContext> context_;
};

TEST_F(ChannelTest, GrantOpensAndRegistersTheChannel)
{
    meshline_->AnswerApplyResource(SERVICE_GRANTED);
    EXPECT_EQ(command_->OpenChannel(context_), 0);

    auto apply = meshline_->WaitForRequest(APPLY_ADVANCED_RESOURCE);
    ASSERT_TRUE(apply.has_value());
    EXPECT_EQ(apply->strings, std::vector<std::string>({RequesterNetworkId(), "Tandra"}));
    const CommunicationValues& communication = apply->resource.communication;
    EXPECT_EQ(communication.minBandwidth, 20971520);
    EXPECT_EQ(communication.maxLatency, 19000);
    EXPECT_EQ(communication.minLatency, 2000);
    EXPECT_EQ(communication.maxWaitTime, 10);
    EXPECT_EQ(communication.maxBuffer, 134217728);
    EXPECT_EQ(communication.maxIdleTime, 19000);
    EXPECT_EQ(communication.firstPackage, 4194304);
    EXPECT_EQ(communication.transReliability, 1);
    EXPECT_EQ(communication.dataType, "DATA_TYPE_BYTES");
    ASSERT_EQ(apply->resource.remote.size(), 1u);
    EXPECT_EQ(apply->resource.remote[0].type, 1u);
    EXPECT_TRUE(apply->resource.remote[0].canShare);

    std::vector<ChannelRecord> channels = device_.Peer().Channels();
    ASSERT_EQ(channels.size(), 1u);
    EXPECT_EQ(channels[0].peerDeviceId, RequesterNetworkId());
    EXPECT_EQ(channels[0].attr.dataType, TYPE_BYTES);
    EXPECT_EQ(channels[0].attr.linkTypeNum, 9);
    const LinkType expected[LINK_TYPE_MAX] = {LINK_TYPE_WIFI_P2P, LINK_TYPE_WIFI_WLAN_5G, LINK_TYPE_WIFI_WLAN_2G};
    for (int i = 0; i < LINK_TYPE_MAX; ++i) {
        EXPECT_EQ(channels[0].attr.linkType[i], expected[i]) << "link type " << i;
    }
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryDataChannelId(SESSION_ID), channels[0].channelId);
    EXPECT_EQ(context_->GetTransmitChanelStatus(), std::make_pair(0, 0));

    auto publish = meshline_->WaitForRequest(PUBLISH_SERVICE_STATE);
    ASSERT_TRUE(publish.has_value());
    EXPECT_EQ(publish->strings, std::vector<std::string>({RequesterNetworkId(), "Tandra", ""}));
    EXPECT_EQ(publish->ints, std::vector<int32_t>({4}));
    EXPECT_TRUE(HasEvent(EventsOf("OpenChannel"), 3, 7, 0, 0));
    EXPECT_TRUE(HasEvent(EventsOf("OpenChannel"), 3, 7, 1, 0));
}

TEST_F(ChannelTest, RefusalEndsTheWaitAtOnce)
{
    meshline_->AnswerApplyResource(SERVICE_REFUSED);
    EXPECT_EQ(command_->OpenChannel(context_), 320003);
    EXPECT_TRUE(device_.Peer().Channels().empty());
    EXPECT_EQ(meshline_->RequestCount(PUBLISH_SERVICE_STATE), 0u);
    EXPECT_TRUE(HasEvent(EventsOf("IniandApplytResource"), 3, 7, 2, 320003));
}

TEST_F(ChannelTest, SilenceRunsOutAfterFifteenSeconds)
{
    ExpectGrantWaitRunsOut();
}

// Grants that are not this command's: another applicant, another service, or no applicant.
struct ForeignGrant {
    const char* name;
    std::string deviceId;
    std::string serviceName;
};

void PrintTo(const ForeignGrant& grant, std::ostream* os)
{
    *os << grant.name;
}

class ForeignGrantTest : public ChannelTest, public ::testing::WithParamInterface<ForeignGrant> {};

TEST_P(ForeignGrantTest, IsIgnored)
{
    ScriptedMeshlineService* service = meshline_.GetRefPtr();
    const ForeignGrant grant = GetParam();
    meshline_->OnRequest(APPLY_ADVANCED_RESOURCE, [service, grant](const RecordedRequest& apply) {
        service->CallApplyResult(apply.callback, grant.deviceId, grant.serviceName, "", 0, SERVICE_GRANTED);
    });
    ExpectGrantWaitRunsOut();
}

INSTANTIATE_TEST_SUITE_P(Grants, ForeignGrantTest,
                         ::testing::Values(ForeignGrant{"OtherDevice", "PEERNETWORKID0002", "Tandra"},
                                           ForeignGrant{"OtherService", RequesterNetworkId(), "Tandr"},
                                           ForeignGrant{"NoDevice", "", "Tandra"}),
                         [](const ::testing::TestParamInfo<ForeignGrant>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(ChannelTest, CameraClosedWhileOpeningClosesTheNewChannel)
{
    // The command is released (camera ended) while the grant is still on its way.
    ScriptedMeshlineService* service = meshline_.GetRefPtr();
    std::shared_ptr<PutPhotoContext> context = context_;
    meshline_->OnRequest(APPLY_ADVANCED_RESOURCE, [service, context](const RecordedRequest& apply) {
        context->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED);
        service->CallApplyResult(apply.callback, apply.strings.at(0), apply.strings.at(1), "", 0, SERVICE_GRANTED);
    });
    EXPECT_EQ(command_->OpenChannel(context_), 2011);

    std::vector<ChannelRecord> channels = device_.Peer().Channels();
    ASSERT_EQ(channels.size(), 1u);
    EXPECT_EQ(device_.Peer().ChannelsClosedByDevice(), std::vector<int32_t>({channels[0].channelId}));
    EXPECT_EQ(meshline_->RequestCount(PUBLISH_SERVICE_STATE), 0u);
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryDataChannelId(SESSION_ID), -1);
    EXPECT_EQ(context_->GetTransmitChanelStatus().first, PutPhotoContext::CHANNEL_UNSETTLED);
}

TEST_F(ChannelTest, FailedOpenIsReportedAndWakesSendersAtOnce)
{
    constexpr int32_t openError = -5;
    device_.Peer().FailChannelOpens(openError);
    meshline_->AnswerApplyResource(SERVICE_GRANTED);
    auto process = CameraAbilityProcess::GetInstance();
    std::future<int32_t> sender = std::async(std::launch::async, [process, this] {
        CameraMsgHeader header{CODE_PHOTO_COUNT, 1};
        return process->SendMsgHeaderByDataChannel(context_, header);
    });
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));

    EXPECT_EQ(command_->OpenChannel(context_), openError);
    // No clock advance: the failure itself ends the sender's wait.
    ASSERT_EQ(sender.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(sender.get(), openError);
    EXPECT_EQ(context_->GetTransmitChanelStatus(), std::make_pair(-1, openError));
    EXPECT_TRUE(HasEvent(EventsOf("OpenChannel"), 3, 7, 2, 5));
    EXPECT_EQ(meshline_->RequestCount(PUBLISH_SERVICE_STATE), 0u);
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
