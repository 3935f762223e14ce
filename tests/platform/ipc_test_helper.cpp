// The other process of the cross-process IPC tests. Modes:
//   app <socket>     connects, registers its callback object with the test's registry, and
//                    serves requests until the connection goes;
//   serve <socket>   serves the socket with its callback object as an ability; writes one
//                    byte to descriptor 3 once listening; runs until killed;
//   raw <socket> <hex:fds>...  sends each chunk (with that many /dev/null descriptors),
//                    shuts its sending side and exits 0 once the server closed the
//                    connection, 3 if it did not within 10 s.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <string>
#include <vector>

#include "ipc_client.h"
#include "ipc_server.h"
#include "ipc_skeleton.h"
#include "ipc_stats.h"
#include "ipc_test_protocol.h"
#include "iremote_stub.h"
#include "system_ability_manager.h"

using namespace Vex;
using namespace Vex::IpcTest;

namespace {

size_t OpenFdCount()
{
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

int PipeWith(const char* text)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    ssize_t ignored = write(fds[1], text, strlen(text));
    (void)ignored;
    close(fds[1]);
    return fds[0];
}

class HelperStub : public IPCObjectStub {
public:
    HelperStub() : IPCObjectStub(ECHO_DESCRIPTOR) {}
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        switch (code) {
            case ECHO:
                reply.WriteInt32(data.ReadInt32() + 1);
                reply.WriteInt32(IPCSkeleton::GetCallingPid());
                reply.WriteInt32(IPCSkeleton::GetCallingUid());
                reply.WriteInt32(getpid());
                return ERR_NONE;
            case EXCHANGE: {
                sptr<IRemoteObject> object = data.ReadRemoteObject();
                int fd = data.ReadFileDescriptor();
                int32_t value = data.ReadInt32();
                if (object == nullptr || fd < 0) {
                    return ERR_INVALID_DATA;
                }
                ssize_t ignored = write(fd, "helper", 6);
                (void)ignored;
                close(fd);
                MessageParcel ping;
                MessageParcel pong;
                MessageOption sync;
                ping.WriteInt32(value);
                int32_t pinged = object->SendRequest(PING, ping, pong, sync) == ERR_NONE ? pong.ReadInt32() : -1;
                int fresh = PipeWith("from-helper");
                reply.WriteRemoteObject(object);
                reply.WriteFileDescriptor(fresh);
                close(fresh);
                reply.WriteRemoteObject(new HelperStub());
                reply.WriteInt32(pinged);
                return ERR_NONE;
            }
            case LEAK_ROUND: {
                sptr<IRemoteObject> object = data.ReadRemoteObject();
                int fd = data.ReadFileDescriptor();
                if (object == nullptr || fd < 0) {
                    return ERR_INVALID_DATA;
                }
                reply.WriteRemoteObject(object);
                reply.WriteRemoteObject(new IPCObjectStub(LEAF_DESCRIPTOR));
                reply.WriteFileDescriptor(fd);
                close(fd);
                return ERR_NONE;
            }
            case BIG: {
                uint32_t size = data.ReadUint32();
                std::vector<uint8_t> bytes(size);
                for (size_t i = 0; i < size; ++i) {
                    bytes[i] = PatternByte(i);
                }
                return reply.WriteRawData(bytes.data(), bytes.size()) ? ERR_NONE : ERR_INVALID_DATA;
            }
            case SLOW: {
                std::unique_lock<std::mutex> lock(mutex_);
                bool released = cv_.wait_for(lock, std::chrono::seconds(10), [this] { return slowReleased_; });
                reply.WriteBool(released);
                return ERR_NONE;
            }
            case RELEASE_SLOW: {
                std::lock_guard<std::mutex> lock(mutex_);
                slowReleased_ = true;
                cv_.notify_all();
                return ERR_NONE;
            }
            case NEVER: {
                std::unique_lock<std::mutex> lock(mutex_);
                cv_.wait_for(lock, std::chrono::seconds(4), [] { return false; });
                return ERR_NONE;
            }
            case STATS: {
                size_t exported = data.ReadUint64();
                size_t proxies = data.ReadUint64();
                size_t fds = data.ReadUint64();
                auto settled = [&](const IpcStats& stats) {
                    return stats.exportedHandles == exported && stats.proxyHandles == proxies;
                };
                WaitForIpcStats(settled, std::chrono::seconds(5));
                // Descriptors close with the parcels that held them, just after their replies.
                auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
                while (fds != SIZE_MAX && OpenFdCount() != fds && std::chrono::steady_clock::now() < deadline) {
                    std::unique_lock<std::mutex> lock(mutex_);
                    cv_.wait_for(lock, std::chrono::milliseconds(5));
                }
                IpcStats stats = GetIpcStats();
                reply.WriteUint64(stats.exportedHandles);
                reply.WriteUint64(stats.proxyHandles);
                reply.WriteUint64(OpenFdCount());
                return ERR_NONE;
            }
            default:
                return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool slowReleased_ = false;
};

class Ender : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        died = true;
        cv.notify_all();
    }
    std::mutex mutex;
    std::condition_variable cv;
    bool died = false;
};

int RunApp(const std::string& path)
{
    std::string error;
    auto client = IpcClient::Connect(path, &error);
    if (client == nullptr) {
        fprintf(stderr, "helper: %s\n", error.c_str());
        return 2;
    }
    client->InstallAsSystemAbilityManager();
    sptr<IRemoteObject> registry =
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->GetSystemAbility(REGISTRY_ABILITY_ID);
    if (registry == nullptr) {
        fprintf(stderr, "helper: no registry ability\n");
        return 2;
    }
    sptr<Ender> ender = new Ender();
    registry->AddDeathRecipient(ender);
    sptr<HelperStub> callback = new HelperStub();
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    data.WriteRemoteObject(callback);
    if (registry->SendRequest(REGISTER, data, reply, option) != ERR_NONE) {
        fprintf(stderr, "helper: register failed\n");
        return 2;
    }
    std::unique_lock<std::mutex> lock(ender->mutex);
    ender->cv.wait(lock, [&] { return ender->died; });
    return 0;
}

int RunServer(const std::string& path)
{
    std::string error;
    auto server = IpcServer::Listen(path, &error);
    if (server == nullptr) {
        fprintf(stderr, "helper: %s\n", error.c_str());
        return 2;
    }
    SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->AddSystemAbility(HELPER_ABILITY_ID,
                                                                                         new HelperStub());
    char ready = 'r';
    ssize_t ignored = write(3, &ready, 1);
    (void)ignored;
    close(3);
    for (;;) {
        pause();
    }
}

std::vector<uint8_t> FromHex(const std::string& hex)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

int RunRaw(const std::string& path, int argc, char** argv)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        perror("helper: connect");
        return 2;
    }
    int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < argc; ++i) {
        std::string chunk = argv[i];
        size_t colon = chunk.find(':');
        std::vector<uint8_t> bytes = FromHex(chunk.substr(0, colon));
        size_t fdCount = colon == std::string::npos ? 0 : std::stoul(chunk.substr(colon + 1));
        std::vector<int> fds(fdCount, devNull);
        std::vector<char> control(CMSG_SPACE(sizeof(int) * (fdCount == 0 ? 1 : fdCount)));
        iovec iov{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &iov;
        message.msg_iovlen = 1;
        if (fdCount > 0) {
            message.msg_control = control.data();
            message.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
            memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fdCount);
        }
        if (sendmsg(fd, &message, MSG_NOSIGNAL) < 0) {
            break;  // the server may already have closed on an earlier chunk
        }
    }
    shutdown(fd, SHUT_WR);
    pollfd waiter{fd, POLLIN, 0};
    char byte;
    while (poll(&waiter, 1, 10000) > 0) {
        ssize_t n = read(fd, &byte, 1);
        if (n <= 0) {
            return 0;
        }
    }
    return 3;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s app|serve|raw <socket> [chunks]\n", argv[0]);
        return 2;
    }
    std::string mode = argv[1];
    if (mode == "app") {
        return RunApp(argv[2]);
    }
    if (mode == "serve") {
        return RunServer(argv[2]);
    }
    if (mode == "raw") {
        return RunRaw(argv[2], argc - 3, argv + 3);
    }
    return 2;
}
