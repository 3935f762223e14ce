#include "photo_source.h"

#include <cmath>
#include <cstdlib>

#include "folder_source.h"
#include "generated_source.h"
#include "v4l2_source.h"

namespace QUEX::Tandra::CameraApp {

namespace {

bool TryOpen(std::unique_ptr<PhotoSource> candidate, SourceChoice& choice)
{
    std::string error;
    if (candidate->Open(&error)) {
        choice.source = std::move(candidate);
        return true;
    }
    choice.skipped.push_back(error);
    return false;
}

bool TryCamera(const PhotoSourceOptions& options, SourceChoice& choice)
{
    if (!options.cameraPath.empty()) {
        return TryOpen(std::make_unique<V4l2Source>(options.cameraPath, options), choice);
    }
    std::vector<std::string> devices = ListVideoDevices(options.cameraDir);
    if (devices.empty()) {
        choice.skipped.push_back("no camera: " + options.cameraDir + " has no video device");
        return false;
    }
    for (const std::string& device : devices) {
        if (TryOpen(std::make_unique<V4l2Source>(device, options), choice)) {
            return true;
        }
    }
    return false;
}

}  // namespace

SourceChoice ChoosePhotoSource(const PhotoSourceOptions& options)
{
    SourceChoice choice;
    switch (options.kind) {
        case SourceKind::Camera:
            TryCamera(options, choice);
            break;
        case SourceKind::Folder:
            TryOpen(std::make_unique<FolderSource>(options.folder), choice);
            break;
        case SourceKind::Generated:
            TryOpen(std::make_unique<GeneratedSource>(options), choice);
            break;
        case SourceKind::Auto:
            if (!TryCamera(options, choice) &&
                (options.folder.empty() || !TryOpen(std::make_unique<FolderSource>(options.folder), choice))) {
                TryOpen(std::make_unique<GeneratedSource>(options), choice);
            }
            break;
    }
    return choice;
}

bool ParseImageSize(const std::string& text, uint32_t* width, uint32_t* height)
{
    size_t x = text.find_first_of("xX");
    if (x == std::string::npos || x == 0 || x + 1 >= text.size()) {
        return false;
    }
    auto parse = [](const std::string& part, uint32_t* out) {
        if (part.empty() || part.find_first_not_of("0123456789") != std::string::npos || part.size() > 6) {
            return false;
        }
        *out = static_cast<uint32_t>(std::stoul(part));
        return *out > 0;
    };
    return parse(text.substr(0, x), width) && parse(text.substr(x + 1), height);
}

bool ParseByteSize(const std::string& text, uint64_t* bytes)
{
    const char* begin = text.c_str();
    char* end = nullptr;
    double value = std::strtod(begin, &end);
    if (end == begin || !(value >= 0) || text.find_first_of("eE") != std::string::npos ||
        text.find_first_not_of("0123456789.kKmMgGiIbB") != std::string::npos) {
        return false;
    }
    std::string unit(end);
    double scale = 1;
    if (unit.empty() || unit == "B" || unit == "b") {
        scale = 1;
    } else if (unit == "k" || unit == "K" || unit == "KiB" || unit == "kiB" || unit == "KB") {
        scale = 1024.0;
    } else if (unit == "M" || unit == "m" || unit == "MiB" || unit == "MB") {
        scale = 1024.0 * 1024;
    } else if (unit == "G" || unit == "g" || unit == "GiB" || unit == "GB") {
        scale = 1024.0 * 1024 * 1024;
    } else {
        return false;
    }
    double result = std::floor(value * scale);
    if (result > 16.0 * 1024 * 1024 * 1024) {  // far beyond any photo
        return false;
    }
    *bytes = static_cast<uint64_t>(result);
    return true;
}

}  // namespace QUEX::Tandra::CameraApp
