// tandrad: the Tandra host service of one device. main reads as a list: parse the
// configuration, start the daemon, wait for SIGTERM or SIGINT, stop it in reverse order.
#include <signal.h>
#include <systemd/sd-daemon.h>

#include <cstdio>

#include "daemon.h"
#include "daemon_config.h"

int main(int argc, char** argv)
{
    using namespace QUEX::Tandra;
    DaemonConfig config;
    std::string message;
    if (int status = ParseDaemonConfig(argc, argv, config, &message); status != 0 || !message.empty()) {
        std::fputs(message.c_str(), status == 0 ? stdout : stderr);
        return status;
    }

    // The signals are taken synchronously by sigwait below; every thread started from here on
    // inherits the mask, so none of them is interrupted by them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Daemon daemon(config);
    std::string error;
    if (daemon.Start(&error) != 0) {
        std::fprintf(stderr, "tandrad: %s\n", error.c_str());
        daemon.Stop();
        return 1;
    }
    sd_notify(0, "READY=1");

    int signal = 0;
    sigwait(&stopSignals, &signal);
    sd_notify(0, "STOPPING=1");
    std::fprintf(stderr, "tandrad: %s received, stopping\n", signal == SIGINT ? "SIGINT" : "SIGTERM");
    daemon.Stop();
    return 0;
}
