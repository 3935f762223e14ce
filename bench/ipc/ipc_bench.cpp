// IPC benchmark. Starts itself again as the serving process ("serve <folder>"), which offers
// a stub over the IPC transport and, for the baseline, a plain Unix socket that reads each
// message into one reused buffer. The receiver of either path reads every byte (a sum), so
// both pay for getting the bytes into the receiving process. Prints one table.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipc_client.h"
#include "ipc_server.h"
#include "iremote_stub.h"
#include "system_ability_manager.h"

extern char** environ;

using namespace Vex;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int32_t BENCH_ABILITY_ID = 9100;
constexpr uint32_t ECHO = 1;
constexpr uint32_t RAW = 2;
constexpr size_t RAW_SIZE = 8 * 1024 * 1024;
constexpr int ROUND_TRIPS = 20000;
constexpr int RAW_ROUNDS = 100;

uint64_t Sum(const uint8_t* bytes, size_t size)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < size; i += 64) {  // one read per cache line: every page is touched
        sum += bytes[i];
    }
    return sum;
}

class BenchStub : public IPCObjectStub {
public:
    BenchStub() : IPCObjectStub(u"bench.IBench") {}
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code == ECHO) {
            reply.WriteInt32(data.ReadInt32() + 1);
            return ERR_NONE;
        }
        if (code == RAW) {
            uint32_t size = data.ReadUint32();
            const auto* bytes = static_cast<const uint8_t*>(data.ReadRawData(size));
            if (bytes == nullptr) {
                return ERR_INVALID_DATA;
            }
            reply.WriteUint64(Sum(bytes, size));
            return ERR_NONE;
        }
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
};

bool ReadFull(int fd, void* buffer, size_t size)
{
    auto* bytes = static_cast<uint8_t*>(buffer);
    while (size > 0) {
        ssize_t n = read(fd, bytes, size);
        if (n <= 0) {
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteFull(int fd, const void* buffer, size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    while (size > 0) {
        ssize_t n = write(fd, bytes, size);
        if (n <= 0) {
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

int UnixSocket(const std::string& path, bool listen)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (listen ? (bind(fd, raw, sizeof(address)) != 0 || ::listen(fd, 1) != 0) : connect(fd, raw, sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The baseline's receiver: length-prefixed messages into one reused buffer; answers the sum.
void ServePlain(int listener)
{
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::vector<uint8_t> buffer;
    uint64_t size = 0;
    while (ReadFull(fd, &size, sizeof(size))) {
        buffer.resize(size);
        if (!ReadFull(fd, buffer.data(), size)) {
            break;
        }
        uint64_t sum = Sum(buffer.data(), size);
        if (!WriteFull(fd, &sum, sizeof(sum))) {
            break;
        }
    }
    close(fd);
}

int Serve(const std::string& folder)
{
    std::string error;
    auto server = IpcServer::Listen(folder + "/ipc.sock", &error);
    int plain = UnixSocket(folder + "/plain.sock", true);
    if (server == nullptr || plain < 0) {
        fprintf(stderr, "ipc_bench serve: %s\n", error.c_str());
        return 1;
    }
    SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->AddSystemAbility(BENCH_ABILITY_ID,
                                                                                         new BenchStub());
    std::thread(ServePlain, plain).detach();
    char ready = 'r';
    if (write(3, &ready, 1) != 1) {
        return 1;
    }
    close(3);
    for (;;) {
        pause();
    }
}

double Seconds(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int Run()
{
    char pattern[] = "/tmp/ipc-bench-XXXXXX";
    std::string folder = mkdtemp(pattern);
    int readyPipe[2];
    if (pipe2(readyPipe, O_CLOEXEC) != 0) {
        return 1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, readyPipe[1], 3);
    std::string self = "/proc/self/exe";
    char* argv[] = {const_cast<char*>("ipc_bench"), const_cast<char*>("serve"), folder.data(), nullptr};
    pid_t child = -1;
    if (posix_spawn(&child, self.c_str(), &actions, nullptr, argv, environ) != 0) {
        fprintf(stderr, "ipc_bench: cannot start the serving process\n");
        return 1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(readyPipe[1]);
    char ready = 0;
    pollfd waiter{readyPipe[0], POLLIN, 0};
    if (poll(&waiter, 1, 10000) != 1 || read(readyPipe[0], &ready, 1) != 1) {
        fprintf(stderr, "ipc_bench: the serving process did not start\n");
        kill(child, SIGKILL);
        return 1;
    }

    std::string error;
    auto client = IpcClient::Connect(folder + "/ipc.sock", &error);
    sptr<IRemoteObject> bench = client != nullptr ? client->GetSystemAbility(BENCH_ABILITY_ID) : nullptr;
    int plain = UnixSocket(folder + "/plain.sock", false);
    if (bench == nullptr || plain < 0) {
        fprintf(stderr, "ipc_bench: %s\n", error.c_str());
        kill(child, SIGKILL);
        return 1;
    }

    // Small request round trips.
    auto start = Clock::now();
    for (int i = 0; i < ROUND_TRIPS; ++i) {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInt32(i);
        if (bench->SendRequest(ECHO, data, reply, option) != ERR_NONE || reply.ReadInt32() != i + 1) {
            fprintf(stderr, "ipc_bench: echo failed\n");
            return 1;
        }
    }
    double ipcRoundTrips = ROUND_TRIPS / Seconds(start);
    start = Clock::now();
    for (int i = 0; i < ROUND_TRIPS; ++i) {
        uint64_t size = 4;
        uint32_t value = static_cast<uint32_t>(i);
        uint64_t sum = 0;
        if (!WriteFull(plain, &size, sizeof(size)) || !WriteFull(plain, &value, sizeof(value)) ||
            !ReadFull(plain, &sum, sizeof(sum))) {
            return 1;
        }
    }
    double plainRoundTrips = ROUND_TRIPS / Seconds(start);

    // 8 MiB raw data from one reused, already touched buffer.
    std::vector<uint8_t> photo(RAW_SIZE);
    for (size_t i = 0; i < photo.size(); ++i) {
        photo[i] = static_cast<uint8_t>(i * 13);
    }
    uint64_t expected = Sum(photo.data(), photo.size());
    start = Clock::now();
    for (int i = 0; i < RAW_ROUNDS; ++i) {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteUint32(RAW_SIZE);
        data.WriteRawData(photo.data(), photo.size());
        if (bench->SendRequest(RAW, data, reply, option) != ERR_NONE || reply.ReadUint64() != expected) {
            fprintf(stderr, "ipc_bench: raw data failed\n");
            return 1;
        }
    }
    double ipcMbps = RAW_ROUNDS * (RAW_SIZE / 1e6) / Seconds(start);
    start = Clock::now();
    for (int i = 0; i < RAW_ROUNDS; ++i) {
        uint64_t size = RAW_SIZE;
        uint64_t sum = 0;
        if (!WriteFull(plain, &size, sizeof(size)) || !WriteFull(plain, photo.data(), photo.size()) ||
            !ReadFull(plain, &sum, sizeof(sum)) || sum != expected) {
            fprintf(stderr, "ipc_bench: plain socket failed\n");
            return 1;
        }
    }
    double plainMbps = RAW_ROUNDS * (RAW_SIZE / 1e6) / Seconds(start);

    printf("%-34s %16s %16s %8s\n", "measure", "IPC transport", "plain socket", "ratio");
    printf("%-34s %16.0f %16.0f %8.2f\n", "small request round trips / s", ipcRoundTrips, plainRoundTrips,
           ipcRoundTrips / plainRoundTrips);
    printf("%-34s %16.0f %16.0f %8.2f\n", "8 MiB raw data, MB/s", ipcMbps, plainMbps, ipcMbps / plainMbps);
    printf("(%d round trips, %d x 8 MiB; the receiver reads every byte; IPC raw data: one kernel copy into a\n"
           " sealed memfd, mapped by the receiver; plain socket: write + read into a reused buffer)\n",
           ROUND_TRIPS, RAW_ROUNDS);

    close(plain);
    client->Close();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    unlink((folder + "/ipc.sock").c_str());
    unlink((folder + "/plain.sock").c_str());
    rmdir(folder.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "serve") {
        return Serve(argv[2]);
    }
    return Run();
}
