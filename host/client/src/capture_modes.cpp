#include "capture_modes.h"

namespace QUEX {
namespace Tandra {
namespace Client {
namespace {
struct ModeRow {
    CaptureMode mode;
    const char* name;
    const char* abilityType;
};
constexpr ModeRow MODES[] = {
    {CaptureMode::PHOTO, "photo", "tandra.CameraAbility.TakePhoto"},
    {CaptureMode::SCAN, "scan", "tandra.CameraAbility.Scan"},
    {CaptureMode::PICK, "pick", "tandra.CameraAbility.Pick"},
};

const ModeRow& RowOf(CaptureMode mode)
{
    for (const ModeRow& row : MODES) {
        if (row.mode == mode) {
            return row;
        }
    }
    return MODES[0];
}
}  // namespace

const char* CaptureModeName(CaptureMode mode)
{
    return RowOf(mode).name;
}

const char* AbilityTypeOf(CaptureMode mode)
{
    return RowOf(mode).abilityType;
}

bool ParseCaptureMode(const std::string& name, CaptureMode& mode)
{
    for (const ModeRow& row : MODES) {
        if (name == row.name) {
            mode = row.mode;
            return true;
        }
    }
    return false;
}

bool CaptureModeOfAbilityType(const std::string& abilityType, CaptureMode& mode)
{
    for (const ModeRow& row : MODES) {
        if (abilityType == row.abilityType) {
            mode = row.mode;
            return true;
        }
    }
    return false;
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
