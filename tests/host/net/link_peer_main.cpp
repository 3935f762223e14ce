// A device link in its own process for tests: trusts on first use, dials the given static
// peer, accepts every session, prints its network id and then waits until killed.
// With "dns-sd" after the peer ("-" for none) it listens on every address and uses DNS-SD.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "host_types.h"
#include "net_soft_bus.h"

namespace {

class AcceptAll : public QUEX::Tandra::SoftBusListener {
public:
    int32_t OnCtrlSessionOpened(const QUEX::Tandra::CtrlSessionInfo&, const std::string&) override { return 0; }
    void OnCtrlSessionClosed(const QUEX::Tandra::CtrlSessionInfo&) override {}
    void OnCtrlMessage(const QUEX::Tandra::CtrlSessionInfo&, const char*, uint32_t, uint32_t) override {}
    void OnDataMessage(int32_t, const QUEX::Tandra::CtrlSessionInfo*, const char*, uint32_t, uint32_t) override {}
};

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3 && !(argc == 4 && std::string(argv[3]) == "dns-sd")) {
        std::fprintf(stderr, "usage: %s STATE_DIR HOST:PORT|- [dns-sd]\n", argv[0]);
        return 2;
    }
    bool dnsSd = argc == 4;
    QUEX::Tandra::NetBusConfig config;
    config.stateDir = argv[1];
    config.deviceName = "helper";
    config.bindAddress = dnsSd ? "0.0.0.0" : "127.0.0.1";
    config.trustOnFirstUse = true;
    config.dnsSd = dnsSd;
    if (std::string(argv[2]) != "-") {
        config.staticPeers = {argv[2]};
    }
    std::string error;
    auto bus = QUEX::Tandra::NetSoftBus::Create(config, &error);
    AcceptAll listener;
    if (!bus || (bus->SetListener(&listener), bus->Start(&error)) != QUEX::Tandra::HOST_OK) {
        std::fprintf(stderr, "link peer: %s\n", error.c_str());
        return 1;
    }
    std::printf("%s\n", bus->GetLocalIdentity().networkId.c_str());
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}
