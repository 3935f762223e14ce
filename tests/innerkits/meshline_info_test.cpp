// The resource and task records through a parcel: field order, list limits, null entries,
// short parcels and write failures.
#include "meshline_info.h"

#include <gtest/gtest.h>

#include "vex_log.h"

namespace QUEX::Tandra {
namespace {

sptr<ResourceRequest> FullRequest()
{
    sptr<ResourceRequest> request = new ResourceRequest();
    request->SetRemoteHardwareList(
        {new HardwareRequest(HardwareType::CAMERA, true), nullptr, new HardwareRequest(HardwareType::DISPLAY, false)});
    request->SetLocalHardwareList({new HardwareRequest(static_cast<HardwareType>(7), true)});
    sptr<CommunicationRequest> communication = new CommunicationRequest(0x1400000, 19000, 2000, 10, 0x8000000);
    communication->SetMaxIdleTime(11);
    communication->SetFirstPackge(12);
    communication->SetTransReliability(13);
    communication->SetDataType("DATA_TYPE_BYTES");
    request->SetCommunicationRequest(communication);
    return request;
}

TEST(MeshlineInfoTest, DistributeTaskInfoKeepsAllFiveFields)
{
    DistributeTaskInfo task("peer-1", 3, 9);
    task.SetConnectState(5);
    task.SetCanDisconnectFlag(1);
    Parcel parcel;
    ASSERT_TRUE(task.Marshalling(parcel));

    sptr<DistributeTaskInfo> read = DistributeTaskInfo::Unmarshalling(parcel);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->GetDeviceId(), "peer-1");
    EXPECT_EQ(read->GetServiceType(), 3u);
    EXPECT_EQ(read->GetLinkType(), 9u);
    EXPECT_EQ(read->GetConnectState(), 5u);
    EXPECT_EQ(read->GetCanDisconnectFlag(), 1u);
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

TEST(MeshlineInfoTest, ServiceStateInfoRoundTripLogsEachLife)
{
    LogCapture log;
    {
        ServiceStateInfo info("peer-2", 6, 2);
        Parcel parcel;
        ASSERT_TRUE(info.Marshalling(parcel));
        sptr<ServiceStateInfo> read = ServiceStateInfo::Unmarshalling(parcel);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(read->GetDeviceId(), "peer-2");
        EXPECT_EQ(read->GetLinkType(), 6u);
        EXPECT_EQ(read->GetConnectState(), 2u);
    }
    EXPECT_EQ(log.Count("Create ServiceSateInfo linkType= 6"), 2u);
    EXPECT_EQ(log.Count("destory:ServiceSateInfo linkType= 6"), 2u);
}

TEST(MeshlineInfoTest, HardwareAndCommunicationRequestsRoundTrip)
{
    Parcel parcel;
    ASSERT_TRUE(HardwareRequest(HardwareType::DISPLAY, false).Marshalling(parcel));
    sptr<CommunicationRequest> communication = FullRequest()->GetCommunicationRequest();
    ASSERT_TRUE(communication->Marshalling(parcel));

    sptr<HardwareRequest> hardware = HardwareRequest::Unmarshalling(parcel);
    ASSERT_NE(hardware, nullptr);
    EXPECT_EQ(hardware->GetHardwareType(), HardwareType::DISPLAY);
    EXPECT_FALSE(hardware->CanShare());
    sptr<CommunicationRequest> read = CommunicationRequest::Unmarshalling(parcel);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->GetMinBandwidth(), 20971520);
    EXPECT_EQ(read->GetMaxLatency(), 19000);
    EXPECT_EQ(read->GetMinLatency(), 2000);
    EXPECT_EQ(read->GetMaxWaitTime(), 10);
    EXPECT_EQ(read->GetMaxBuffer(), 134217728);
    EXPECT_EQ(read->GetMaxIdleTime(), 11);
    EXPECT_EQ(read->GetFirstPackge(), 12);
    EXPECT_EQ(read->GetTransReliability(), 13);
    EXPECT_EQ(read->GetDataType(), "DATA_TYPE_BYTES");
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

TEST(MeshlineInfoTest, ResourceRequestKeepsNullEntriesAndOrder)
{
    Parcel parcel;
    ASSERT_TRUE(FullRequest()->Marshalling(parcel));

    sptr<ResourceRequest> read = ResourceRequest::Unmarshalling(parcel);
    ASSERT_NE(read, nullptr);
    auto remote = read->GetRemoteHardwareList();
    ASSERT_EQ(remote.size(), 3u);
    ASSERT_NE(remote[0], nullptr);
    EXPECT_EQ(remote[0]->GetHardwareType(), HardwareType::CAMERA);
    EXPECT_TRUE(remote[0]->CanShare());
    EXPECT_EQ(remote[1], nullptr);
    ASSERT_NE(remote[2], nullptr);
    EXPECT_EQ(remote[2]->GetHardwareType(), HardwareType::DISPLAY);
    EXPECT_FALSE(remote[2]->CanShare());
    auto local = read->GetLocalHardwareList();
    ASSERT_EQ(local.size(), 1u);
    EXPECT_EQ(static_cast<uint32_t>(local[0]->GetHardwareType()), 7u);
    ASSERT_NE(read->GetCommunicationRequest(), nullptr);
    EXPECT_EQ(read->GetCommunicationRequest()->GetDataType(), "DATA_TYPE_BYTES");
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

TEST(MeshlineInfoTest, ResourceRequestWithoutCommunicationRequestReadsAsNull)
{
    sptr<ResourceRequest> request = new ResourceRequest();
    Parcel parcel;
    ASSERT_TRUE(request->Marshalling(parcel));
    sptr<ResourceRequest> read = ResourceRequest::Unmarshalling(parcel);
    ASSERT_NE(read, nullptr);
    EXPECT_TRUE(read->GetRemoteHardwareList().empty());
    EXPECT_TRUE(read->GetLocalHardwareList().empty());
    EXPECT_EQ(read->GetCommunicationRequest(), nullptr);
}

struct ListLimitCase {
    const char* name;
    uint32_t remoteCount;
    uint32_t localCount;
    bool accepted;
    size_t readPositionAfterRefusal;  // the refused count was the last thing read
};

class ResourceRequestLimitTest : public ::testing::TestWithParam<ListLimitCase> {};

TEST_P(ResourceRequestLimitTest, CountsAboveOneThousandAreRefusedBeforeAnyEntry)
{
    const ListLimitCase& c = GetParam();
    Parcel parcel;
    parcel.WriteUint32(c.remoteCount);
    auto writeEntries = [&parcel](uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            parcel.WriteInt32(1);
            parcel.WriteUint32(i % 5);
            parcel.WriteBool(i % 2 == 0);
        }
    };
    if (c.remoteCount <= ResourceRequest::MAX_HARDWARE_REQUESTS) {
        writeEntries(c.remoteCount);
        parcel.WriteUint32(c.localCount);
        if (c.localCount <= ResourceRequest::MAX_HARDWARE_REQUESTS) {
            writeEntries(c.localCount);
        }
    }
    parcel.WriteInt32(0);

    LogCapture log;
    sptr<ResourceRequest> read = ResourceRequest::Unmarshalling(parcel);
    if (c.accepted) {
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(read->GetRemoteHardwareList().size(), c.remoteCount);
        EXPECT_EQ(read->GetLocalHardwareList().size(), c.localCount);
        EXPECT_EQ(read->GetRemoteHardwareList().back()->GetHardwareType(),
                  static_cast<HardwareType>((c.remoteCount - 1) % 5));
    } else {
        EXPECT_EQ(read, nullptr);
        EXPECT_EQ(parcel.GetReadPosition(), c.readPositionAfterRefusal);
        EXPECT_TRUE(log.Contains("Hardware request vector too large."));
    }
}

INSTANTIATE_TEST_SUITE_P(Limits, ResourceRequestLimitTest,
                         ::testing::Values(ListLimitCase{"Remote1000", 1000, 0, true, 0},
                                           ListLimitCase{"Local1000", 1, 1000, true, 0},
                                           ListLimitCase{"Remote1001", 1001, 0, false, 4},
                                           ListLimitCase{"Local1001", 0, 1001, false, 8}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(MeshlineInfoTest, ShortParcelsYieldZerosAndNullEntries)
{
    Parcel announcesTwo;
    announcesTwo.WriteUint32(2);
    announcesTwo.WriteInt32(1);
    announcesTwo.WriteUint32(4);
    sptr<ResourceRequest> request = ResourceRequest::Unmarshalling(announcesTwo);
    ASSERT_NE(request, nullptr);
    auto remote = request->GetRemoteHardwareList();
    ASSERT_EQ(remote.size(), 2u);
    ASSERT_NE(remote[0], nullptr);
    EXPECT_EQ(remote[0]->GetHardwareType(), HardwareType::DISPLAY);
    EXPECT_FALSE(remote[0]->CanShare());
    EXPECT_EQ(remote[1], nullptr);
    EXPECT_TRUE(request->GetLocalHardwareList().empty());
    EXPECT_EQ(request->GetCommunicationRequest(), nullptr);

    Parcel deviceIdOnly;
    deviceIdOnly.WriteString("peer");
    sptr<DistributeTaskInfo> task = DistributeTaskInfo::Unmarshalling(deviceIdOnly);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->GetDeviceId(), "peer");
    EXPECT_EQ(task->GetLinkType(), 0u);
    EXPECT_EQ(task->GetCanDisconnectFlag(), 0u);

    Parcel empty;
    sptr<CommunicationRequest> communication = CommunicationRequest::Unmarshalling(empty);
    ASSERT_NE(communication, nullptr);
    EXPECT_EQ(communication->GetMaxBuffer(), 0);
    EXPECT_EQ(communication->GetDataType(), "");
}

// A failed write is reported only through the result and its line; which line tells the step.
struct WriteFailureCase {
    const char* name;
    size_t capacity;
    bool withCommunication;
    const char* line;
};

class ResourceRequestWriteFailureTest : public ::testing::TestWithParam<WriteFailureCase> {};

TEST_P(ResourceRequestWriteFailureTest, StopsAtTheFirstFailedStep)
{
    const WriteFailureCase& c = GetParam();
    // Remote: one entry (bytes 4-16); local: one entry (20-32); then the communication request.
    sptr<ResourceRequest> request = new ResourceRequest();
    request->SetRemoteHardwareList({new HardwareRequest(HardwareType::CAMERA, true)});
    request->SetLocalHardwareList({new HardwareRequest(HardwareType::DISPLAY, false)});
    if (c.withCommunication) {
        request->SetCommunicationRequest(new CommunicationRequest(1, 2, 3, 4, 5));
    }
    Parcel parcel;
    ASSERT_TRUE(parcel.SetMaxCapacity(c.capacity));
    LogCapture log;
    EXPECT_FALSE(request->Marshalling(parcel));
    EXPECT_TRUE(log.Contains(c.line)) << c.line;
}

INSTANTIATE_TEST_SUITE_P(
    Steps, ResourceRequestWriteFailureTest,
    ::testing::Values(
        WriteFailureCase{"RemoteSize", 0, true, "RemoteHardware request list size write parcelable failed."},
        WriteFailureCase{"RemoteEntry", 8, true, "RemoteHardware request list write parcelable failed."},
        WriteFailureCase{"HardwareField", 8, true, "Hardware request write parcelable failed."},
        WriteFailureCase{"LocalSize", 16, true, "LocalHardware request list size write parcelable failed."},
        WriteFailureCase{"LocalEntry", 20, true, "LocalHardware request list write parcelable failed."},
        WriteFailureCase{"Communication", 40, true, "write ResourceRequest failed: communicationRequest = 0"},
        WriteFailureCase{"CommunicationField", 40, true, "Communication Request write parcelable failed."},
        WriteFailureCase{"NullCommunication", 32, false, "write ResourceRequest failed: communicationRequest = 1"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace QUEX::Tandra
