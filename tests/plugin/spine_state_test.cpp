// The records both sides keep: the requesting side's photo-exchange state machine, the
// serving side's camera status, and the header bytes that start every peer message.
#include <gtest/gtest.h>

#include <cstring>

#include "camera_msg_header.h"
#include "camera_process_state.h"
#include "put_photo_context.h"

namespace QUEX {
namespace Tandra {
namespace {

constexpr uint32_t W = CameraProcessState::STATUS_WAITING;
constexpr uint32_t R = CameraProcessState::STATUS_RECEIVING;
constexpr uint32_t F = CameraProcessState::STATUS_FINISHED;
constexpr int REFUSE = -1;  // refused: status unchanged

struct Row {
    uint32_t code;
    int fromWaiting;
    int fromReceiving;
    int fromFinished;
};

TEST(SpineStateTest, UpdateProcessStateFollowsTheTransitionTable)
{
    const Row rows[] = {
        {CODE_PHOTO_COUNT, R, REFUSE, REFUSE},
        {CODE_PHOTO, R, R, REFUSE},
        {CODE_LAST_PHOTO, F, F, REFUSE},
        {CODE_PHOTO_FAILED, REFUSE, F, REFUSE},
        {CODE_DISCONNECTED_BEFORE_SEND, F, REFUSE, REFUSE},
        {1001201903, F, F, REFUSE},
        {1001201904, F, F, REFUSE},
        {1001201907, F, F, REFUSE},
        {1001201909, F, F, REFUSE},
        {1001201911, F, F, REFUSE},
        {1001201917, F, F, REFUSE},
        {CODE_CAMERA_STARTED, W, R, F},
        {1001201902, REFUSE, REFUSE, REFUSE},
        {1001201906, REFUSE, REFUSE, REFUSE},
        {1001201908, REFUSE, REFUSE, REFUSE},
        {1001201910, REFUSE, REFUSE, REFUSE},
        {1001201913, REFUSE, REFUSE, REFUSE},
        {1001201914, REFUSE, REFUSE, REFUSE},
        {1001201915, REFUSE, REFUSE, REFUSE},
        {1001201916, REFUSE, REFUSE, REFUSE},
        {0, REFUSE, REFUSE, REFUSE},
    };
    for (const Row& row : rows) {
        const int expected[] = {row.fromWaiting, row.fromReceiving, row.fromFinished};
        for (uint32_t from : {W, R, F}) {
            SCOPED_TRACE(testing::Message() << "code " << row.code << " from " << from);
            CameraProcessState state(1, "NET", nullptr);
            state.SetStatus(from);
            const bool accepted = state.UpdateProcessState(1, row.code);
            EXPECT_EQ(accepted, expected[from] != REFUSE);
            EXPECT_EQ(state.GetStatus(), expected[from] == REFUSE ? from : static_cast<uint32_t>(expected[from]));
        }
    }
}

TEST(SpineStateTest, UpdateRemoteStateKnowsOnlyTheReducedTable)
{
    const Row rows[] = {
        {CODE_PHOTO_FAILED, REFUSE, F, REFUSE},    {CODE_DISCONNECTED_BEFORE_SEND, F, REFUSE, REFUSE},
        {CODE_PHOTO_COUNT, R, REFUSE, REFUSE},     {CODE_PHOTO, R, R, REFUSE},
        {CODE_LAST_PHOTO, REFUSE, REFUSE, REFUSE}, {CODE_CAMERA_STARTED, REFUSE, REFUSE, REFUSE},
        {1001201907, REFUSE, REFUSE, REFUSE},
    };
    for (const Row& row : rows) {
        const int expected[] = {row.fromWaiting, row.fromReceiving, row.fromFinished};
        for (uint32_t from : {W, R, F}) {
            SCOPED_TRACE(testing::Message() << "code " << row.code << " from " << from);
            CameraProcessState state(1, "NET", nullptr);
            state.SetStatus(from);
            EXPECT_EQ(state.UpdateRemoteState(row.code), expected[from] != REFUSE);
            EXPECT_EQ(state.GetStatus(), expected[from] == REFUSE ? from : static_cast<uint32_t>(expected[from]));
        }
    }
}

TEST(SpineStateTest, CameraStatusChangesOnlyAlongItsRules)
{
    struct Case {
        uint32_t from;
        uint32_t to;
        bool changed;
    };
    const Case cases[] = {
        {1, 3, true}, {1, 4, true}, {2, 3, false}, {3, 4, false}, {4, 3, false}, {3, 3, false},
        {1, 2, true}, {3, 2, true}, {4, 2, true},  {2, 2, true},  {1, 1, false}, {1, 5, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.from << " -> " << c.to);
        PutPhotoContext context(9);
        if (c.from != PutPhotoContext::CAMERA_RUNNING) {
            ASSERT_TRUE(context.ChangeCameraStatus(c.from).first);  // every status is reachable from 1
        }
        ASSERT_EQ(context.GetCameraStatus(), c.from);
        const auto [changed, found] = context.ChangeCameraStatus(c.to);
        EXPECT_EQ(changed, c.changed);
        EXPECT_EQ(found, c.from);
        EXPECT_EQ(context.GetCameraStatus(), c.changed ? c.to : c.from);
    }
}

TEST(SpineStateTest, HeaderIsTheTwoWordsLittleEndian)
{
    CameraMsgHeader header{CODE_CAMERA_STARTED, 0};
    unsigned char bytes[sizeof(header)];
    std::memcpy(bytes, &header, sizeof(header));
    const unsigned char expected[] = {0xFF, 0x20, 0xAD, 0x3B, 0, 0, 0, 0};  // 1001201919 = 0x3BAD20FF
    ASSERT_EQ(sizeof(bytes), sizeof(expected));
    EXPECT_EQ(std::memcmp(bytes, expected, sizeof(expected)), 0);
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
