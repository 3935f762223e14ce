// Plays a hostile peer against the accepting side of the device link: a real NetSoftBus listens
// on loopback and every input is one fresh connection to it, so the bytes meet the link's own
// TLS context, certificate checks, hello handling and frame dispatch, nothing copied from them.
//
// Input: [mode][bytes]. mode % 3 picks what the bytes are:
//   0  the raw stream of a peer before and during TLS (ClientHello flight, later records);
//   1  what a peer whose certificate the link trusted on first use sends once TLS is up
//      (hello bodies, wrong roles, frames allowed only after the hello...);
//   2  the same from a certificate the link does not trust, to a link without trust on first
//      use: the hello asking to pair and the pairing frames.
// After writing, the peer closes its sending side and waits until the link closes the
// connection; the link reports a closed connection to its owner before the socket closes, so
// each input's connection is fully gone before the next begins. A connection the link keeps
// open, or threads and descriptors that grow over the inputs, abort the run.
//
// TANDRA_FUZZ_WRITE_SEEDS=<folder> writes the seed corpus there (a ClientHello the link itself
// sends when it dials, the hellos of each role, a pairing opening) and exits.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "net_frame.h"
#include "net_identity.h"
#include "net_soft_bus.h"
#include "vex_log.h"

using namespace QUEX::Tandra;

namespace {

// Real-time bound for the link to close a connection whose peer has stopped sending; far above
// what an input takes, so only a connection the link keeps open reaches it.
constexpr int CLOSE_DEADLINE_S = 10;
// Threads and descriptors may vary with work still finishing (a session opening's thread, a
// closing socket), never by this much.
constexpr long GROWTH_LIMIT = 48;
constexpr size_t CHECK_EVERY = 200;

enum Mode : uint8_t { RAW = 0, TRUSTED = 1, UNPAIRED = 2 };

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "link_handshake_fuzz: %s\n", what);
    std::abort();
}

// This process's folder for the links' and the peer's state.
const std::string& TempRoot()
{
    // Never destroyed: the exit handler that removes the folder needs its name.
    static const std::string* root = [] {
        auto pattern = new std::string("/tmp/tandra_fuzz_link_XXXXXX");
        if (mkdtemp(pattern->data()) == nullptr) {
            Fail("cannot create a temporary folder");
        }
        return pattern;
    }();
    return *root;
}

std::string TempDir(const char* tag)
{
    std::string pattern = TempRoot() + "/" + tag + "_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        Fail("cannot create a temporary folder");
    }
    return pattern;
}

std::unique_ptr<NetSoftBus> StartBus(const std::string& stateDir, bool trustOnFirstUse,
                                     std::vector<std::string> staticPeers = {})
{
    NetBusConfig cfg;
    cfg.stateDir = stateDir;
    cfg.deviceName = "fuzzed-link";
    cfg.deviceType = 0x0E;
    cfg.bindAddress = "127.0.0.1";
    cfg.trustOnFirstUse = trustOnFirstUse;
    cfg.staticPeers = std::move(staticPeers);
    std::string error;
    std::unique_ptr<NetSoftBus> bus = NetSoftBus::Create(cfg, &error);
    if (!bus || bus->Start(&error) != 0) {
        std::fprintf(stderr, "link_handshake_fuzz: the link did not start: %s\n", error.c_str());
        std::abort();
    }
    return bus;
}

long CountEntries(const char* dir)
{
    DIR* d = opendir(dir);
    if (d == nullptr) {
        return 0;
    }
    long n = 0;
    while (readdir(d) != nullptr) {
        ++n;
    }
    closedir(d);
    return n;
}

int Connect(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        Fail("cannot connect to the link on loopback");
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    timeval tv{CLOSE_DEADLINE_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    return fd;
}

void SendAll(int fd, const uint8_t* data, size_t len)
{
    while (len > 0) {
        ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
        if (n <= 0) {
            if (n < 0 && errno == EAGAIN) {
                Fail("the link stopped reading from a connection but kept it open");
            }
            return;  // the link closed it: what is left goes nowhere
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

// Stops sending and reads until the link closes the connection.
void AwaitClose(int fd)
{
    shutdown(fd, SHUT_WR);
    char sink[4096];
    for (;;) {
        ssize_t n = recv(fd, sink, sizeof(sink), 0);
        if (n > 0) {
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            Fail("the link kept a connection open after its peer stopped sending");
        }
        return;  // end of stream or reset: closed
    }
}

// One link listening on loopback, and a peer certificate made once.
class Harness {
public:
    Harness()
    {
        if (std::getenv("TANDRA_FUZZ_LOG") == nullptr) {
            Vex::SetLogSink([](const Vex::LogRecord&) {});
        }
        std::signal(SIGPIPE, SIG_IGN);
        // The folders go with the process; the link's threads write nothing there after start.
        std::atexit([] { std::filesystem::remove_all(TempRoot()); });
        trustingDir_ = TempDir("trusting");
        pairingDir_ = TempDir("pairing");
        trusting_ = StartBus(trustingDir_, true);
        pairing_ = StartBus(pairingDir_, false);
        // The link keeps an accepted control connection only from a device with a lower id
        // (the lower one dials); the peer gets such an id so its frames reach the control state.
        const std::string linkId = trusting_->GetLocalIdentity().networkId;
        for (int attempt = 0; !peer_ || peer_->Fingerprint() >= linkId; ++attempt) {
            if (attempt == 64) {
                Fail("no peer identity below the link's");
            }
            std::string error;
            peerDir_ = TempDir("peer");
            peer_ = NetIdentity::LoadOrCreate(peerDir_, "fuzz-peer", &error);
            if (!peer_) {
                Fail("cannot create the peer's identity");
            }
        }
        client_ = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_min_proto_version(client_, TLS1_3_VERSION);
        SSL_CTX_set_max_proto_version(client_, TLS1_3_VERSION);
        SSL_CTX_set_verify(client_, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
        SSL_CTX_set_session_cache_mode(client_, SSL_SESS_CACHE_OFF);
        if (SSL_CTX_use_certificate(client_, peer_->Certificate()) != 1 ||
            SSL_CTX_use_PrivateKey(client_, peer_->Key()) != 1) {
            Fail("OpenSSL refused the peer's certificate");
        }
        // The first control hello makes the trusting link trust the peer, once for all inputs.
        HelloInfo hello;
        hello.deviceName = "fuzz-peer";
        std::string first = std::string(1, TRUSTED) + HelloFrame(hello);
        Run(reinterpret_cast<const uint8_t*>(first.data()), first.size());
        bool trusted = false;
        for (const KnownDevice& d : trusting_->GetKnownDevices()) {
            trusted = trusted || (d.identity.networkId == peer_->Fingerprint() && d.trusted);
        }
        if (!trusted) {
            Fail("the link did not trust the peer on first use");
        }
        baseThreads_ = CountEntries("/proc/self/task");
        baseFds_ = CountEntries("/proc/self/fd");
    }

    static std::string Frame(FrameType type, const std::string& body = "", uint32_t a = 0, uint32_t b = 0,
                             uint32_t c = 0, uint8_t flags = 0)
    {
        FrameHeader h;
        h.type = type;
        h.flags = flags;
        h.a = a;
        h.b = b;
        h.c = c;
        h.length = static_cast<uint32_t>(body.size());
        uint8_t header[FRAME_HEADER_SIZE];
        EncodeFrameHeader(h, header);
        return std::string(reinterpret_cast<const char*>(header), sizeof(header)) + body;
    }

    static std::string HelloFrame(const HelloInfo& hello) { return Frame(FrameType::HELLO, EncodeHello(hello)); }

    void Run(const uint8_t* data, size_t size)
    {
        if (size == 0) {
            return;
        }
        Mode mode = static_cast<Mode>(data[0] % 3);
        NetSoftBus& bus = mode == UNPAIRED ? *pairing_ : *trusting_;
        int fd = Connect(bus.GetPort());
        if (mode == RAW) {
            SendAll(fd, data + 1, size - 1);
        } else {
            SSL* ssl = SSL_new(client_);
            SSL_set_fd(ssl, fd);
            // The link may refuse (it holds a connection from this peer), but must never leave the
            // handshake hanging: the socket's timeouts end a stuck one.
            if (SSL_connect(ssl) == 1) {
                size_t offset = 1;
                while (offset < size) {
                    size_t written = 0;
                    if (SSL_write_ex(ssl, data + offset, size - offset, &written) != 1) {
                        break;
                    }
                    offset += written;
                }
                SSL_shutdown(ssl);
            } else if (errno == EAGAIN) {
                Fail("the link did not finish a TLS handshake with a well-behaved peer");
            }
            ERR_clear_error();
            SSL_free(ssl);
        }
        AwaitClose(fd);
        close(fd);
        if (++inputs_ % CHECK_EVERY == 0) {
            long threads = CountEntries("/proc/self/task");
            long fds = CountEntries("/proc/self/fd");
            if (threads > baseThreads_ + GROWTH_LIMIT || fds > baseFds_ + GROWTH_LIMIT) {
                std::fprintf(stderr, "threads %ld (at start %ld), descriptors %ld (at start %ld)\n", threads,
                             baseThreads_, fds, baseFds_);
                Fail("threads or descriptors grow over the inputs");
            }
        }
    }

private:
    std::string trustingDir_;
    std::string pairingDir_;
    std::string peerDir_;
    std::unique_ptr<NetSoftBus> trusting_;
    std::unique_ptr<NetSoftBus> pairing_;
    std::unique_ptr<NetIdentity> peer_;
    SSL_CTX* client_ = nullptr;
    size_t inputs_ = 0;
    long baseThreads_ = 0;
    long baseFds_ = 0;
};

// ---- seeds ----

void WriteSeed(const std::string& dir, const std::string& name, Mode mode, const std::string& bytes)
{
    std::ofstream out(dir + "/" + name, std::ios::binary);
    out << static_cast<char>(mode) << bytes;
    if (!out) {
        Fail("cannot write a seed");
    }
}

// The first TLS record a dialling link sends: its ClientHello, caught by a listener posing as a
// static peer.
std::string CaptureClientHello()
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listener, 1) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        Fail("cannot listen for the link's ClientHello");
    }
    std::string dir = TempDir("dialer");
    std::unique_ptr<NetSoftBus> dialer =
        StartBus(dir, false, {"127.0.0.1:" + std::to_string(ntohs(addr.sin_port))});
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, CLOSE_DEADLINE_S * 1000) != 1) {
        Fail("the link did not dial its static peer");
    }
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    timeval tv{CLOSE_DEADLINE_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    std::string record;
    char buf[4096];
    // A record is a 5-byte header whose last two bytes give the length of what follows.
    while (record.size() < 5 ||
           record.size() < 5u + ((static_cast<size_t>(static_cast<uint8_t>(record[3])) << 8) |
                                  static_cast<uint8_t>(record[4]))) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) {
            Fail("the link's ClientHello ended early");
        }
        record.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    close(listener);
    dialer.reset();
    std::filesystem::remove_all(dir);
    return record;
}

void WriteSeeds(const std::string& dir)
{
    using H = Harness;
    std::string clientHello = CaptureClientHello();
    WriteSeed(dir, "raw_client_hello", RAW, clientHello);
    WriteSeed(dir, "raw_client_hello_then_garbage_record", RAW,
              clientHello + std::string("\x17\x03\x03\x00\x04" "abcd", 9));
    HelloInfo control;
    control.deviceName = "fuzz-peer";
    control.deviceType = 0x0E;
    control.port = 4000;
    HelloInfo data = control;
    data.dataRole = true;
    HelloInfo pairing = control;
    pairing.pairing = true;
    WriteSeed(dir, "raw_hello_without_tls", RAW, H::HelloFrame(control));

    const std::string abilities =
        H::Frame(FrameType::ABILITIES, EncodeAbilities({{"com.peer.camera", "CameraAbility", "entry",
                                                         "tandra.CameraAbility.TakePhoto",
                                                         "tandra.CameraAbility.TakePhoto"}}));
    WriteSeed(dir, "hello_control", TRUSTED, H::HelloFrame(control));
    WriteSeed(dir, "hello_control_then_session", TRUSTED,
              H::HelloFrame(control) + abilities + H::Frame(FrameType::HEARTBEAT) +
                  H::Frame(FrameType::OPEN_SESSION, EncodeOpenSession("00000000001-peer", "{}"), 1) +
                  H::Frame(FrameType::CTRL_MESSAGE, "hi", 1, 0, 1) + H::Frame(FrameType::CLOSE_SESSION, "", 1));
    WriteSeed(dir, "hello_control_pairing_frames", TRUSTED,
              H::HelloFrame(control) + H::Frame(FrameType::PAIR_REQUEST) + H::Frame(FrameType::PAIR_CONFIRM, "", 0, 0, 1));
    WriteSeed(dir, "hello_data", TRUSTED, H::HelloFrame(data));
    WriteSeed(dir, "hello_data_then_channel", TRUSTED,
              H::HelloFrame(data) + H::Frame(FrameType::OPEN_CHANNEL, "", 1) +
                  H::Frame(FrameType::DATA_MESSAGE, "photo", 1, 0, 2, FRAME_FLAG_FIRST));
    WriteSeed(dir, "two_hellos", TRUSTED, H::HelloFrame(control) + H::HelloFrame(data));
    WriteSeed(dir, "session_before_hello", TRUSTED,
              H::Frame(FrameType::OPEN_SESSION, EncodeOpenSession("00000000001-peer", "{}"), 1));
    WriteSeed(dir, "hello_not_json", TRUSTED, H::Frame(FrameType::HELLO, "{\"name\": [[[["));

    WriteSeed(dir, "pair_opening", UNPAIRED,
              H::HelloFrame(pairing) + H::Frame(FrameType::PAIR_REQUEST) + H::Frame(FrameType::HEARTBEAT));
    WriteSeed(dir, "pair_confirm_first", UNPAIRED,
              H::HelloFrame(pairing) + H::Frame(FrameType::PAIR_CONFIRM, "", 0, 0, 1) +
                  H::Frame(FrameType::PAIR_REQUEST) + H::Frame(FrameType::PAIR_CONFIRM, "", 0, 0, 0));
    WriteSeed(dir, "pair_then_session", UNPAIRED,
              H::HelloFrame(pairing) + H::Frame(FrameType::OPEN_SESSION, EncodeOpenSession("x", "{}"), 1));
    WriteSeed(dir, "unpaired_hello", UNPAIRED, H::HelloFrame(control));
    WriteSeed(dir, "unpaired_data_hello", UNPAIRED, H::HelloFrame(data));
}

Harness* harness = nullptr;

// The link frees a connection's memory on its own threads, just after the peer sees the close,
// so an input's allocations and frees never balance and libFuzzer would run its costly leak
// pass after each of the first thousand inputs. Leaks are still found: LeakSanitizer checks the
// whole process at exit. An explicit -detect_leaks on the command line wins.
void NoLeakPassPerInput(int* argc, char*** argv)
{
    for (int i = 1; i < *argc; ++i) {
        if (std::strncmp((*argv)[i], "-detect_leaks=", 14) == 0) {
            return;
        }
    }
    static std::vector<char*> args;
    args.assign(*argv, *argv + *argc);
    static char flag[] = "-detect_leaks=0";
    args.insert(args.begin() + 1, flag);
    args.push_back(nullptr);
    *argc += 1;
    *argv = args.data();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    NoLeakPassPerInput(argc, argv);
    if (const char* dir = std::getenv("TANDRA_FUZZ_WRITE_SEEDS")) {
        if (std::getenv("TANDRA_FUZZ_LOG") == nullptr) {
            Vex::SetLogSink([](const Vex::LogRecord&) {});
        }
        std::signal(SIGPIPE, SIG_IGN);
        WriteSeeds(dir);
        std::filesystem::remove_all(TempRoot());
        std::exit(0);
    }
    // Never destroyed: the link's threads run until the process exits.
    harness = new Harness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    harness->Run(data, size);
    return 0;
}
