// The photo records of the put-image request: what crosses a parcel and what does not.
#include <gtest/gtest.h>

#include "iremote_object.h"
#include "message_parcel.h"
#include "photo_callerInfo.h"

namespace QUEX {
namespace Tandra {
namespace {

TEST(PhotoCallerInfoTest, ParcelKeepsEverythingButTheModuleName)
{
    sptr<PhotoCallerInfo> info = new PhotoCallerInfo();
    info->SetCollaborationSessionId(-7);
    info->SetAbilityName("CameraAbility");
    info->SetBundleName("com.example.camera");
    info->SetDeviceId("LOCALNETWORKID0001");
    info->SetModuleName("entry");
    info->SetDeviceType(0x11);

    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteStrongParcelable(sptr<Parcelable>(info.GetRefPtr())));
    parcel.WriteUint32(0xABCD);  // what follows in a request must still be readable
    sptr<PhotoCallerInfo> read = parcel.ReadStrongParcelable<PhotoCallerInfo>();
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->GetCollaborationSessionId(), -7);
    EXPECT_EQ(read->GetAbilityName(), "CameraAbility");
    EXPECT_EQ(read->GetBundleName(), "com.example.camera");
    EXPECT_EQ(read->GetDeviceId(), "LOCALNETWORKID0001");
    EXPECT_EQ(read->GetDeviceType(), 0x11u);
    EXPECT_TRUE(read->GetModuleName().empty());
    EXPECT_EQ(parcel.ReadUint32(), 0xABCDu);
}

TEST(PhotoCallerInfoTest, FailedWriteIsReported)
{
    PhotoCallerInfo info;
    info.SetBundleName(std::string(64, 'b'));
    Parcel parcel;
    parcel.SetMaxCapacity(16);
    EXPECT_FALSE(info.Marshalling(parcel));
}

TEST(PhotoInfoTest, NeverCrossesAParcel)
{
    PhotoInfo info;
    info.SetPhotoFdList({3, 4});
    Parcel parcel;
    EXPECT_FALSE(info.Marshalling(parcel));
    EXPECT_EQ(parcel.GetDataSize(), 0u);

    parcel.WriteInt32(1);
    parcel.WriteInt32(3);
    EXPECT_EQ(PhotoInfo::Unmarshalling(parcel), nullptr);
}

TEST(PhotoInfoTest, CountAndListAreSetApart)
{
    PhotoInfo info;
    EXPECT_EQ(info.GetInterfaceId(), 1u);
    EXPECT_EQ(info.GetPhotoCount(), 0u);
    info.SetPhotoCount(3);
    info.SetPhotoFdList({});
    EXPECT_EQ(info.GetPhotoCount(), 3u);
    info.SetPhotoFdList({5, 6});
    info.SetPhotoFdList({7});
    EXPECT_EQ(info.GetPhotoFdList(), std::vector<int32_t>({7}));
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
