// The callback stub, called by the scripted service: the token check, the Meshline events, photo
// data at its size limit, and the collaboration events.
#include <gtest/gtest.h>

#include <memory>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"

namespace QUEX::Tandra::Testing {
namespace {

using CallbackSkeletonTest = InnerkitsTest;

TEST_F(CallbackSkeletonTest, WrongTokenIsRefusedBeforeAnyFieldIsRead)
{
    sptr<RecordingCallback> callback = new RecordingCallback();
    for (const char16_t* token :
         {u"quex.ITandra.ITandraService", u"quex.ITandra.ITandraCallbac", u"quex.ITandra.ITandraCallbackX", u""}) {
        MessageParcel data;
        data.WriteInterfaceToken(token);
        size_t afterToken = data.GetDataSize();
        data.WriteUint32(501);
        data.WriteUint32(DISCONNECTED_EVENT);
        MessageParcel reply;
        MessageOption option;
        EXPECT_EQ(callback->OnRemoteRequest(501, data, reply, option), IpcResult::WRONG_INTERFACE_TOKEN);
        EXPECT_EQ(data.GetReadPosition(), afterToken);
        EXPECT_EQ(reply.GetDataSize(), 0u);
    }
    EXPECT_TRUE(callback->Calls().empty());
}

// Photo data (code 101, service type 102, sub-service 105) up to 128 MiB is handed over; one
// byte more is refused before it is read, as is data the parcel does not hold.
TEST_F(CallbackSkeletonTest, PhotoDataUpToTheLimit)
{
    ASSERT_EQ(CallbackSkeleton::MAX_PHOTO_DATA_LENGTH, 134217728u);
    ScriptedMeshlineService& service = StartService();
    sptr<RecordingCallback> callback = new RecordingCallback();
    callback->SetResult(17);
    const std::tuple<uint32_t, bool, bool> cases[] = {
        {134217728, true, true}, {134217729, true, false}, {16, false, false}};
    for (const auto& [length, held, accepted] : cases) {
        MessageParcel data;
        ScriptedMeshlineService::WriteCallbackHeader(data, 102, 105);
        data.WriteUint32(1001201918);
        data.WriteUint32(2);
        data.WriteUint32(length);
        if (held) {
            // Out of line and untouched apart from its ends: the sender's buffer costs no memory.
            std::unique_ptr<uint8_t[]> photo(new uint8_t[length]);
            photo[0] = 'F';
            photo[length - 1] = 'L';
            ASSERT_TRUE(data.WriteRawData(std::move(photo), length));
        }
        CallbackReply reply = service.CallRaw(callback, 101, data);
        int32_t expected = accepted ? 17 : IpcResult::PHOTO_DATA_INVALID;
        EXPECT_EQ(std::tie(reply.status, reply.value), std::tie(expected, expected)) << length;
    }
    EXPECT_EQ(callback->Calls(), std::vector<std::string>{"Data 1001201918|2|134217728|F|L"});
}

struct CodeCase {
    uint32_t code;
    std::function<void(MessageParcel&)> write;
    int32_t status;  // the callback answers 8
    bool replied;
    std::vector<std::string> calls;  // what the callback heard
};

// The callback token and header of a call.
void Header(MessageParcel& data, uint32_t serviceType, uint32_t subServiceType)
{
    ScriptedMeshlineService::WriteCallbackHeader(data, serviceType, subServiceType);
}

// The shape of most Meshline events: header, strings, Int32s.
void Meshline(MessageParcel& data, uint32_t event, std::initializer_list<const char*> strings,
              std::initializer_list<int32_t> values)
{
    Header(data, 501, event);
    for (const char* text : strings) {
        data.WriteString(text);
    }
    for (int32_t value : values) {
        data.WriteInt32(value);
    }
}

// Meshline events (501), collaboration events and other photo sub-services (101), an unknown code.
// clang-format off
const CodeCase CODE_CASES[] = {
    {501, [](MessageParcel& d) { Header(d, 501, 502); d.WriteString("dev"); d.WriteUint32(8); }, 8, true,
     {"DisconnectDevice dev|8"}},
    // State notices whose lists the parcel cannot hold are refused.
    {501, [](MessageParcel& d) { Header(d, 501, 503); d.WriteInt32(1); d.WriteUInt32Vector({}); d.WriteUint32(2);
                                 d.WriteInt32(0); }, IpcResult::INVALID_PARAM, false, {}},
    {501, [](MessageParcel& d) { Header(d, 501, 503); d.WriteInt32(1); }, IpcResult::INVALID_PARAM, false, {}},
    {501, [](MessageParcel& d) { Meshline(d, 504, {"a", "Tandra", "c"}, {1, 2}); }, 8, true,
     {"OnServiceStateChanged a|Tandra|c|1|2"}},
    // 505 calls both disconnect operations and always replies 0.
    {501, [](MessageParcel& d) { Meshline(d, 505, {"first", "net", "disconnect"}, {4}); }, 0, true,
     {"OnDisconnected first|4", "OnDisconnected net|disconnect"}},
    // 506 hands on the plugin's code for the service's result (only 320001 and 320003 have one).
    {501, [](MessageParcel& d) { Meshline(d, 506, {"net", "Tandra", "why"}, {6, 320001}); }, 8, true,
     {"ApplyResult net|Tandra|why|6|1004720001"}},
    {501, [](MessageParcel& d) { Meshline(d, 506, {"net", "Tandra", "why"}, {6, 320003}); }, 8, true,
     {"ApplyResult net|Tandra|why|6|1004720002"}},
    {501, [](MessageParcel& d) { Meshline(d, 506, {"net", "Tandra", "why"}, {6, 320002}); }, 8, true,
     {"ApplyResult net|Tandra|why|6|0"}},
    {501, [](MessageParcel& d) { Meshline(d, 506, {"net", "Tandra", "why"}, {6, 0}); }, 8, true,
     {"ApplyResult net|Tandra|why|6|0"}},
    {501, [](MessageParcel& d) { Meshline(d, 507, {}, {}); }, IpcResult::UNKNOWN_CODE, false, {}},
    {101, [](MessageParcel& d) { Header(d, 101, 104); d.WriteUint32(1001202003); d.WriteUint32(12);
                                 d.WriteString("text"); }, 8, true, {"Event 1001202003|12|text"}},
    {101, [](MessageParcel& d) { Header(d, 101, 105); }, 0, false, {}},
    {101, [](MessageParcel& d) { Header(d, 102, 106); }, 0, false, {}},
    // Ability state and data (101, service type 103) always answer 0; data the parcel does not
    // hold is not handed on.
    {101, [](MessageParcel& d) { Header(d, 103, 1); d.WriteInt32(3); }, 0, true, {"AbilityState 3"}},
    {101, [](MessageParcel& d) { Header(d, 103, 3); d.WriteInt32(7); d.WriteUint32(3); d.WriteBuffer("abc", 3); },
     0, true, {"AbilityData 7|3|abc"}},
    {101, [](MessageParcel& d) { Header(d, 103, 3); d.WriteInt32(7); d.WriteUint32(64); }, 0, true, {}},
    {101, [](MessageParcel& d) { Header(d, 103, 2); d.WriteInt32(7); }, 0, true, {}},
    // Surface transfer (601): two text events and one coded event; others are unknown.
    {601, [](MessageParcel& d) { Header(d, 0, 40001); d.WriteString("first"); }, 8, true, {"Event 0|40001|first"}},
    {601, [](MessageParcel& d) { Header(d, 0, 40002); d.WriteString("second"); }, 8, true, {"Event 0|40002|second"}},
    {601, [](MessageParcel& d) { Header(d, 0, 10001); d.WriteUint32(5); d.WriteString("coded"); }, 8, true,
     {"Event 5|10001|coded"}},
    {601, [](MessageParcel& d) { Header(d, 0, 40003); d.WriteString("x"); }, IpcResult::UNKNOWN_CODE, false, {}},
    // The codes of other services are read and answered 0, with no reply and no call.
    {1, [](MessageParcel& d) { Header(d, 9, 0); }, 0, false, {}},
    {201, [](MessageParcel& d) { Header(d, 9, 0); }, 0, false, {}},
    {301, [](MessageParcel& d) { Header(d, 9, 0); }, 0, false, {}},
    {401, [](MessageParcel& d) { Header(d, 9, 0); }, 0, false, {}},
    {701, [](MessageParcel& d) { Header(d, 0, 0); }, Vex::ERR_UNKNOWN_TRANSACTION, false, {}},
};
// clang-format on

TEST_F(CallbackSkeletonTest, EachCodeReachesItsOperation)
{
    ScriptedMeshlineService& service = StartService();
    for (size_t i = 0; i < std::size(CODE_CASES); ++i) {
        const CodeCase& c = CODE_CASES[i];
        sptr<RecordingCallback> callback = new RecordingCallback();
        callback->SetResult(8);
        MessageParcel data;
        c.write(data);
        CallbackReply reply = service.CallRaw(callback, c.code, data);
        int32_t value = c.replied ? c.status : 0;
        EXPECT_EQ(std::tie(reply.status, reply.replied, reply.value), std::tie(c.status, c.replied, value))
            << "row " << i;
        EXPECT_EQ(callback->Calls(), c.calls) << "row " << i;
    }
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
