// The resource and task records through a parcel: field order, list limits, null entries and
// short parcels.
#include "meshline_info.h"

#include <gtest/gtest.h>

#include "innerkits_test_util.h"

namespace QUEX::Tandra::Testing {
namespace {

std::string Text(const sptr<HardwareRequest>& hardware)
{
    if (hardware == nullptr) {
        return "null";
    }
    return std::to_string(static_cast<uint32_t>(hardware->GetHardwareType())) + (hardware->CanShare() ? "+" : "-");
}

std::string Text(const sptr<CommunicationRequest>& c)
{
    return c == nullptr ? "null"
                        : Join(c->GetMinBandwidth(), c->GetMaxLatency(), c->GetMinLatency(), c->GetMaxWaitTime(),
                               c->GetMaxBuffer(), c->GetMaxIdleTime(), c->GetFirstPackge(), c->GetTransReliability(),
                               c->GetDataType());
}

std::string Text(const sptr<ResourceRequest>& request)
{
    std::string text = "remote";
    for (const auto& hardware : request->GetRemoteHardwareList()) {
        text += " " + Text(hardware);
    }
    text += " local";
    for (const auto& hardware : request->GetLocalHardwareList()) {
        text += " " + Text(hardware);
    }
    return text + " comm " + Text(request->GetCommunicationRequest());
}

// Every record written one after the other is read back field for field, and nothing is left.
TEST(MeshlineInfoTest, EachRecordThroughAParcelAndBack)
{
    DistributeTaskInfo task("peer-1", 3, 9);
    task.SetConnectState(5);
    task.SetCanDisconnectFlag(1);
    sptr<CommunicationRequest> communication = new CommunicationRequest(0x1400000, 19000, 2000, 10, 0x8000000);
    communication->SetMaxIdleTime(11);
    communication->SetFirstPackge(12);
    communication->SetTransReliability(13);
    communication->SetDataType("DATA_TYPE_BYTES");
    ResourceRequest full;
    full.SetRemoteHardwareList(
        {new HardwareRequest(HardwareType::CAMERA, true), nullptr, new HardwareRequest(HardwareType::DISPLAY, false)});
    full.SetLocalHardwareList({new HardwareRequest(static_cast<HardwareType>(7), true)});
    full.SetCommunicationRequest(communication);
    Parcel parcel;
    ASSERT_TRUE(task.Marshalling(parcel));
    ASSERT_TRUE(ServiceStateInfo("peer-2", 6, 2).Marshalling(parcel));
    ASSERT_TRUE(HardwareRequest(HardwareType::DISPLAY, false).Marshalling(parcel));
    ASSERT_TRUE(communication->Marshalling(parcel));
    ASSERT_TRUE(full.Marshalling(parcel));
    ASSERT_TRUE(ResourceRequest().Marshalling(parcel));

    sptr<DistributeTaskInfo> t = DistributeTaskInfo::Unmarshalling(parcel);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(
        Join(t->GetDeviceId(), t->GetServiceType(), t->GetLinkType(), t->GetConnectState(), t->GetCanDisconnectFlag()),
        "peer-1|3|9|5|1");
    sptr<ServiceStateInfo> state = ServiceStateInfo::Unmarshalling(parcel);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(Join(state->GetDeviceId(), state->GetLinkType(), state->GetConnectState()), "peer-2|6|2");
    EXPECT_EQ(Text(HardwareRequest::Unmarshalling(parcel)), "4-");
    const std::string communicationText = "20971520|19000|2000|10|134217728|11|12|13|DATA_TYPE_BYTES";
    EXPECT_EQ(Text(CommunicationRequest::Unmarshalling(parcel)), communicationText);
    sptr<ResourceRequest> request = ResourceRequest::Unmarshalling(parcel);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(Text(request), "remote 1+ null 4- local 7+ comm " + communicationText);
    request = ResourceRequest::Unmarshalling(parcel);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(Text(request), "remote local comm null");
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

// A list of 1000 entries is read; a count of 1001 is refused right after it is read.
TEST(MeshlineInfoTest, HardwareListsHoldAtMostOneThousandEntries)
{
    struct Case {
        uint32_t remoteCount;
        uint32_t localCount;
        size_t refusedAt;  // read position after a refusal; 0 when accepted
    };
    for (const Case& c : {Case{1000, 0, 0}, Case{1, 1000, 0}, Case{1001, 0, 4}, Case{0, 1001, 8}}) {
        Parcel parcel;
        for (uint32_t count : {c.remoteCount, c.localCount}) {
            parcel.WriteUint32(count);
            for (uint32_t i = 0; i < count && count <= ResourceRequest::MAX_HARDWARE_REQUESTS; ++i) {
                parcel.WriteInt32(1);
                parcel.WriteUint32(i % 5);
                parcel.WriteBool(i % 2 == 0);
            }
        }
        parcel.WriteInt32(0);

        sptr<ResourceRequest> read = ResourceRequest::Unmarshalling(parcel);
        if (c.refusedAt != 0) {
            EXPECT_EQ(read, nullptr) << c.remoteCount << "/" << c.localCount;
            EXPECT_EQ(parcel.GetReadPosition(), c.refusedAt) << c.remoteCount << "/" << c.localCount;
            continue;
        }
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(read->GetRemoteHardwareList().size(), c.remoteCount);
        EXPECT_EQ(read->GetLocalHardwareList().size(), c.localCount);
        // Entry i is of type i % 5 and shareable when i is even.
        EXPECT_EQ(Text(read->GetRemoteHardwareList().back()), c.remoteCount == 1000 ? "4-" : "0+");
        if (c.localCount == 1000) {
            EXPECT_EQ(Text(read->GetLocalHardwareList().back()), "4-");
        }
    }
}

// What a parcel does not hold reads as zero, empty or null; the record itself is still made.
TEST(MeshlineInfoTest, ShortParcelsYieldZerosAndNullEntries)
{
    Parcel announcesTwo;
    announcesTwo.WriteUint32(2);
    announcesTwo.WriteInt32(1);
    announcesTwo.WriteUint32(4);
    sptr<ResourceRequest> request = ResourceRequest::Unmarshalling(announcesTwo);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(Text(request), "remote 4- null local comm null");

    Parcel deviceIdOnly;
    deviceIdOnly.WriteString("peer");
    sptr<DistributeTaskInfo> t = DistributeTaskInfo::Unmarshalling(deviceIdOnly);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(
        Join(t->GetDeviceId(), t->GetServiceType(), t->GetLinkType(), t->GetConnectState(), t->GetCanDisconnectFlag()),
        "peer|0|0|0|0");

    Parcel empty;
    EXPECT_EQ(Text(CommunicationRequest::Unmarshalling(empty)), "0|0|0|0|0|0|0|0|");
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
