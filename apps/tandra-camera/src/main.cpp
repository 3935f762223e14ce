// tandra-camera, stand-alone: takes photos from the best source there is and saves them in a
// folder. The daemon-facing part (events, put-image, cancel) is added around the same pieces.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <map>

#include "capture_session.h"
#include "photo_source.h"
#include "photo_writer.h"

using namespace QUEX::Tandra::CameraApp;

namespace {

constexpr int EXIT_CANCELLED = 3;
constexpr int EXIT_SOURCE = 4;
constexpr int EXIT_SAVE = 5;

// Puts the terminal in single-key mode for as long as it lives, so Enter, 'c' and 'q' arrive
// as pressed.
class RawTerminal {
public:
    RawTerminal()
    {
        if (isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &saved_) == 0) {
            termios raw = saved_;
            raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
            active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
        }
    }
    ~RawTerminal()
    {
        if (active_) {
            tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
        }
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

private:
    termios saved_{};
    bool active_ = false;
};

// A key within timeoutMs (-1: wait for ever); 0 when none came, END_OF_INPUT at the end.
int ReadKey(int timeoutMs, bool* inputOpen)
{
    if (!*inputOpen) {
        if (timeoutMs > 0) {
            poll(nullptr, 0, timeoutMs);
        }
        return 0;
    }
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (poll(&in, 1, timeoutMs) <= 0) {
        return 0;
    }
    unsigned char c = 0;
    if (read(STDIN_FILENO, &c, 1) != 1) {
        *inputOpen = false;
        return CaptureSession::END_OF_INPUT;
    }
    return c;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"tandra-camera: takes photos with this device's camera, a folder of images or a generated test card"};
    PhotoSourceOptions options;
    uint32_t count = 3;
    std::string out = "photos";
    std::string size;
    std::string targetSize;
    std::string source = "auto";
    bool interactive = false;
    uint32_t countdown = 3;
    app.add_option("--generate,-n", count, "Number of photos to take (interactive: 0 for no limit)")
        ->capture_default_str();
    app.add_option("--out,-o", out, "Folder to save the photos in")->capture_default_str();
    app.add_option("--source", source,
                   "Where photos come from: auto (camera, else --from-dir, else generated), "
                   "camera, folder or generated")
        ->check(CLI::IsMember({"auto", "camera", "folder", "generated"}))
        ->capture_default_str();
    app.add_option("--from-dir", options.folder, "Folder of image files to send as they are, in name order");
    app.add_option("--camera", options.cameraPath, "V4L2 camera to use (default: the first usable /dev/video*)");
    app.add_option("--size", size, "Photo size WIDTHxHEIGHT asked of the camera or generated (default 1280x720)");
    app.add_option("--target-size", targetSize,
                   "Pad generated photos to this many bytes (e.g. 4MiB, 128M) with JPEG application segments");
    app.add_option("--quality", options.quality, "JPEG quality 1-100")->capture_default_str();
    app.add_option("--device-name", options.deviceName, "Name written on generated photos")->capture_default_str();
    app.add_flag("--interactive,-i", interactive, "Enter takes a photo, c cancels, q finishes");
    app.add_option("--countdown", countdown, "Seconds counted down before automatic photos")->capture_default_str();
    app.footer(
        "Exit status: 0 photos saved, 2 bad arguments, 3 cancelled, 4 no photo source works, "
        "5 a photo could not be taken or saved.");
    CLI11_PARSE(app, argc, argv);

    if (!size.empty() && !ParseImageSize(size, &options.width, &options.height)) {
        std::cerr << "tandra-camera: --size " << size << " is not WIDTHxHEIGHT, e.g. 1920x1080\n";
        return 2;
    }
    if (!targetSize.empty() && !ParseByteSize(targetSize, &options.targetBytes)) {
        std::cerr << "tandra-camera: --target-size " << targetSize << " is not a size such as 4MiB or 500k\n";
        return 2;
    }
    const std::map<std::string, SourceKind> kinds = {{"auto", SourceKind::Auto},
                                                     {"camera", SourceKind::Camera},
                                                     {"folder", SourceKind::Folder},
                                                     {"generated", SourceKind::Generated}};
    options.kind = kinds.at(source);

    SourceChoice choice = ChoosePhotoSource(options);
    for (const std::string& reason : choice.skipped) {
        std::cerr << (choice.source ? "note: " : "tandra-camera: ") << reason << "\n";
    }
    if (!choice.source) {
        return EXIT_SOURCE;
    }
    PhotoWriter writer(out);
    std::string error;
    if (!writer.Prepare(&error)) {
        std::cerr << "tandra-camera: " << error << "\n";
        return EXIT_SAVE;
    }
    std::cout << "Photo source: " << choice.source->Describe() << std::endl;
    if (interactive) {
        std::cout << "Press Enter to take a photo, c to cancel, q to finish." << std::endl;
    }

    RawTerminal terminal;
    bool inputOpen = true;
    CaptureSession session(interactive ? CaptureMode::Interactive : CaptureMode::Automatic, count, countdown);
    Photo photo;
    CaptureAction action = session.Tick();
    for (;;) {
        switch (action.step) {
            case CaptureStep::Wait:
                action = session.Key(ReadKey(-1, &inputOpen));
                continue;
            case CaptureStep::Countdown: {
                std::cout << "Taking photos in " << action.value << "..." << std::endl;
                int key = ReadKey(1000, &inputOpen);
                action = key != 0 ? session.Key(key) : session.Tick();
                if (key != 0 && action.step == CaptureStep::Wait) {
                    action = session.Tick();
                }
                continue;
            }
            case CaptureStep::Take: {
                std::string path;
                if (choice.source->Capture(action.value, photo, &error) != PHOTO_OK ||
                    !writer.Save(action.value, photo, &path, &error)) {
                    std::cerr << "tandra-camera: " << error << "\n";
                    return EXIT_SAVE;
                }
                std::cout << "Saved " << path << " (" << photo.size << " bytes)" << std::endl;
                action = session.Tick();
                continue;
            }
            case CaptureStep::Finish:
                std::cout << "Finished: " << action.value << " photo" << (action.value == 1 ? "" : "s") << " in " << out
                          << std::endl;
                return 0;
            case CaptureStep::Cancel:
                std::cout << "Cancelled." << std::endl;
                return EXIT_CANCELLED;
        }
    }
}
