// Link socket buffers: fixed at the link's size only where the system's limits allow all of
// it, since a fixed buffer turns the kernel's auto-tuning off and a capped one is worse.
#include "link_socket_buffers.h"
#include "link_test_support.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace QUEX {
namespace Tandra {
namespace {

TEST(LinkSocketBuffersTest, FixedOnlyWhereBothLimitsAllowTheWholeSize)
{
    const size_t whole = LINK_SOCKET_BUFFER;
    struct Case {
        const char* name;
        size_t rmemMax;
        size_t wmemMax;
        size_t expected;
    };
    const Case cases[] = {
        {"stock limits keep auto-tuning", 212992, 212992, 0},
        {"a receive limit just short", whole - 1, whole, 0},
        {"a send limit just short", whole, whole - 1, 0},
        {"unreadable limits keep auto-tuning", 0, 0, 0},
        {"limits exactly the size", whole, whole, whole},
        {"generous limits", size_t{64} << 20, size_t{64} << 20, whole},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(LinkSocketBufferFor(c.rmemMax, c.wmemMax), c.expected) << c.name;
    }
}

TEST(LinkSocketBuffersTest, ALimitIsReadAsANumberOrNotAtAll)
{
    Testing::TempDir dir;
    const std::string path = dir.Path() + "/limit";
    struct Case {
        const char* content;
        size_t expected;
    };
    const Case cases[] = {{"4194304\n", 4194304}, {"212992", 212992}, {"", 0}, {"max\n", 0}};
    for (const Case& c : cases) {
        std::FILE* out = std::fopen(path.c_str(), "w");
        ASSERT_NE(out, nullptr);
        std::fputs(c.content, out);
        std::fclose(out);
        EXPECT_EQ(ReadSysctlBytes(path), c.expected) << "content '" << c.content << "'";
    }
    EXPECT_EQ(ReadSysctlBytes(dir.Path() + "/missing"), 0u) << "a missing file";
}

// On this machine's own limits: a connected socket ends up with the whole size, or keeps the
// buffer it had (auto-tuning) where the limits are lower.
TEST(LinkSocketBuffersTest, AConnectedSocketGetsTheSizeTheLimitsAllow)
{
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    socklen_t length = sizeof(address);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(client, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    int server = accept(listener, nullptr, nullptr);
    ASSERT_GE(server, 0);

    auto bufferSize = [server](int option) {
        int value = 0;
        socklen_t size = sizeof(value);
        getsockopt(server, SOL_SOCKET, option, &value, &size);
        return value;
    };
    const int before = bufferSize(SO_RCVBUF);
    SizeLinkSocketBuffers(server);
    const int receive = bufferSize(SO_RCVBUF);
    const int send = bufferSize(SO_SNDBUF);
    close(server);
    close(client);
    close(listener);

    const size_t allowed = LinkSocketBufferFor(ReadSysctlBytes("/proc/sys/net/core/rmem_max"),
                                               ReadSysctlBytes("/proc/sys/net/core/wmem_max"));
    if (allowed == 0) {
        EXPECT_EQ(receive, before) << "this system's limits are below the link's size";
    } else {
        // The kernel doubles what it is asked for, to leave room for its own bookkeeping.
        EXPECT_GE(static_cast<size_t>(receive), allowed);
        EXPECT_GE(static_cast<size_t>(send), allowed);
    }
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
