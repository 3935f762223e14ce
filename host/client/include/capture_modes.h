// The three things a requesting application can ask of another device's camera, and the
// ability type each is asked for with (the type the serving device starts its camera
// application for, and the type the camera application reads back from its start parameters).
// Thread-safety: constants and pure functions.
#pragma once

#include <string>

namespace QUEX {
namespace Tandra {
namespace Client {

enum class CaptureMode {
    PHOTO,  // take photos
    SCAN,   // scan documents
    PICK,   // pick existing images
};

// "photo", "scan", "pick".
const char* CaptureModeName(CaptureMode mode);
bool ParseCaptureMode(const std::string& name, CaptureMode& mode);
// "tandra.CameraAbility.TakePhoto", "tandra.CameraAbility.Scan", "tandra.CameraAbility.Pick".
const char* AbilityTypeOf(CaptureMode mode);
// False for a type that is none of the three.
bool CaptureModeOfAbilityType(const std::string& abilityType, CaptureMode& mode);

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
