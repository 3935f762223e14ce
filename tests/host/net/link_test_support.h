// Helpers for device-link tests: a recorder that is both the bus listener and the link
// observer, temporary state folders, and bus configurations for loopback.
// Thread-safety: the recorder may be called from any thread; Await waits on its condition.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "net_soft_bus.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

class LinkRecorder : public SoftBusListener, public LinkObserver {
public:
    struct Event {
        std::string kind;  // "open", "closed", "ctrl", "data"
        CtrlSessionInfo session;
        bool hasSession = false;
        int32_t channelId = -1;
        std::string bytes;  // ctrl messages and opening texts; data messages only when small
        uint32_t len = 0;
        uint32_t type = 0;
        uint64_t sum = 0;   // of a data message's bytes
    };

    int32_t OnCtrlSessionOpened(const CtrlSessionInfo& session, const std::string& commandText) override;
    void OnCtrlSessionClosed(const CtrlSessionInfo& session) override;
    void OnCtrlMessage(const CtrlSessionInfo& session, const char* data, uint32_t len, uint32_t type) override;
    void OnDataMessage(int32_t channelId, const CtrlSessionInfo* session, const char* data, uint32_t len,
                       uint32_t type) override;
    void OnPeerLinked(const std::string& networkId) override;
    void OnPeerLost(const std::string& networkId) override;
    void OnWifiStateChanged(bool active) override;
    void OnPairingRequested(const KnownDevice& device, const std::string& code) override;
    void OnPairingFinished(const std::string& networkId, bool trusted) override;

    void SetOpenResult(int32_t result);
    // While closed, data deliveries wait (a slow receiver); opening releases them.
    void SetDataGate(bool open);
    std::vector<Event> Events();
    std::vector<Event> EventsOf(const std::string& kind);
    size_t Count(const std::string& kind);
    bool Linked(const std::string& networkId);
    size_t LostCount(const std::string& networkId);
    std::vector<bool> WifiStates();
    std::map<std::string, std::string> PairingCodes();  // requester network id -> code
    std::map<std::string, bool> PairingResults();
    // Waits until pred (called under the recorder's lock) holds.
    bool Await(const std::function<bool()>& pred, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    void Add(Event e);
    std::mutex mutex_;
    std::condition_variable cv_;
    int32_t openResult_ = 0;
    bool dataGateOpen_ = true;
    std::vector<Event> events_;
    std::map<std::string, int> linked_;
    std::map<std::string, size_t> lost_;
    std::vector<bool> wifi_;
    std::map<std::string, std::string> codes_;
    std::map<std::string, bool> pairResults_;

public:
    // Lock-free views for Await predicates (called with the lock held).
    size_t CountLocked(const std::string& kind) const;
    bool LinkedLocked(const std::string& id) const { auto it = linked_.find(id); return it != linked_.end() && it->second > 0; }
    size_t LostLocked(const std::string& id) const { auto it = lost_.find(id); return it == lost_.end() ? 0 : it->second; }
    const std::vector<bool>& WifiLocked() const { return wifi_; }
    const std::map<std::string, std::string>& CodesLocked() const { return codes_; }
    const std::map<std::string, bool>& PairResultsLocked() const { return pairResults_; }
};

// A fresh folder under the system temp folder, removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

NetBusConfig LoopbackConfig(const std::string& name, const std::string& stateDir, bool trustOnFirstUse);
// A UDP port free right now (bound and released), for broadcast discovery in one test.
uint16_t FreeUdpPort();
// Sum of the 64-bit words (and tail bytes) of a buffer: cheap whole-content check.
uint64_t Checksum(const char* data, size_t len);
// A pattern buffer whose checksum depends on every byte's position.
void FillPattern(char* data, size_t len, uint32_t seed);

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
