// What the cross-process IPC tests and their helper process agree on: ability ids, request
// codes and descriptors.
#pragma once

#include <cstdint>

namespace Vex::IpcTest {

constexpr int32_t REGISTRY_ABILITY_ID = 9001;  // served by the test process
constexpr int32_t HELPER_ABILITY_ID = 9002;    // served by the helper in "serve" mode

constexpr char16_t REGISTRY_DESCRIPTOR[] = u"test.IRegistry";
constexpr char16_t ECHO_DESCRIPTOR[] = u"test.IEcho";
constexpr char16_t LEAF_DESCRIPTOR[] = u"test.ILeaf";

enum : uint32_t {
    REGISTER = 1,      // helper -> test: the helper's callback object
    ECHO = 2,          // int32 v -> v + 1, calling pid, calling uid, own pid
    EXCHANGE = 3,      // object, fd, int32 -> the object back, a fresh fd, a fresh object, ping result
    BIG = 4,           // uint32 size -> raw data of that size, byte i = (i * 31 + 7) & 0xFF
    SLOW = 5,          // blocks until RELEASE_SLOW
    RELEASE_SLOW = 6,
    NEVER = 7,         // does not answer within the caller's wait
    LEAK_ROUND = 8,    // object, fd -> the object back, a fresh object, a fresh fd
    STATS = 9,         // expected exported, proxies, fds (SIZE_MAX: any) -> actual ones once settled
    PING = 10,         // test's object: int32 v -> v * 2
};

inline uint8_t PatternByte(size_t i)
{
    return static_cast<uint8_t>((i * 31 + 7) & 0xFF);
}

}  // namespace Vex::IpcTest
