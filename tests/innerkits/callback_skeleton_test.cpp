// The callback stub: the token check, the Meshline events as the scripted service sends them,
// photo data at its size limit, and the other request codes.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"
#include "vex_log.h"

namespace QUEX::Tandra::Testing {
namespace {

class CallbackSkeletonTest : public InnerkitsTest {
protected:
    void SetUp() override
    {
        InnerkitsTest::SetUp();
        StartService();
        callback_ = new RecordingCallback();
    }

    sptr<RecordingCallback> callback_;
};

TEST_F(CallbackSkeletonTest, WrongTokenIsRefusedBeforeAnyFieldIsRead)
{
    const std::u16string tokens[] = {
        u"quex.ITandra.ITandraService",
        u"quex.ITandra.ITandraCallbac",
        u"quex.ITandra.ITandraCallbackX",
        u"",
    };
    for (const auto& token : tokens) {
        MessageParcel data;
        data.WriteInterfaceToken(token);
        size_t afterToken = data.GetDataSize();
        data.WriteUint32(501);
        data.WriteUint32(DISCONNECTED_EVENT);
        MessageParcel reply;
        MessageOption option;
        EXPECT_EQ(callback_->OnRemoteRequest(501, data, reply, option), IpcResult::WRONG_INTERFACE_TOKEN);
        EXPECT_EQ(data.GetReadPosition(), afterToken);
        EXPECT_EQ(reply.GetDataSize(), 0u);
    }
    EXPECT_TRUE(callback_->Calls().empty());
}

TEST_F(CallbackSkeletonTest, ApplyResultMapsTheServiceResult)
{
    const std::pair<int32_t, int32_t> mappings[] = {{320001, 1004720001}, {320003, 1004720002}, {320002, 0}, {0, 0}};
    callback_->SetResult(31);
    for (const auto& [serviceResult, resultCode] : mappings) {
        CallbackReply reply = service_->CallApplyResult(callback_, "net", "Tandra", "why", 6, serviceResult);
        EXPECT_EQ(reply.status, 31);
        EXPECT_TRUE(reply.replied);
        EXPECT_EQ(reply.value, 31);
        EXPECT_EQ(callback_->Calls().back(), "ApplyResult net|Tandra|why|6|" + std::to_string(resultCode));
    }
}

TEST_F(CallbackSkeletonTest, DisconnectedAlwaysRepliesZero)
{
    callback_->SetResult(99);
    CallbackReply reply = service_->CallDisconnected(callback_, "first", "net", "disconnect", 4);
    EXPECT_EQ(reply.status, 0);
    EXPECT_TRUE(reply.replied);
    EXPECT_EQ(reply.value, 0);
    EXPECT_EQ(callback_->Calls(),
              (std::vector<std::string>{"OnDisconnected first|4", "OnDisconnected net|disconnect"}));
}

TEST_F(CallbackSkeletonTest, OtherMeshlineEventsReachTheirOperation)
{
    callback_->SetResult(5);
    EXPECT_EQ(service_->CallDisconnectDevice(callback_, "dev", 8).value, 5);
    EXPECT_EQ(service_->CallServiceStateChanged(callback_, "a", "Tandra", "c", 1, 2).value, 5);
    ServiceStateValues present{true, "peer", 3, 1};
    ServiceStateValues absent;
    EXPECT_EQ(service_->CallStateNotify(callback_, 2, {10, 11}, {present, absent, present}).value, 5);
    EXPECT_EQ(callback_->Calls(),
              (std::vector<std::string>{"DisconnectDevice dev 8", "OnServiceStateChanged a|Tandra|c|1|2",
                                        "StateNotify 2 id10 id11 peer:3:1 peer:3:1"}));
}

TEST_F(CallbackSkeletonTest, UnreadableOrUnknownMeshlineEventsLeaveTheReplyEmpty)
{
    struct Case {
        const char* name;
        uint32_t event;
        std::function<void(MessageParcel&)> arguments;
        int32_t status;
    };
    const Case cases[] = {
        {"UnknownEvent", 507, [](MessageParcel&) {}, IpcResult::UNKNOWN_CODE},
        {"StateCountTooLarge", STATE_NOTIFY_EVENT,
         [](MessageParcel& data) {
             data.WriteInt32(1);
             data.WriteUInt32Vector({});
             data.WriteUint32(2);
             data.WriteInt32(0);
         },
         IpcResult::INVALID_PARAM},
        {"StateIdsMissing", STATE_NOTIFY_EVENT, [](MessageParcel& data) { data.WriteInt32(1); },
         IpcResult::INVALID_PARAM},
    };
    for (const Case& c : cases) {
        MessageParcel data;
        ScriptedMeshlineService::WriteCallbackHeader(data, 501, c.event);
        c.arguments(data);
        CallbackReply reply = service_->CallRaw(callback_, 501, data);
        EXPECT_EQ(reply.status, c.status) << c.name;
        EXPECT_FALSE(reply.replied) << c.name;
    }
    EXPECT_TRUE(callback_->Calls().empty());
}

// Photo data: code 101, service type 102, sub-service 105.
void WritePhotoHeader(MessageParcel& data, uint32_t length)
{
    ScriptedMeshlineService::WriteCallbackHeader(data, 102, 105);
    data.WriteUint32(1001201918);
    data.WriteUint32(2);
    data.WriteUint32(length);
}

TEST_F(CallbackSkeletonTest, PhotoDataOfTheLimitIsHandedOver)
{
    constexpr uint32_t length = CallbackSkeleton::MAX_PHOTO_DATA_LENGTH;
    ASSERT_EQ(length, 134217728u);
    // Out of line and untouched apart from its ends: the sender's buffer costs no memory.
    std::unique_ptr<uint8_t[]> photo(new uint8_t[length]);
    photo[0] = 'F';
    photo[length - 1] = 'L';
    MessageParcel data;
    WritePhotoHeader(data, length);
    ASSERT_TRUE(data.WriteRawData(std::move(photo), length));

    callback_->SetResult(17);
    CallbackReply reply = service_->CallRaw(callback_, 101, data);
    EXPECT_EQ(reply.status, 17);
    EXPECT_EQ(reply.value, 17);
    auto calls = callback_->DataCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].code, 1001201918u);
    EXPECT_EQ(calls[0].type, 2u);
    EXPECT_EQ(calls[0].length, length);
    EXPECT_EQ(calls[0].first, 'F');
    EXPECT_EQ(calls[0].last, 'L');
}

// Both refusals answer 22; only the line tells which check refused.
TEST_F(CallbackSkeletonTest, PhotoDataAboveTheLimitOrMissingIsRefused)
{
    struct Case {
        uint32_t length;
        const char* line;
    };
    const Case cases[] = {
        {134217729, "new buffer failed of length = 134217729"},
        {16, "PHOTO SIZE is too large, length = 16."},
    };
    for (const Case& c : cases) {
        MessageParcel data;
        WritePhotoHeader(data, c.length);
        LogCapture log;
        CallbackReply reply = service_->CallRaw(callback_, 101, data);
        EXPECT_EQ(reply.status, IpcResult::PHOTO_DATA_INVALID) << c.line;
        EXPECT_EQ(reply.value, IpcResult::PHOTO_DATA_INVALID) << c.line;
        EXPECT_TRUE(log.Contains(c.line)) << c.line;
    }
    EXPECT_TRUE(callback_->DataCalls().empty());
}

TEST_F(CallbackSkeletonTest, CollaborationEventsAndAbilityCalls)
{
    callback_->SetResult(8);
    struct Case {
        const char* name;
        uint32_t serviceType;
        uint32_t subServiceType;
        std::function<void(MessageParcel&)> arguments;
        int32_t status;
        bool replied;
    };
    const Case cases[] = {
        {"Event", 101, 104,
         [](MessageParcel& data) {
             data.WriteUint32(1001202003);
             data.WriteUint32(12);
             data.WriteString("text");
         },
         8, true},
        {"EventSubService105IsNoEvent", 101, 105, [](MessageParcel&) {}, 0, false},
        {"AbilityState", 103, 1, [](MessageParcel& data) { data.WriteInt32(3); }, 0, true},
        {"AbilityData", 103, 3,
         [](MessageParcel& data) {
             data.WriteInt32(4);
             data.WriteUint32(3);
             data.WriteBuffer("abc", 3);
         },
         0, true},
        {"OtherPhotoSubService", 102, 106, [](MessageParcel&) {}, 0, false},
    };
    for (const Case& c : cases) {
        MessageParcel data;
        ScriptedMeshlineService::WriteCallbackHeader(data, c.serviceType, c.subServiceType);
        c.arguments(data);
        CallbackReply reply = service_->CallRaw(callback_, 101, data);
        EXPECT_EQ(reply.status, c.status) << c.name;
        EXPECT_EQ(reply.replied, c.replied) << c.name;
    }
    auto events = callback_->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].code, 1001202003u);
    EXPECT_EQ(events[0].eventId, 12u);
    EXPECT_EQ(events[0].data, "text");
    EXPECT_EQ(callback_->Calls(), (std::vector<std::string>{"AbilityState 3", "AbilityData 4 abc"}));
}

TEST_F(CallbackSkeletonTest, SurfaceTransferEvents)
{
    callback_->SetResult(6);
    struct Case {
        uint32_t subServiceType;
        std::function<void(MessageParcel&)> arguments;
        int32_t status;
    };
    const Case cases[] = {
        {40001, [](MessageParcel& data) { data.WriteString("one"); }, 6},
        {40002, [](MessageParcel& data) { data.WriteString("two"); }, 6},
        {10001,
         [](MessageParcel& data) {
             data.WriteUint32(77);
             data.WriteString("three");
         },
         6},
        {10002, [](MessageParcel&) {}, IpcResult::UNKNOWN_CODE},
    };
    for (const Case& c : cases) {
        MessageParcel data;
        ScriptedMeshlineService::WriteCallbackHeader(data, 601, c.subServiceType);
        c.arguments(data);
        EXPECT_EQ(service_->CallRaw(callback_, 601, data).status, c.status) << c.subServiceType;
    }
    auto events = callback_->Events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].code, 0u);
    EXPECT_EQ(events[0].eventId, 40001u);
    EXPECT_EQ(events[0].data, "one");
    EXPECT_EQ(events[1].eventId, 40002u);
    EXPECT_EQ(events[2].code, 77u);
    EXPECT_EQ(events[2].eventId, 10001u);
    EXPECT_EQ(events[2].data, "three");
}

TEST_F(CallbackSkeletonTest, SubCodeOnlyAndUnknownCodes)
{
    for (uint32_t code : {1u, 201u, 301u, 401u}) {
        MessageParcel data;
        data.WriteInterfaceToken(ITandraCallback::GetDescriptor());
        data.WriteUint32(3);
        CallbackReply reply = service_->CallRaw(callback_, code, data);
        EXPECT_EQ(reply.status, 0) << code;
        EXPECT_FALSE(reply.replied) << code;
    }
    MessageParcel data;
    data.WriteInterfaceToken(ITandraCallback::GetDescriptor());
    EXPECT_EQ(service_->CallRaw(callback_, 701, data).status, Vex::ERR_UNKNOWN_TRANSACTION);
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
