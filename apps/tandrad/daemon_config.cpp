#include "daemon_config.h"

#include "tandra_paths.h"

#include <limits.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <sstream>
#include <cstdlib>

namespace QUEX {
namespace Tandra {

namespace {

std::string Env(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string HostName()
{
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') {
        return "tandra-device";
    }
    return name;
}

std::string DefaultStateDir()
{
    if (getuid() == 0) {
        return "/var/lib/tandra";
    }
    std::string base = Env("XDG_STATE_HOME");
    if (base.empty()) {
        base = Env("HOME") + "/.local/state";
    }
    return base + "/tandra";
}

}  // namespace

std::string ExecutableDir()
{
    char path[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) {
        return ".";
    }
    std::string exe(path, static_cast<size_t>(length));
    return exe.substr(0, exe.find_last_of('/'));
}

int ParseDaemonConfig(int argc, char** argv, DaemonConfig& config, std::string* message)
{
    CLI::App app{"tandrad: the Tandra host service of this device. It links to paired devices over TLS,\n"
                 "serves this device's applications on a Unix socket, and starts the camera application\n"
                 "when a paired device asks for photos."};
    app.set_config("--config", "", "Read options from this file (INI/TOML: one `name = value` per line, "
                                   "names as the long flags without dashes)");
    const std::string exeDir = ExecutableDir();
    config.deviceName = HostName();
    config.stateDir = DefaultStateDir();
    config.socketPath = DefaultSocketPath();
    config.pluginPath = exeDir + "/../" TANDRA_LIBDIR "/libtandra_camera.so";
    config.abilitiesDir = exeDir + "/../share/tandra/abilities";

    app.add_option("--name", config.deviceName, "Device name shown to other devices")->capture_default_str();
    app.add_option("--type", config.deviceType,
                   "Device type: 14 (0x0E) phone, 17 (0x11) tablet, 12 (0x0C) computer, 156 (0x9C) TV")
        ->capture_default_str();
    app.add_option("--state-dir", config.stateDir,
                   "Folder for this device's key and certificate, its trusted devices and its behaviour "
                   "events (events.jsonl); created 0700")
        ->capture_default_str();
    app.add_option("--socket", config.socketPath, "Unix socket the applications connect to; its folder is created 0700")
        ->capture_default_str();
    app.add_option("--plugin", config.pluginPath, "The camera plugin library to load")->capture_default_str();
    app.add_option("--abilities", config.abilitiesDir, "Folder of ability manifests (*.json) of installed apps")
        ->capture_default_str();
    app.add_option("--bind", config.bindAddress, "Address the TLS link port listens on")->capture_default_str();
    app.add_option("--port", config.port, "TLS port other devices connect to (0: any free port)")
        ->capture_default_str();
    app.add_option("--discovery-port", config.discoveryPort,
                   "UDP port of broadcast discovery (0: no broadcast discovery)")
        ->capture_default_str();
    app.add_option("--broadcast", config.broadcastAddress,
                   "Address announcements are sent to (127.255.255.255 for devices on this machine)")
        ->capture_default_str();
    app.add_option("--peer", config.staticPeers,
                   "A device to link to at host:port, for networks that drop broadcast (repeatable)");
    app.add_option("--interface", config.interfaceName,
                   "Network interface that carries the links; when it goes down the device is \"Wi-Fi off\" "
                   "(default: none watched)");
    app.add_flag("--trust-on-first-use", config.trustOnFirstUse,
                 "Trust a device the first time it links, without pairing (demos and tests only)");
    app.add_flag("-v,--verbose", config.verbose, "Log debug lines too");
    app.add_option("--clock-speedup", config.clockSpeedup,
                   "Testing only: run every timed wait of the host and the plugin this many times faster "
                   "(the 180-second wait for a peer then takes 180/N seconds)")
        ->check(CLI::Range(1.0, 10000.0));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream out;
        std::ostringstream err;
        int status = app.exit(error, out, err);
        *message = out.str() + err.str();
        return status;
    }
    if (config.deviceName.empty()) {
        *message = "tandrad: --name must not be empty; give this device a name other devices will show\n";
        return 2;
    }
    if (config.stateDir.empty() || config.socketPath.empty()) {
        *message = "tandrad: --state-dir and --socket must name paths\n";
        return 2;
    }
    return 0;
}

}  // namespace Tandra
}  // namespace QUEX
