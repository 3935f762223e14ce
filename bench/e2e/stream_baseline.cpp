// The machine's own loopback stream, as a baseline for the end-to-end photo benchmark: `count`
// messages of `size` bytes from one reused, already-touched buffer to another over raw TCP or
// TLS 1.3 (OpenSSL, the same certificates as the device link makes), on a fresh connection per
// run, connection set-up and handshake not timed. Prints the median MB/s of the runs.
//   e2e_stream_baseline --mode tcp|tls --size BYTES --count N [--runs R]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net_identity.h"

using Clock = std::chrono::steady_clock;

namespace {

int Listener(uint16_t* port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 1) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        std::perror("e2e_stream_baseline: listen on loopback");
        std::exit(1);
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

int Connect(uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::perror("e2e_stream_baseline: connect on loopback");
        std::exit(1);
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

SSL_CTX* Context(const QUEX::Tandra::NetIdentity& id, bool server)
{
    SSL_CTX* ctx = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
    SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
    SSL_CTX_use_certificate(ctx, id.Certificate());
    SSL_CTX_use_PrivateKey(ctx, id.Key());
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, [](int, X509_STORE_CTX*) { return 1; });
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE);
    return ctx;
}

// One run: returns MB/s (MiB per second) from the first byte written to the last one read.
double Run(size_t size, size_t count, SSL_CTX* serverCtx, SSL_CTX* clientCtx, const char* out, char* in)
{
    uint16_t port = 0;
    int lfd = Listener(&port);
    int cfd = Connect(port);
    int sfd = ::accept(lfd, nullptr, nullptr);
    SSL* server = nullptr;
    SSL* client = nullptr;
    if (serverCtx != nullptr) {
        server = SSL_new(serverCtx);
        client = SSL_new(clientCtx);
        SSL_set_fd(server, sfd);
        SSL_set_fd(client, cfd);
        std::thread accept([&] { SSL_accept(server); });
        SSL_connect(client);
        accept.join();
    }
    Clock::time_point start;
    Clock::time_point end;
    bool started = false;
    std::thread reader([&] {
        for (size_t m = 0; m < count; ++m) {
            size_t have = 0;
            while (have < size) {
                int want = static_cast<int>(std::min<size_t>(size - have, 1u << 30));
                int n = server != nullptr ? SSL_read(server, in + have, want)
                                          : static_cast<int>(::read(sfd, in + have, want));
                if (n <= 0) {
                    std::fprintf(stderr, "e2e_stream_baseline: read failed\n");
                    std::exit(1);
                }
                have += static_cast<size_t>(n);
            }
        }
        end = Clock::now();
    });
    start = Clock::now();
    started = true;
    for (size_t m = 0; m < count; ++m) {
        size_t done = 0;
        while (done < size) {
            int want = static_cast<int>(std::min<size_t>(size - done, 1u << 30));
            int n = client != nullptr ? SSL_write(client, out + done, want)
                                      : static_cast<int>(::write(cfd, out + done, want));
            if (n <= 0) {
                std::fprintf(stderr, "e2e_stream_baseline: write failed\n");
                std::exit(1);
            }
            done += static_cast<size_t>(n);
        }
    }
    reader.join();
    SSL_free(server);
    SSL_free(client);
    ::close(sfd);
    ::close(cfd);
    ::close(lfd);
    (void)started;
    return static_cast<double>(size) * static_cast<double>(count) / 1048576.0 /
           std::chrono::duration<double>(end - start).count();
}

[[noreturn]] void Usage()
{
    std::fprintf(stderr, "usage: e2e_stream_baseline --mode tcp|tls --size BYTES --count N [--runs R]\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv)
{
    std::string mode;
    size_t size = 0;
    size_t count = 1;
    int runs = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string name = argv[i];
        std::string value = argv[i + 1];
        if (name == "--mode") {
            mode = value;
        } else if (name == "--size") {
            size = std::strtoull(value.c_str(), nullptr, 10);
        } else if (name == "--count") {
            count = std::strtoull(value.c_str(), nullptr, 10);
        } else if (name == "--runs") {
            runs = std::atoi(value.c_str());
        } else {
            Usage();
        }
    }
    if ((mode != "tcp" && mode != "tls") || size == 0 || count == 0 || runs < 1 || argc % 2 == 0) {
        Usage();
    }

    std::unique_ptr<char[]> out(new char[size]);
    std::unique_ptr<char[]> in(new char[size]);
    for (size_t i = 0; i < size; ++i) {
        out[i] = static_cast<char>(i * 131 + 7);
    }
    std::memset(in.get(), 0, size);

    SSL_CTX* serverCtx = nullptr;
    SSL_CTX* clientCtx = nullptr;
    std::filesystem::path dir;
    if (mode == "tls") {
        dir = std::filesystem::temp_directory_path() / ("tandra-e2e-baseline-" + std::to_string(::getpid()));
        std::string error;
        std::error_code made;
        std::filesystem::create_directories(dir / "s", made);
        std::filesystem::create_directories(dir / "c", made);
        auto server = QUEX::Tandra::NetIdentity::LoadOrCreate((dir / "s").string(), "s", &error);
        auto client = QUEX::Tandra::NetIdentity::LoadOrCreate((dir / "c").string(), "c", &error);
        if (server == nullptr || client == nullptr) {
            std::fprintf(stderr, "e2e_stream_baseline: cannot make certificates: %s\n", error.c_str());
            return 1;
        }
        serverCtx = Context(*server, true);
        clientCtx = Context(*client, false);
    }
    std::vector<double> rates;
    for (int r = 0; r < runs; ++r) {
        rates.push_back(Run(size, count, serverCtx, clientCtx, out.get(), in.get()));
    }
    std::sort(rates.begin(), rates.end());
    std::printf("%.1f\n", rates[rates.size() / 2]);
    SSL_CTX_free(serverCtx);
    SSL_CTX_free(clientCtx);
    if (!dir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    return 0;
}
