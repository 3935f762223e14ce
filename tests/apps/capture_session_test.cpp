// The capture modes as a table: inputs fed in order, the actions they give.
#include "capture_session.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace QUEX::Tandra::CameraApp {
namespace {

struct Row {
    const char* name;
    CaptureMode mode;
    uint32_t count;
    uint32_t countdown;
    std::string inputs;    // 't' a tick, 'E' the end of input, anything else a key
    std::string expected;  // per input: W wait, 3.. countdown value, T take, F finish, C cancel
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

char Code(const CaptureAction& action)
{
    switch (action.step) {
        case CaptureStep::Wait:
            return 'W';
        case CaptureStep::Countdown:
            return static_cast<char>('0' + action.value);
        case CaptureStep::Take:
            return 'T';
        case CaptureStep::Finish:
            return 'F';
        case CaptureStep::Cancel:
            return 'C';
    }
    return '?';
}

const Row ROWS[] = {
    {"AutoCountsDownThenTakesThenFinishes", CaptureMode::Automatic, 2, 3, "tttttttt", "321TTFWW"},
    {"AutoWithoutCountdown", CaptureMode::Automatic, 1, 0, "tt", "TF"},
    {"AutoIgnoresEnterAndEndOfInput", CaptureMode::Automatic, 1, 1, "\nEtt", "WW1T"},
    {"AutoCancelDuringCountdown", CaptureMode::Automatic, 3, 3, "tct", "3CW"},
    {"AutoFinishEarlyKeepsWhatWasTaken", CaptureMode::Automatic, 3, 0, "ttqt", "TTFW"},
    {"AutoNothingRequestedIsACancel", CaptureMode::Automatic, 0, 3, "t", "C"},
    {"InteractiveEnterTakesUpToCount", CaptureMode::Interactive, 2, 3, "t\n\rt\n", "WTTFW"},
    {"InteractiveEnterBeyondCountWaits", CaptureMode::Interactive, 1, 0, "\n\nt", "TWF"},
    {"InteractiveNoLimitUntilQ", CaptureMode::Interactive, 0, 0, "\n\n\ntxQ", "TTTWWF"},
    {"InteractiveQBeforeAnyPhotoIsACancel", CaptureMode::Interactive, 3, 0, "q", "C"},
    {"InteractiveCancelAfterPhotos", CaptureMode::Interactive, 3, 0, "\nC\n", "TCW"},
    {"InteractiveEndOfInputFinishes", CaptureMode::Interactive, 3, 0, "\nE", "TF"},
    {"InteractiveEndOfInputBeforeAnyIsACancel", CaptureMode::Interactive, 3, 0, "E", "C"},
};

class CaptureSessionTable : public testing::TestWithParam<Row> {};

TEST_P(CaptureSessionTable, ActionsFollowInputs)
{
    const Row& row = GetParam();
    CaptureSession session(row.mode, row.count, row.countdown);
    std::string actual;
    std::vector<uint32_t> taken;
    for (char input : row.inputs) {
        CaptureAction action = input == 't'   ? session.Tick()
                               : input == 'E' ? session.Key(CaptureSession::END_OF_INPUT)
                                              : session.Key(input);
        actual += Code(action);
        if (action.step == CaptureStep::Take) {
            taken.push_back(action.value);
        }
        if (action.step == CaptureStep::Finish || action.step == CaptureStep::Cancel) {
            EXPECT_EQ(action.value, session.Taken());
        }
    }
    EXPECT_EQ(actual, row.expected);
    for (size_t i = 0; i < taken.size(); ++i) {
        EXPECT_EQ(taken[i], i) << "photos are numbered in order from 0";
    }
    bool ended = row.expected.find_first_of("FC") != std::string::npos;
    EXPECT_EQ(session.Done(), ended);
}

INSTANTIATE_TEST_SUITE_P(CaptureModes, CaptureSessionTable, testing::ValuesIn(ROWS),
                         [](const testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace QUEX::Tandra::CameraApp
