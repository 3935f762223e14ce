// DnsSdDiscovery: this device on DNS-SD (_tandra._tcp) through the Avahi client library, and
// the other devices found there. It publishes this device (service name = device name, TXT
// id=<fingerprint> and type=<device type>) and browses and resolves the others. Where no Avahi
// daemon answers it says so once and stays off: broadcast and static peers still work.
// A TXT id is only a hint where to dial: the TLS handshake proves who answers.
// Thread-safety: Start and Stop from one thread, never from the found handler; the found handler
// runs on Avahi's own thread and may take the caller's locks (this class holds none of its own
// while calling it). Describe may be called from any thread, also under the caller's locks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace QUEX {
namespace Tandra {

constexpr const char* DNS_SD_SERVICE_TYPE = "_tandra._tcp";

// A device as resolved on DNS-SD.
struct DnsSdFound {
    std::string networkId;  // from TXT id=; checked only for its shape
    std::string name;       // the service name
    uint32_t deviceType = 0;
    std::string address;
    uint16_t port = 0;
};

// Turns a resolved service into a device: false and *error for a missing or malformed id, a bad
// type or port, or no address. txt holds the raw "key=value" entries.
bool ParseDnsSdService(const std::string& serviceName, const std::string& address, uint32_t port,
                       const std::vector<std::string>& txt, DnsSdFound* out, std::string* error);

class DnsSdDiscovery {
public:
    using FoundHandler = std::function<void(const DnsSdFound&)>;

    DnsSdDiscovery();
    ~DnsSdDiscovery();  // stops
    DnsSdDiscovery(const DnsSdDiscovery&) = delete;
    DnsSdDiscovery& operator=(const DnsSdDiscovery&) = delete;

    // Publishes and browses. False (logged once, *why says why) when DNS-SD cannot be used,
    // which is not an error for the device link.
    bool Start(const std::string& deviceName, uint32_t deviceType, const std::string& networkId, uint16_t port,
               FoundHandler found, std::string* why);
    // REQUIRES: not from the found handler (it waits for Avahi's thread).
    void Stop();
    // What DNS-SD did, for the "no device found" report: off and why, or how many it resolved.
    std::string Describe() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace Tandra
}  // namespace QUEX
