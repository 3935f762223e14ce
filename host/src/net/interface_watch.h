// InterfaceWatch: the administrative state (IFF_UP) of one network interface, read once at
// start and then followed through rtnetlink link notifications on the io_context (no polling).
// A missing interface counts as down. Carrier loss is not "down": a cut link is the
// heartbeats' business.
// Thread-safety: IsUp from any thread; Start and Stop on the io_context's thread or before it
// runs; the callback runs on the io_context.
#pragma once

#include <asio.hpp>

#include <atomic>
#include <functional>
#include <string>

namespace QUEX {
namespace Tandra {

class InterfaceWatch {
public:
    explicit InterfaceWatch(asio::io_context& io) : socket_(io) {}
    // False and *error when rtnetlink cannot be opened.
    bool Start(const std::string& interfaceName, std::function<void(bool up)> changed, std::string* error);
    void Stop();
    bool IsUp() const { return up_.load(); }

private:
    void Read();
    void Handle(size_t len);

    asio::posix::stream_descriptor socket_;
    std::string name_;
    std::function<void(bool)> changed_;
    std::atomic<bool> up_{true};
    alignas(8) char buffer_[16384];
};

}  // namespace Tandra
}  // namespace QUEX
