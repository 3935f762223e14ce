// The requesting side's state machine as the receive path consults it: every peer code from
// each of the three states, accepted or refused, and the state it leaves behind.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "camera_ability_process.h"

namespace QUEX {
namespace Tandra {
namespace {

constexpr int REFUSE = -1;
constexpr uint32_t WAITING = CameraProcessState::STATUS_WAITING;
constexpr uint32_t RECEIVING = CameraProcessState::STATUS_RECEIVING;
constexpr uint32_t FINISHED = CameraProcessState::STATUS_FINISHED;
constexpr int STAY = -2;  // accepted, state unchanged

struct Row {
    uint32_t code;
    // Per starting state (waiting, receiving, finished): the state after, REFUSE or STAY.
    int after[3];
};

const std::vector<Row> TABLE = {
    {1001201912, {RECEIVING, REFUSE, REFUSE}},     // photo count
    {1001201918, {RECEIVING, RECEIVING, REFUSE}},  // photo, not last
    {1001200000, {FINISHED, FINISHED, REFUSE}},    // last photo
    {1001201901, {REFUSE, FINISHED, REFUSE}},      // photo failed
    {1001201905, {FINISHED, REFUSE, REFUSE}},      // disconnected before sending
    {1001201903, {FINISHED, FINISHED, REFUSE}},
    {1001201904, {FINISHED, FINISHED, REFUSE}},
    {1001201907, {FINISHED, FINISHED, REFUSE}},
    {1001201909, {FINISHED, FINISHED, REFUSE}},
    {1001201911, {FINISHED, FINISHED, REFUSE}},
    {1001201917, {FINISHED, FINISHED, REFUSE}},
    {1001201919, {STAY, STAY, STAY}},  // camera started
    {1001201902, {REFUSE, REFUSE, REFUSE}},
    {1001201906, {REFUSE, REFUSE, REFUSE}},
    {1001201908, {REFUSE, REFUSE, REFUSE}},  // in the failure row of the dispatch, refused here
    {1001201910, {REFUSE, REFUSE, REFUSE}},
    {1001201913, {REFUSE, REFUSE, REFUSE}},
    {1001201914, {REFUSE, REFUSE, REFUSE}},
    {1001201915, {REFUSE, REFUSE, REFUSE}},
    {1001201916, {REFUSE, REFUSE, REFUSE}},
    {1001202000, {REFUSE, REFUSE, REFUSE}},  // an application code, never a peer's
    {12345, {REFUSE, REFUSE, REFUSE}},
};

TEST(MessagesStateTest, EveryCodeFromEveryState)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    ASSERT_NE(process, nullptr);
    uint32_t collaborationId = 100;
    for (const Row& row : TABLE) {
        for (uint32_t from : {WAITING, RECEIVING, FINISHED}) {
            ++collaborationId;
            auto state = std::make_shared<CameraProcessState>(collaborationId, "PEERNETWORKID0001", nullptr);
            state->SetStatus(from);
            ASSERT_TRUE(process->AddCameraProcess(collaborationId, state));

            const int expected = row.after[from];
            const bool accepted = process->CheckAndUpdateState(collaborationId, row.code);
            SCOPED_TRACE("code " + std::to_string(row.code) + " from " + std::to_string(from));
            EXPECT_EQ(accepted, expected != REFUSE);
            const uint32_t after = (expected == REFUSE || expected == STAY) ? from : static_cast<uint32_t>(expected);
            EXPECT_EQ(state->GetStatus(), after);
            process->EraseCameraProcess(collaborationId);
        }
    }
}

TEST(MessagesStateTest, UnknownCollaborationIsRefused)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    ASSERT_NE(process, nullptr);
    EXPECT_FALSE(process->CheckAndUpdateState(999, 1001201919));
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
