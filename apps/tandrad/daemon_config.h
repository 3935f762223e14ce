// DaemonConfig: everything a device's daemon is told at start, from its command line and an
// optional configuration file (INI or TOML: `key = value`, the long flag names without dashes).
// ParseDaemonConfig fills it and checks it; errors name the flag and what to do about it.
// Thread-safety: a plain value, built once on the main thread before anything starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace QUEX {
namespace Tandra {

struct DaemonConfig {
    std::string deviceName;          // default: the host name
    uint32_t deviceType = 0x0E;      // a phone; see --help for the values
    std::string stateDir;            // identity, trusted devices, events.jsonl
    std::string socketPath;          // the applications' IPC socket
    std::string pluginPath;          // the camera plugin library
    std::string abilitiesDir;        // ability manifests (JSON)
    std::string bindAddress = "0.0.0.0";
    uint16_t port = 47810;           // TLS link port; 0 picks a free one
    uint16_t discoveryPort = 47811;  // UDP broadcast discovery; 0 turns it off
    std::string broadcastAddress = "255.255.255.255";
    std::vector<std::string> staticPeers;  // host:port
    std::string interfaceName;       // the network interface carrying the links ("Wi-Fi")
    bool trustOnFirstUse = false;
    bool verbose = false;
    double clockSpeedup = 1.0;       // testing: every timed wait of host and plugin runs this much faster
};

// 0 with config filled; otherwise the process exit status to use (0 after --help) with the
// message to print in *message.
int ParseDaemonConfig(int argc, char** argv, DaemonConfig& config, std::string* message);

// The folder of this executable: the plugin, the manifests and the programs they start are
// found relative to it, so the same binary works from the build tree and an installed prefix.
std::string ExecutableDir();

}  // namespace Tandra
}  // namespace QUEX
