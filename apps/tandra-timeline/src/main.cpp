// tandra-timeline: the behaviour events of several devices as one timeline: an HTML page, an SVG
// and a side-by-side text view for the terminal.
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "timeline.h"
#include "atomic_file.h"
#include "timeline_render.h"
#include "timeline_text.h"

using namespace QUEX::Tandra::Timeline;

namespace {

bool WriteFile(const std::string& path, const std::string& contents)
{
    std::string error;
    if (!Vex::WriteFileAtomically(path, contents.data(), contents.size(), &error)) {
        std::cerr << "tandra-timeline: " << error << "\n";
        return false;
    }
    return true;
}

size_t TerminalWidth()
{
    winsize size{};
    if (isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 40) {
        return size.ws_col;
    }
    return 110;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"tandra-timeline: shows the behaviour events of several devices side by side on one time axis"};
    std::vector<std::string> inputs;
    std::string htmlPath;
    std::string svgPath;
    bool text = false;
    size_t width = 0;
    RenderOptions options;
    app.add_option("files", inputs,
                   "Event files (JSON lines), one per device; FILE=LABEL names the device when the events do not")
        ->required();
    app.add_option("--html", htmlPath, "Write a self-contained HTML page here");
    app.add_option("--svg", svgPath, "Write an SVG picture here");
    app.add_flag("--text", text, "Print the side-by-side text timeline (the default without --html or --svg)");
    app.add_option("--width", width, "Width of the text timeline in characters (default: the terminal's)");
    app.add_option("--title", options.title, "Title of the picture")->capture_default_str();
    app.footer(
        "Exit status: 0 written, 1 a file could not be read or written or held no events, 2 bad arguments.\n"
        "Lines that are not events are reported with file:line and skipped.");
    CLI11_PARSE(app, argc, argv);

    std::vector<TimelineEvent> events;
    std::vector<std::string> problems;
    bool readAll = true;
    for (const std::string& input : inputs) {
        std::string path = input;
        std::string label;
        size_t equals = input.rfind('=');
        if (equals != std::string::npos && !std::filesystem::exists(input)) {
            path = input.substr(0, equals);
            label = input.substr(equals + 1);
        }
        readAll &= ReadEventFile(path, label, events, problems);
    }
    for (const std::string& problem : problems) {
        std::cerr << "tandra-timeline: " << problem << "\n";
    }
    if (!readAll) {
        return 1;
    }
    if (events.empty()) {
        std::cerr << "tandra-timeline: no events in " << inputs.size() << " file" << (inputs.size() == 1 ? "" : "s")
                  << " (did the devices run with event logging?)\n";
        return 1;
    }
    Timeline timeline = BuildTimeline(std::move(events));
    bool ok = true;
    if (!htmlPath.empty()) {
        ok &= WriteFile(htmlPath, RenderHtml(timeline, options));
    }
    if (!svgPath.empty()) {
        ok &= WriteFile(svgPath, RenderSvg(timeline, options));
    }
    if (text || (htmlPath.empty() && svgPath.empty())) {
        std::cout << RenderText(timeline, width > 0 ? width : TerminalWidth());
    }
    return ok ? 0 : 1;
}
