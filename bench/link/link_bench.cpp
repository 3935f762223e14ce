// Throughput of the device link for 8 and 64 MiB messages, next to a plain TLS stream (OpenSSL
// client and server with the same certificates) and raw TCP, all on loopback in this run; and
// the latency of a control message sent while a 256 MiB photo is in flight.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host_types.h"
#include "net_identity.h"
#include "net_soft_bus.h"
#include "vex_log.h"

using namespace QUEX::Tandra;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t TOTAL = 256u << 20;  // bytes moved per measurement
constexpr int ROUNDS = 7;

class Sink : public SoftBusListener {
public:
    int32_t OnCtrlSessionOpened(const CtrlSessionInfo&, const std::string&) override { return 0; }
    void OnCtrlSessionClosed(const CtrlSessionInfo&) override {}
    void OnCtrlMessage(const CtrlSessionInfo&, const char*, uint32_t, uint32_t) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ctrlAt = Clock::now();
        ctrl++;
        cv.notify_all();
    }
    void OnDataMessage(int32_t, const CtrlSessionInfo*, const char*, uint32_t len, uint32_t) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        bytes += len;
        messages++;
        dataAt = Clock::now();
        cv.notify_all();
    }
    void WaitMessages(size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return messages >= n; });
    }
    std::mutex mutex;
    std::condition_variable cv;
    size_t bytes = 0;
    size_t messages = 0;
    size_t ctrl = 0;
    Clock::time_point ctrlAt;
    Clock::time_point dataAt;
};

class Observer : public LinkObserver {
public:
    void OnPeerLinked(const std::string&) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        linked = true;
        cv.notify_all();
    }
    void Wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return linked; });
    }
    std::mutex mutex;
    std::condition_variable cv;
    bool linked = false;
};

double MBps(size_t bytes, Clock::duration d)
{
    return bytes / 1048576.0 / std::chrono::duration<double>(d).count();
}

int Listener(uint16_t* port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    ::listen(fd, 1);
    ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len);
    *port = ntohs(addr.sin_port);
    return fd;
}

int Connect(uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// One stream of `count` messages of `size` bytes, the receiver reading each into `in` (reused
// and already touched, as the link's receiver reuses its buffer): raw TCP when the contexts are
// null, else TLS 1.3 with the given certificates. The clock starts once both ends are ready.
double Stream(size_t size, size_t count, SSL_CTX* serverCtx, SSL_CTX* clientCtx, const char* buffer, char* in)
{
    uint16_t port = 0;
    int lfd = Listener(&port);
    Clock::time_point end;
    std::mutex mutex;
    std::condition_variable cv;
    bool ready = false;
    std::thread server([&] {
        int fd = ::accept(lfd, nullptr, nullptr);
        SSL* ssl = nullptr;
        if (serverCtx != nullptr) {
            ssl = SSL_new(serverCtx);
            SSL_set_fd(ssl, fd);
            SSL_accept(ssl);
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            ready = true;
            cv.notify_all();
        }
        for (size_t m = 0; m < count; ++m) {
            size_t have = 0;
            while (have < size) {
                int want = static_cast<int>(std::min<size_t>(size - have, 1u << 30));
                int n = ssl != nullptr ? SSL_read(ssl, in + have, want) : static_cast<int>(::read(fd, in + have, want));
                if (n <= 0) {
                    break;
                }
                have += n;
            }
        }
        end = Clock::now();
        SSL_free(ssl);
        ::close(fd);
    });
    int fd = Connect(port);
    SSL* ssl = nullptr;
    if (clientCtx != nullptr) {
        ssl = SSL_new(clientCtx);
        SSL_set_fd(ssl, fd);
        SSL_connect(ssl);
    }
    {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return ready; });
    }
    Clock::time_point start = Clock::now();
    for (size_t m = 0; m < count; ++m) {
        size_t done = 0;
        while (done < size) {
            int want = static_cast<int>(std::min<size_t>(size - done, 1u << 30));
            int n = ssl != nullptr ? SSL_write(ssl, buffer + done, want)
                                   : static_cast<int>(::write(fd, buffer + done, want));
            if (n <= 0) {
                break;
            }
            done += n;
        }
    }
    server.join();
    SSL_free(ssl);
    ::close(fd);
    ::close(lfd);
    return MBps(size * count, end - start);
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

SSL_CTX* Context(const NetIdentity& id, bool server)
{
    SSL_CTX* ctx = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
    SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
    SSL_CTX_use_certificate(ctx, id.Certificate());
    SSL_CTX_use_PrivateKey(ctx, id.Key());
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, [](int, X509_STORE_CTX*) { return 1; });
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE);
    return ctx;
}

}  // namespace

int main(int argc, char** argv)
{
    // --only link|tls|tcp measures one column (for a profiler); the others print as 0.
    std::string only = argc == 3 && std::string(argv[1]) == "--only" ? argv[2] : "";
    auto wanted = [&](const char* column) { return only.empty() || only == column; };
    Vex::SetLogLevel(Vex::LOG_ERROR);
    std::string dir = (std::filesystem::temp_directory_path() / ("tandra-link-bench-" + std::to_string(::getpid()))).string();
    std::filesystem::create_directories(dir);

    NetBusConfig ca;
    ca.stateDir = dir + "/A";
    ca.deviceName = "A";
    ca.bindAddress = "127.0.0.1";
    ca.trustOnFirstUse = true;
    std::string error;
    auto a = NetSoftBus::Create(ca, &error);
    Sink sinkA;
    Sink sinkB;
    Observer obsA;
    a->SetListener(&sinkA);
    a->SetLinkObserver(&obsA);
    a->Start(&error);
    NetBusConfig cb = ca;
    cb.stateDir = dir + "/B";
    cb.deviceName = "B";
    cb.staticPeers = {"127.0.0.1:" + std::to_string(a->GetPort())};
    auto b = NetSoftBus::Create(cb, &error);
    b->SetListener(&sinkB);
    b->Start(&error);
    obsA.Wait();
    std::string idB = b->GetLocalIdentity().networkId;
    auto session = a->OpenCtrlSession(idB, "00000000001-" + idB, "{}");
    SessionAttribute attr{};
    auto channel = a->OpenDataChannel(idB, attr);
    if (session.first != HOST_OK || channel.first != HOST_OK) {
        std::fprintf(stderr, "link setup failed\n");
        return 1;
    }

    const size_t photoSize = 256u << 20;
    std::unique_ptr<char[]> buffer(new char[photoSize]);
    for (size_t i = 0; i < photoSize; ++i) {
        buffer[i] = static_cast<char>(i * 131 + 7);
    }
    std::unique_ptr<NetIdentity> idServer = NetIdentity::LoadOrCreate(dir + "/tls-s", "s", &error);
    std::unique_ptr<NetIdentity> idClient = NetIdentity::LoadOrCreate(dir + "/tls-c", "c", &error);
    SSL_CTX* serverCtx = Context(*idServer, true);
    SSL_CTX* clientCtx = Context(*idClient, false);

    // The three are measured in turn, round after round, and each column gives its median:
    // on a shared machine a neighbour's burst then spoils one round of one column, not the row.
    std::printf("Device link throughput on loopback (%d rounds of %zu MiB per column, interleaved; medians)\n",
                ROUNDS, TOTAL >> 20);
    std::printf("%-10s %12s %12s %12s %10s %10s %22s\n", "message", "link MB/s", "TLS MB/s", "TCP MB/s", "vs TLS",
                "vs TCP", "link min..max MB/s");
    std::unique_ptr<char[]> in(new char[size_t{64} << 20]);
    std::memset(in.get(), 0, size_t{64} << 20);
    for (size_t size : {size_t{8} << 20, size_t{64} << 20}) {
        size_t count = TOTAL / size;
        // Warm the receiving buffers and the connection once.
        size_t warm;
        {
            std::lock_guard<std::mutex> lock(sinkB.mutex);
            warm = sinkB.messages;
        }
        a->SendDataMessage(channel.second, session.second, buffer.get(), size, 2, true);
        a->SendDataMessage(channel.second, session.second, buffer.get(), size, 2, true);
        sinkB.WaitMessages(warm + 2);
        std::vector<double> links, tlss, tcps;
        for (int round = 0; round < ROUNDS; ++round) {
            if (wanted("link")) {
                size_t before;
                {
                    std::lock_guard<std::mutex> lock(sinkB.mutex);
                    before = sinkB.messages;
                }
                Clock::time_point start = Clock::now();
                for (size_t m = 0; m < count; ++m) {
                    a->SendDataMessage(channel.second, session.second, buffer.get(), size, 2, m == 0);
                }
                sinkB.WaitMessages(before + count);
                links.push_back(MBps(size * count, sinkB.dataAt - start));
            }
            if (wanted("tls")) {
                tlss.push_back(Stream(size, count, serverCtx, clientCtx, buffer.get(), in.get()));
            }
            if (wanted("tcp")) {
                tcps.push_back(Stream(size, count, nullptr, nullptr, buffer.get(), in.get()));
            }
        }
        double link = Median(links);
        double tls = Median(tlss);
        double tcp = Median(tcps);
        std::sort(links.begin(), links.end());
        std::printf("%7zu MiB %12.0f %12.0f %12.0f %9.2fx %9.2fx %10.0f..%-10.0f\n", size >> 20, link, tls, tcp,
                    link / tls, link / tcp, links.empty() ? 0 : links.front(), links.empty() ? 0 : links.back());
    }
    std::printf("targets: >= 0.80x plain TLS, >= 0.50x raw TCP\n\n");
    if (!only.empty()) {
        b->Stop();
        a->Stop();
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
        return 0;
    }

    std::printf("Control message latency while a 256 MiB photo is in flight\n");
    std::printf("%-6s %14s %18s\n", "run", "latency ms", "photo still going");
    std::vector<double> latencies;
    for (int run = 0; run < 5; ++run) {
        size_t before;
        {
            std::lock_guard<std::mutex> lock(sinkB.mutex);
            before = sinkB.messages;
        }
        uint64_t inBefore = b->GetLinkStats(a->GetLocalIdentity().networkId).dataBytesIn;
        std::thread sender([&] { a->SendDataMessage(channel.second, session.second, buffer.get(), photoSize, 2, true); });
        while (b->GetLinkStats(a->GetLocalIdentity().networkId).dataBytesIn < inBefore + (32u << 20)) {
            std::this_thread::yield();
        }
        size_t ctrlBefore;
        {
            std::lock_guard<std::mutex> lock(sinkB.mutex);
            ctrlBefore = sinkB.ctrl;
        }
        Clock::time_point sent = Clock::now();
        a->SendCtrlMessage(session.second, "cancel", 6, 3);
        Clock::time_point got;
        bool photoGoing;
        {
            std::unique_lock<std::mutex> lock(sinkB.mutex);
            sinkB.cv.wait(lock, [&] { return sinkB.ctrl > ctrlBefore; });
            got = sinkB.ctrlAt;
            photoGoing = sinkB.messages == before;
        }
        sender.join();
        sinkB.WaitMessages(before + 1);
        double ms = std::chrono::duration<double, std::milli>(got - sent).count();
        latencies.push_back(ms);
        std::printf("%-6d %14.2f %18s\n", run + 1, ms, photoGoing ? "yes" : "no");
    }
    std::sort(latencies.begin(), latencies.end());
    std::printf("median %.2f ms, max %.2f ms (target < 100 ms)\n", latencies[latencies.size() / 2], latencies.back());

    SSL_CTX_free(serverCtx);
    SSL_CTX_free(clientCtx);
    b->Stop();
    a->Stop();
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return 0;
}
