// rtnetlink link notifications for one interface.
#include "interface_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace QUEX {
namespace Tandra {
namespace {

bool ReadUp(const std::string& name)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    struct ifreq req;
    std::memset(&req, 0, sizeof req);
    std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &req) == 0 && (req.ifr_flags & IFF_UP) != 0;
    ::close(fd);
    return up;
}

}  // namespace

bool InterfaceWatch::Start(const std::string& interfaceName, std::function<void(bool)> changed, std::string* error)
{
    name_ = interfaceName;
    changed_ = std::move(changed);
    int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) {
        *error = std::string("cannot open rtnetlink to watch ") + interfaceName + ": " + std::strerror(errno);
        return false;
    }
    struct sockaddr_nl addr;
    std::memset(&addr, 0, sizeof addr);
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = RTMGRP_LINK;
    if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        *error = std::string("cannot subscribe to rtnetlink link changes: ") + std::strerror(errno);
        ::close(fd);
        return false;
    }
    socket_.assign(fd);
    // Subscribed first, then read: a change in between is not lost.
    up_.store(ReadUp(name_));
    Read();
    return true;
}

void InterfaceWatch::Stop()
{
    asio::error_code ignored;
    socket_.close(ignored);
}

void InterfaceWatch::Read()
{
    socket_.async_read_some(asio::buffer(buffer_), [this](const asio::error_code& ec, size_t n) {
        if (ec == asio::error::operation_aborted || !socket_.is_open()) {
            return;
        }
        if (!ec) {
            Handle(n);
        }
        Read();
    });
}

void InterfaceWatch::Handle(size_t len)
{
    bool seen = false;
    bool up = up_.load();
    for (size_t offset = 0; offset + sizeof(struct nlmsghdr) <= len;) {
        auto* h = reinterpret_cast<struct nlmsghdr*>(buffer_ + offset);
        if (h->nlmsg_len < sizeof(struct nlmsghdr) || h->nlmsg_len > len - offset) {
            break;
        }
        offset += NLMSG_ALIGN(h->nlmsg_len);
        if (h->nlmsg_type != RTM_NEWLINK && h->nlmsg_type != RTM_DELLINK) {
            continue;
        }
        auto* info = static_cast<struct ifinfomsg*>(NLMSG_DATA(h));
        int attrLen = static_cast<int>(IFLA_PAYLOAD(h));
        for (auto* a = IFLA_RTA(info); RTA_OK(a, attrLen); a = RTA_NEXT(a, attrLen)) {
            const char* ifname = static_cast<const char*>(RTA_DATA(a));
            if (a->rta_type == IFLA_IFNAME && std::string(ifname, ::strnlen(ifname, RTA_PAYLOAD(a))) == name_) {
                seen = true;
                up = h->nlmsg_type == RTM_NEWLINK && (info->ifi_flags & IFF_UP) != 0;
            }
        }
    }
    if (seen && up != up_.load()) {
        up_.store(up);
        if (changed_) {
            changed_(up);
        }
    }
}

}  // namespace Tandra
}  // namespace QUEX
