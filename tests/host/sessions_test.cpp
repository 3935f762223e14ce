// The session layer between the plugin and the soft bus, driven through a TestDevice whose bus
// ends in a ScriptedPeer: commands of peer-opened sessions, delivery to listeners, shut-downs.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string_view>

#include "collaboration_sessions.h"
#include "device_context.h"
#include "host_types.h"
#include "listener_manager.h"
#include "plugin_loader.h"
#include "session_manager.h"
#include "soft_bus_adapter.h"
#include "test_device.h"

namespace QUEX {
namespace Tandra {
namespace {

using namespace std::chrono_literals;
using Testing::ScriptedPeer;
using Testing::TestDevice;

// What the fake plugin's commands did, in order: "execute <text> <session>", "release <text>".
class Journal {
public:
    void Add(const std::string& entry)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
        cv_.notify_all();
    }
    std::vector<std::string> Entries()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }
    bool AwaitEntry(const std::string& entry)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, 5s, [&] { return std::count(entries_.begin(), entries_.end(), entry) > 0; });
    }
    void Clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
        unblocked_ = false;
    }
    // Lets a command blocked in Execute go.
    void Unblock()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        unblocked_ = true;
        cv_.notify_all();
    }
    void WaitUnblocked()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return unblocked_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> entries_;
    bool unblocked_ = false;
};

Journal g_journal;

// A command named by one word of the command text: "ok", "fail:<code>" or "block".
class FakeCommand : public Command {
public:
    explicit FakeCommand(std::string word) : word_(std::move(word)) {}
    int32_t Execute(int sessionId) override
    {
        g_journal.Add("execute " + word_ + " " + std::to_string(sessionId));
        if (word_ == "block") {
            g_journal.WaitUnblocked();
        }
        return word_.rfind("fail:", 0) == 0 ? std::stoi(word_.substr(5)) : 0;
    }
    void Release() override { g_journal.Add("release " + word_); }

private:
    std::string word_;
};

class FakePlugin : public AbilityPlugin {
public:
    int32_t DispatchRequest(Vex::MessageParcel&, Vex::MessageParcel&, Vex::MessageOption&, IPCContext) override
    {
        return 0;
    }
    std::vector<std::shared_ptr<Command>> CreateCommand(const std::string& text) override
    {
        g_journal.Add("create " + text);
        std::vector<std::shared_ptr<Command>> commands;
        std::istringstream words(text);
        for (std::string word; std::getline(words, word, ',');) {
            commands.push_back(std::make_shared<FakeCommand>(word));
        }
        return commands;
    }
};

// Records every listener call as one line; data is kept as size and checksum.
class RecordingListener : public EventListener {
public:
    void OnDataReceived(const std::string& key, const char* data, uint32_t len, uint32_t) override
    {
        Add("data " + key + " " + Describe(data, len), Vex::IPCSkeleton::GetSelfPid());
    }
    void OnDataReceived(int32_t id, const char* data, uint32_t len, uint32_t) override
    {
        Add("data #" + std::to_string(id) + " " + Describe(data, len), Vex::IPCSkeleton::GetSelfPid());
    }
    void OnCtrlChannelShutDown(const std::string& key) override { Add("shutdown " + key, 0); }
    void OnWiFiShutDown() override { Add("wifi off", 0); }

    std::vector<std::string> Events()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    int32_t LastPid()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lastPid_;
    }
    static std::string Describe(const char* data, uint32_t len)
    {
        size_t hash = std::hash<std::string_view>()(std::string_view(data, len));
        return std::to_string(len) + ":" + std::to_string(hash);
    }

private:
    void Add(const std::string& event, int32_t pid)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
        if (pid != 0) {
            lastPid_ = pid;
        }
    }
    std::mutex mutex_;
    std::vector<std::string> events_;
    int32_t lastPid_ = 0;
};

class SessionsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static FakePlugin plugin;
        PluginLoader::GetLoader().RegisterInstance(PLUGIN_TYPE_CAMERA, &plugin);
        g_journal.Clear();
        ListenerManager::GetInstance()->RegisterEventListener(listener_);
        device_.AddPeerDevice(TestDevice::PeerIdentity());
    }
    void TearDown() override { ListenerManager::GetInstance()->UnregisterEventListener(listener_); }

    int32_t OpenFromPeer(const std::string& name, const std::string& text, int32_t expected = HOST_OK)
    {
        int32_t id = peer().OpenSessionToDevice(peerNet_, name, text);
        int32_t result = -1;
        EXPECT_TRUE(peer().AwaitOpenResult(id, result));
        EXPECT_EQ(result, expected);
        return id;
    }
    int32_t OpenFromDevice(const std::string& name, const std::string& text = "cmd")
    {
        auto info = std::make_shared<ServiceInfo>(2, 1, name, text);
        auto result = SessionManager::CollaborationToDeviceByCtrlSession("local", peerNet_, info);
        EXPECT_EQ(result.first, HOST_OK);
        return result.second;
    }
    ScriptedPeer& peer() { return device_.Peer(); }

    TestDevice device_;
    std::shared_ptr<RecordingListener> listener_ = std::make_shared<RecordingListener>();
    const std::string peerNet_ = TestDevice::PeerIdentity().networkId;
};

TEST_F(SessionsTest, PeerOpenedSessionRunsItsCommandsAndReleasesThemWhenThePeerCloses)
{
    const std::string name = "00000000007-" + device_.Identity().networkId;
    int32_t id = OpenFromPeer(name, "ok,ok");
    const std::string sid = std::to_string(id);
    EXPECT_EQ(g_journal.Entries(),
              (std::vector<std::string>{"create ok,ok", "execute ok " + sid, "execute ok " + sid}));
    EXPECT_TRUE(SessionManager::GetCollaborationSession(id));

    ASSERT_TRUE(peer().AwaitDelivered(peer().CloseSession(id)));
    EXPECT_EQ(g_journal.Entries().size(), 5u);
    EXPECT_EQ(g_journal.Entries()[3], "release ok");
    EXPECT_EQ(g_journal.Entries()[4], "release ok");
    EXPECT_EQ(listener_->Events(), (std::vector<std::string>{"shutdown " + name}));
    EXPECT_FALSE(SessionManager::GetCollaborationSession(id));
    EXPECT_EQ(DeviceContext::Get().Sessions().ActiveIncomingCount(), 0u);
}

TEST_F(SessionsTest, FailedExecuteFailsTheOpenAndReleasesTheExecutedCommands)
{
    int32_t id = OpenFromPeer("00000000008-x", "ok,fail:2005,ok", 2005);
    const std::string sid = std::to_string(id);
    EXPECT_EQ(g_journal.Entries(),
              (std::vector<std::string>{"create ok,fail:2005,ok", "execute ok " + sid, "execute fail:2005 " + sid,
                                        "release ok", "release fail:2005"}));
    EXPECT_FALSE(peer().IsSessionOpen(id));
    EXPECT_TRUE(listener_->Events().empty());
    EXPECT_EQ(DeviceContext::Get().Sessions().ActiveIncomingCount(), 0u);
}

TEST_F(SessionsTest, ACommandTextWithoutCommandsFailsTheOpen)
{
    OpenFromPeer("00000000009-x", "", HOST_ERR_INVALID_PARAM);
}

TEST_F(SessionsTest, SessionEndingDuringExecuteIsReleasedWhenExecuteReturns)
{
    int32_t id = peer().OpenSessionToDevice(peerNet_, "00000000010-x", "block");
    ASSERT_TRUE(g_journal.AwaitEntry("execute block " + std::to_string(id)));
    ASSERT_TRUE(peer().AwaitDelivered(peer().CloseSession(id)));
    EXPECT_EQ(listener_->Events(), (std::vector<std::string>{"shutdown 00000000010-x"}));
    EXPECT_EQ(g_journal.Entries().back(), "execute block " + std::to_string(id));  // not released yet

    g_journal.Unblock();
    int32_t result = 0;
    ASSERT_TRUE(peer().AwaitOpenResult(id, result));
    EXPECT_EQ(result, HOST_ERR_NO_SESSION);
    std::vector<std::string> entries = g_journal.Entries();
    EXPECT_EQ(entries.back(), "release block");
    EXPECT_EQ(std::count(entries.begin(), entries.end(), "release block"), 1);
}

TEST_F(SessionsTest, DeviceClosingAPeerSessionReleasesWithoutALocalNotice)
{
    int32_t id = OpenFromPeer("00000000011-x", "ok");
    EXPECT_EQ(SessionManager::StopCollaborationToDevice(id, true), HOST_OK);
    EXPECT_EQ(g_journal.Entries().back(), "release ok");
    ASSERT_EQ(peer().SessionsClosedByDevice().size(), 1u);
    EXPECT_EQ(peer().SessionsClosedByDevice()[0].id, id);
    EXPECT_TRUE(peer().SessionsClosedByDevice()[0].notifyPeer);
    EXPECT_TRUE(listener_->Events().empty());
    EXPECT_EQ(SessionManager::StopCollaborationToDevice(id, true), HOST_ERR_NO_SESSION);
}

TEST_F(SessionsTest, LinkDropEndsEverySessionWithThatPeer)
{
    OpenFromPeer("00000000012-x", "ok");
    int32_t outgoing = OpenFromDevice("00000000013-" + peerNet_);
    ASSERT_TRUE(peer().AwaitDelivered(peer().DropLink(peerNet_)));
    EXPECT_EQ(g_journal.Entries().back(), "release ok");
    auto events = listener_->Events();
    std::sort(events.begin(), events.end());
    EXPECT_EQ(events, (std::vector<std::string>{"shutdown 00000000012-x", "shutdown 00000000013-" + peerNet_}));
    EXPECT_FALSE(SessionManager::GetCollaborationSession(outgoing));
}

TEST_F(SessionsTest, DeviceOpenedSessionCarriesNameAndTextAndDeliversUnderItsName)
{
    const std::string name = "00000000021-" + peerNet_;
    int32_t id = OpenFromDevice(name, "{\"take\":1}");
    ASSERT_EQ(peer().SessionsOpenedByDevice().size(), 1u);
    EXPECT_EQ(peer().SessionsOpenedByDevice()[0].sessionName, name);
    EXPECT_EQ(peer().SessionsOpenedByDevice()[0].commandText, "{\"take\":1}");
    EXPECT_EQ(peer().SessionsOpenedByDevice()[0].peerNetworkId, peerNet_);

    const char header[8] = {1, 2, 3, 4, 0, 0, 0, 0};
    EXPECT_EQ(SessionManager::TransmitMsg(id, header, 8, MSG_TYPE_CAMERA), HOST_OK);
    ASSERT_EQ(peer().SentOnSession(id).size(), 1u);
    EXPECT_EQ(peer().SentOnSession(id)[0].bytes, std::string(header, 8));
    EXPECT_EQ(peer().SentOnSession(id)[0].type, MSG_TYPE_CAMERA);

    ASSERT_TRUE(peer().AwaitDelivered(peer().SendOnSession(id, "abc")));
    ASSERT_TRUE(peer().AwaitDelivered(peer().SendOnSession(name, "de")));
    ASSERT_TRUE(peer().AwaitDelivered(peer().CloseSession(id)));
    EXPECT_EQ(
        listener_->Events(),
        (std::vector<std::string>{"data " + name + " " + RecordingListener::Describe("abc", 3),
                                  "data " + name + " " + RecordingListener::Describe("de", 2), "shutdown " + name}));
    EXPECT_EQ(SessionManager::TransmitMsg(id, header, 8, MSG_TYPE_CAMERA), HOST_ERR_NO_SESSION);
}

TEST_F(SessionsTest, OpenAndTransmitFailuresReachTheCaller)
{
    peer().FailSessionOpens(2005);
    auto info = std::make_shared<ServiceInfo>(2, 1, "00000000022-" + peerNet_, "cmd");
    EXPECT_EQ(SessionManager::CollaborationToDeviceByCtrlSession("local", peerNet_, info), std::make_pair(2005, -1));
    EXPECT_EQ(SessionManager::CollaborationToDeviceByCtrlSession("local", peerNet_, nullptr).first,
              HOST_ERR_INVALID_PARAM);
    peer().FailSessionOpens(HOST_OK);
    int32_t id = OpenFromDevice("00000000023-" + peerNet_);

    peer().FailTransmits(HOST_ERR_SEND_FAILED);
    EXPECT_EQ(SessionManager::TransmitMsg(id, "x", 1, MSG_TYPE_CAMERA), HOST_ERR_SEND_FAILED);
    peer().FailTransmits(HOST_OK);
    EXPECT_EQ(SessionManager::TransmitMsg(id, nullptr, 1, MSG_TYPE_CAMERA), HOST_ERR_INVALID_PARAM);
    EXPECT_EQ(SessionManager::TransmitMsg(id + 100, "x", 1, MSG_TYPE_CAMERA), HOST_ERR_NO_SESSION);
    EXPECT_TRUE(peer().Sent().empty());

    peer().FailChannelOpens(461440990);
    SessionAttribute attr{};
    EXPECT_EQ(SessionManager::OpenDataTransmitChannel(peerNet_, attr), std::make_pair(461440990, -1));
}

TEST_F(SessionsTest, DataChannelMessagesAreKeyedByTheirControlSession)
{
    int32_t ctrl = OpenFromPeer("00000000031-x", "ok");
    SessionAttribute attr{};
    attr.dataType = TYPE_BYTES;
    auto [result, channel] = SessionManager::OpenDataTransmitChannel(peerNet_, attr);
    ASSERT_EQ(result, HOST_OK);
    EXPECT_EQ(peer().Channels()[0].attr.dataType, TYPE_BYTES);

    EXPECT_EQ(SessionManager::TransmitMsgToSpecificChannel(channel, ctrl, "photo", 5, MSG_TYPE_CAMERA, true), HOST_OK);
    ASSERT_EQ(peer().SentOnDataChannelsFor(ctrl).size(), 1u);
    EXPECT_EQ(peer().SentOnChannel(channel)[0].bytes, "photo");
    EXPECT_TRUE(peer().SentOnChannel(channel)[0].isFirst);

    peer().SendOnDataChannel(ctrl, "mine");
    ASSERT_TRUE(peer().AwaitIdle());
    peer().SendOnDataChannel(9999, "orphan", channel);
    ASSERT_TRUE(peer().AwaitIdle());
    EXPECT_EQ(listener_->Events(),
              (std::vector<std::string>{
                  "data 00000000031-x " + RecordingListener::Describe("mine", 4),
                  "data #" + std::to_string(channel) + " " + RecordingListener::Describe("orphan", 6)}));

    EXPECT_EQ(SoftBusAdapter::CloseSoftBusSession(channel), HOST_OK);
    EXPECT_EQ(peer().ChannelsClosedByDevice(), std::vector<int32_t>{channel});
    EXPECT_EQ(SoftBusAdapter::CloseSoftBusSession(channel), HOST_ERR_NO_SESSION);
}

TEST_F(SessionsTest, A64MiBMessageArrivesWholeBothWays)
{
    constexpr uint32_t SIZE = 64u << 20;
    std::string photo(SIZE, '\0');
    for (uint32_t i = 0; i < SIZE; i += 4096) {
        photo[i] = static_cast<char>(i >> 12);
    }
    photo[SIZE - 1] = 'z';
    const std::string expected = RecordingListener::Describe(photo.data(), SIZE);
    int32_t ctrl = OpenFromPeer("00000000041-x", "ok");
    auto [result, channel] = SessionManager::OpenDataTransmitChannel(peerNet_, SessionAttribute{});
    ASSERT_EQ(result, HOST_OK);

    ASSERT_EQ(SessionManager::TransmitMsgToSpecificChannel(channel, ctrl, photo.data(), SIZE, MSG_TYPE_CAMERA, true),
              HOST_OK);
    ASSERT_EQ(peer().SentOnChannel(channel).size(), 1u);
    EXPECT_EQ(RecordingListener::Describe(peer().Sent()[0].bytes.data(), SIZE), expected);

    ASSERT_TRUE(peer().AwaitDelivered(peer().SendOnDataChannel(ctrl, std::move(photo))));
    EXPECT_EQ(listener_->Events(), std::vector<std::string>{"data 00000000041-x " + expected});
}

TEST_F(SessionsTest, MessagesKeepTheirOrderPerSession)
{
    int32_t a = OpenFromPeer("00000000051-x", "ok");
    int32_t b = OpenFromDevice("00000000052-" + peerNet_);
    for (int i = 0; i < 100; ++i) {
        peer().SendOnSession(a, "a" + std::to_string(i));
        peer().SendOnDataChannel(a, "a" + std::to_string(i));  // the data channel of the same session
        peer().SendOnSession(b, "b" + std::to_string(i));
    }
    ASSERT_TRUE(peer().AwaitIdle());
    std::vector<std::string> expectedA;
    std::vector<std::string> expectedB;
    for (int i = 0; i < 100; ++i) {
        std::string ai = "a" + std::to_string(i);
        std::string bi = "b" + std::to_string(i);
        expectedA.push_back("data 00000000051-x " + RecordingListener::Describe(ai.data(), ai.size()));
        expectedA.push_back(expectedA.back());
        expectedB.push_back("data 00000000052-" + peerNet_ + " " + RecordingListener::Describe(bi.data(), bi.size()));
    }
    std::vector<std::string> gotA;
    std::vector<std::string> gotB;
    for (const std::string& event : listener_->Events()) {
        (event.rfind("data 00000000051", 0) == 0 ? gotA : gotB).push_back(event);
    }
    EXPECT_EQ(gotA, expectedA);
    EXPECT_EQ(gotB, expectedB);
}

TEST_F(SessionsTest, BusThreadsActAsTheHostService)
{
    device_.SetServiceIdentity(3100, 1000);
    int32_t id = OpenFromDevice("00000000061-" + peerNet_);
    ASSERT_TRUE(peer().AwaitDelivered(peer().SendOnSession(id, "x")));
    EXPECT_EQ(listener_->LastPid(), 3100);
}

TEST_F(SessionsTest, WifiTurnedOffIsNoticedOnce)
{
    EXPECT_TRUE(SoftBusAdapter::IsWifiActive());
    device_.SetWifiActive(false);
    device_.SetWifiActive(false);
    EXPECT_FALSE(SoftBusAdapter::IsWifiActive());
    device_.SetWifiActive(true);
    EXPECT_TRUE(SoftBusAdapter::IsWifiActive());
    EXPECT_EQ(listener_->Events(), std::vector<std::string>{"wifi off"});
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
