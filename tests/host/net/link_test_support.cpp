// Recorder, temporary folders and configurations for device-link tests.
#include "link_test_support.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace QUEX {
namespace Tandra {
namespace Testing {

int32_t LinkRecorder::OnCtrlSessionOpened(const CtrlSessionInfo& session, const std::string& commandText)
{
    Event e;
    e.kind = "open";
    e.session = session;
    e.hasSession = true;
    e.bytes = commandText;
    int32_t result;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        result = openResult_;
    }
    Add(e);
    return result;
}

void LinkRecorder::OnCtrlSessionClosed(const CtrlSessionInfo& session)
{
    Event e;
    e.kind = "closed";
    e.session = session;
    e.hasSession = true;
    Add(e);
}

void LinkRecorder::OnCtrlMessage(const CtrlSessionInfo& session, const char* data, uint32_t len, uint32_t type)
{
    Event e;
    e.kind = "ctrl";
    e.session = session;
    e.hasSession = true;
    e.bytes.assign(data, len);
    e.len = len;
    e.type = type;
    Add(e);
}

void LinkRecorder::OnDataMessage(int32_t channelId, const CtrlSessionInfo* session, const char* data, uint32_t len,
                                 uint32_t type)
{
    Event e;
    e.kind = "data";
    e.channelId = channelId;
    if (session != nullptr) {
        e.session = *session;
        e.hasSession = true;
    }
    if (len <= 4096) {
        e.bytes.assign(data, len);
    }
    e.len = len;
    e.type = type;
    e.sum = Checksum(data, len);
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return dataGateOpen_; });
    }
    Add(e);
}

void LinkRecorder::OnPeerLinked(const std::string& networkId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    linked_[networkId]++;
    cv_.notify_all();
}

void LinkRecorder::OnPeerLost(const std::string& networkId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    linked_[networkId]--;
    lost_[networkId]++;
    cv_.notify_all();
}

void LinkRecorder::OnWifiStateChanged(bool active)
{
    std::lock_guard<std::mutex> lock(mutex_);
    wifi_.push_back(active);
    cv_.notify_all();
}

void LinkRecorder::OnPairingRequested(const KnownDevice& device, const std::string& code)
{
    std::lock_guard<std::mutex> lock(mutex_);
    codes_[device.identity.networkId] = code;
    cv_.notify_all();
}

void LinkRecorder::OnPairingFinished(const std::string& networkId, bool trusted)
{
    std::lock_guard<std::mutex> lock(mutex_);
    pairResults_[networkId] = trusted;
    cv_.notify_all();
}

void LinkRecorder::SetOpenResult(int32_t result)
{
    std::lock_guard<std::mutex> lock(mutex_);
    openResult_ = result;
}

void LinkRecorder::SetDataGate(bool open)
{
    std::lock_guard<std::mutex> lock(mutex_);
    dataGateOpen_ = open;
    cv_.notify_all();
}

void LinkRecorder::Add(Event e)
{
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(e));
    cv_.notify_all();
}

std::vector<LinkRecorder::Event> LinkRecorder::Events()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::vector<LinkRecorder::Event> LinkRecorder::EventsOf(const std::string& kind)
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> out;
    for (const Event& e : events_) {
        if (e.kind == kind) {
            out.push_back(e);
        }
    }
    return out;
}

size_t LinkRecorder::CountLocked(const std::string& kind) const
{
    size_t n = 0;
    for (const Event& e : events_) {
        n += e.kind == kind ? 1 : 0;
    }
    return n;
}

size_t LinkRecorder::Count(const std::string& kind)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return CountLocked(kind);
}

bool LinkRecorder::Linked(const std::string& networkId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return LinkedLocked(networkId);
}

size_t LinkRecorder::LostCount(const std::string& networkId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return LostLocked(networkId);
}

std::vector<bool> LinkRecorder::WifiStates()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return wifi_;
}

std::map<std::string, std::string> LinkRecorder::PairingCodes()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return codes_;
}

std::map<std::string, bool> LinkRecorder::PairingResults()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return pairResults_;
}

bool LinkRecorder::Await(const std::function<bool()>& pred, std::chrono::milliseconds timeout)
{
    // Re-checked every few milliseconds too: predicates may also read bus state that changes
    // without a recorder event (traffic counters).
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        cv_.wait_for(lock, std::chrono::milliseconds(5));
    }
    return true;
}

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "tandra-link-XXXXXX").string();
    char* made = ::mkdtemp(&pattern[0]);
    path_ = made != nullptr ? made : "";
}

TempDir::~TempDir()
{
    std::error_code ignored;
    if (!path_.empty()) {
        std::filesystem::remove_all(path_, ignored);
    }
}

NetBusConfig LoopbackConfig(const std::string& name, const std::string& stateDir, bool trustOnFirstUse)
{
    NetBusConfig config;
    config.stateDir = stateDir + "/" + name;
    config.deviceName = name;
    config.deviceType = 14;
    config.bindAddress = "127.0.0.1";
    config.broadcastAddress = "127.255.255.255";
    config.trustOnFirstUse = trustOnFirstUse;
    config.dnsSd = false;  // buses of a test find each other on loopback, not on the LAN
    return config;
}

uint16_t FreeUdpPort()
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 &&
        ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    ::close(fd);
    return port;
}

uint64_t Checksum(const char* data, size_t len)
{
    uint64_t sum = 1469598103934665603ull;
    size_t words = len / 8;
    for (size_t i = 0; i < words; ++i) {
        uint64_t w;
        std::memcpy(&w, data + i * 8, 8);
        sum = sum * 31 + w;
    }
    for (size_t i = words * 8; i < len; ++i) {
        sum = sum * 31 + static_cast<unsigned char>(data[i]);
    }
    return sum;
}

void FillPattern(char* data, size_t len, uint32_t seed)
{
    uint64_t x = seed * 2654435761ull + 1;
    size_t words = len / 8;
    for (size_t i = 0; i < words; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        std::memcpy(data + i * 8, &x, 8);
    }
    for (size_t i = words * 8; i < len; ++i) {
        data[i] = static_cast<char>(i);
    }
}

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
