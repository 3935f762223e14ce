// The IPC transport across real processes: this test serves (or connects to) a helper process
// started per test and checks requests and replies with objects and descriptors both ways,
// the calling identity, large raw data, timeouts, concurrency, death, leaks and bad input.
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "ipc_client.h"
#include "ipc_frame.h"
#include "ipc_process_fixture.h"
#include "ipc_server.h"
#include "ipc_skeleton.h"
#include "ipc_stats.h"
#include "ipc_test_protocol.h"
#include "iremote_broker.h"
#include "iremote_proxy.h"
#include "iremote_stub.h"
#include "process_registry.h"
#include "system_ability_manager.h"
#include "vex_log.h"

namespace Vex::IpcTest {
namespace {

constexpr auto TIMEOUT = std::chrono::seconds(10);

class IEcho : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(ECHO_DESCRIPTOR);
    virtual int32_t Echo(int32_t value) = 0;
};

class EchoProxy : public IRemoteProxy<IEcho> {
public:
    explicit EchoProxy(const sptr<IRemoteObject>& object) : IRemoteProxy<IEcho>(object) {}
    int32_t Echo(int32_t value) override
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInt32(value);
        int32_t result = Remote()->SendRequest(ECHO, data, reply, option);
        return result != ERR_NONE ? result : reply.ReadInt32();
    }
};

BrokerDelegator<EchoProxy> g_echoDelegator;

// Served by this process: records the helper's callback and who registered it.
class RegistryStub : public IPCObjectStub {
public:
    RegistryStub() : IPCObjectStub(REGISTRY_DESCRIPTOR) {}
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code != REGISTER) {
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        callback_ = data.ReadRemoteObject();
        caller_ = IPCSkeleton::GetCallingIdentity();
        cv_.notify_all();
        return ERR_NONE;
    }
    sptr<IRemoteObject> WaitForCallback(Identity* caller)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait_for(lock, TIMEOUT, [this] { return callback_ != nullptr; });
        *caller = caller_;
        sptr<IRemoteObject> callback = callback_;
        callback_ = nullptr;
        return callback;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    sptr<IRemoteObject> callback_;
    Identity caller_{};
};

// Answers the helper's nested PING and records who called.
class PingStub : public IPCObjectStub {
public:
    PingStub() : IPCObjectStub(u"test.IPing") {}
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code != PING) {
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
        }
        callerPid = IPCSkeleton::GetCallingPid();
        reply.WriteInt32(data.ReadInt32() * 2);
        return ERR_NONE;
    }
    std::atomic<int32_t> callerPid{0};
};

class CountingRecipient : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++calls_;
        thread_ = std::this_thread::get_id();
        cv_.notify_all();
    }
    bool WaitForCall()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, TIMEOUT, [this] { return calls_ > 0; });
    }
    int Calls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    std::thread::id Thread()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return thread_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int calls_ = 0;
    std::thread::id thread_;
};

// Reads up to size bytes: the writing ends may stay open in parcels still alive.
std::string ReadText(int fd, size_t size)
{
    std::string text;
    char buffer[64];
    ssize_t n;
    while (text.size() < size && (n = read(fd, buffer, std::min(sizeof(buffer), size - text.size()))) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

int32_t Call(const sptr<IRemoteObject>& object, uint32_t code, MessageParcel& data, MessageParcel& reply,
             int waitSeconds = MessageOption::TF_WAIT_TIME)
{
    MessageOption option(MessageOption::TF_SYNC, waitSeconds);
    return object->SendRequest(code, data, reply, option);
}

// This process serves; the helper connects as an application and registers its callback.
class AppHelperTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        server_ = IpcServer::Listen(folder_.Socket(), &error);
        ASSERT_NE(server_, nullptr) << error;
        server_->SetConnectionObserver([this](const IpcPeer&, bool) {
            std::lock_guard<std::mutex> lock(mutex_);
            cv_.notify_all();
        });
        registry_ = new RegistryStub();
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->AddSystemAbility(REGISTRY_ABILITY_ID,
                                                                                             registry_);
        helper_ = std::make_unique<HelperProcess>(std::vector<std::string>{"app", folder_.Socket()});
        ASSERT_GT(helper_->Pid(), 0);
        callback_ = registry_->WaitForCallback(&registeredBy_);
        ASSERT_NE(callback_, nullptr) << "the helper did not register";
    }
    void TearDown() override
    {
        callback_ = nullptr;
        helper_.reset();
        server_.reset();
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->RemoveSystemAbility(REGISTRY_ABILITY_ID);
    }
    bool WaitForConnections(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, TIMEOUT, [&] { return server_->ConnectionCount() == count; });
    }
    int32_t EchoThroughHelper(int32_t value)
    {
        MessageParcel data;
        MessageParcel reply;
        data.WriteInt32(value);
        int32_t result = Call(callback_, ECHO, data, reply);
        return result != ERR_NONE ? result : reply.ReadInt32();
    }

    TempFolder folder_;
    std::unique_ptr<IpcServer> server_;
    sptr<RegistryStub> registry_;
    std::unique_ptr<HelperProcess> helper_;
    sptr<IRemoteObject> callback_;
    Identity registeredBy_{};
    std::mutex mutex_;
    std::condition_variable cv_;
};

TEST_F(AppHelperTest, RequestAndReplyCarryObjectsAndDescriptorsBothWays)
{
    ASSERT_TRUE(callback_->IsProxyObject());
    EXPECT_EQ(callback_->GetObjectDescriptor(), std::u16string(ECHO_DESCRIPTOR));
    EXPECT_EQ(callback_->GetOwnerPid(), helper_->Pid());
    sptr<IEcho> echo = iface_cast<IEcho>(callback_);
    ASSERT_NE(echo, nullptr);
    EXPECT_EQ(echo->Echo(41), 42);

    sptr<PingStub> ping = new PingStub();
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    MessageParcel data;
    MessageParcel reply;
    data.WriteRemoteObject(ping);
    data.WriteFileDescriptor(pipeFds[1]);
    data.WriteInt32(21);
    close(pipeFds[1]);
    ASSERT_EQ(Call(callback_, EXCHANGE, data, reply), ERR_NONE);

    // Our own stub came back as itself, not as a proxy of a proxy.
    EXPECT_EQ(reply.ReadRemoteObject().GetRefPtr(), static_cast<IRemoteObject*>(ping.GetRefPtr()));
    int fromHelper = reply.ReadFileDescriptor();
    ASSERT_GE(fromHelper, 0);
    EXPECT_EQ(ReadText(fromHelper, 11), "from-helper");
    close(fromHelper);
    sptr<IRemoteObject> fresh = reply.ReadRemoteObject();
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(fresh->IsProxyObject());
    EXPECT_NE(fresh, callback_);
    sptr<IEcho> freshEcho = iface_cast<IEcho>(fresh);
    ASSERT_NE(freshEcho, nullptr);
    EXPECT_EQ(freshEcho->Echo(1), 2);
    EXPECT_EQ(reply.ReadInt32(), 42);  // the helper's nested call reached our stub
    EXPECT_EQ(ping->callerPid.load(), helper_->Pid());
    EXPECT_EQ(ReadText(pipeFds[0], 6), "helper");  // and wrote into the descriptor we sent
    close(pipeFds[0]);
}

TEST_F(AppHelperTest, StubsSeeThePeersRealPidAndUid)
{
    EXPECT_EQ(registeredBy_.pid, helper_->Pid());
    EXPECT_EQ(registeredBy_.uid, static_cast<int32_t>(getuid()));
    MessageParcel data;
    MessageParcel reply;
    data.WriteInt32(1);
    {
        // Whoever this thread pretends to be, the helper sees the socket's credentials.
        ScopedIdentity pretend(4242, 4343);
        ASSERT_EQ(Call(callback_, ECHO, data, reply), ERR_NONE);
    }
    EXPECT_EQ(reply.ReadInt32(), 2);
    EXPECT_EQ(reply.ReadInt32(), getpid());
    EXPECT_EQ(reply.ReadInt32(), static_cast<int32_t>(getuid()));
    EXPECT_EQ(reply.ReadInt32(), helper_->Pid());
}

TEST_F(AppHelperTest, LargeRawDataReplyArrivesIntact)
{
    constexpr uint32_t SIZE = 64 * 1024 * 1024;
    MessageParcel data;
    MessageParcel reply;
    data.WriteUint32(SIZE);
    ASSERT_EQ(Call(callback_, BIG, data, reply, 60), ERR_NONE);  // sanitizer builds fill 64 MiB slowly
    const auto* bytes = static_cast<const uint8_t*>(reply.ReadRawData(SIZE));
    ASSERT_NE(bytes, nullptr);
    size_t mismatches = 0;
    for (size_t i = 0; i < SIZE; ++i) {
        mismatches += bytes[i] != PatternByte(i) ? 1 : 0;
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST_F(AppHelperTest, SlowHandlerDoesNotHoldUpTheNextRequest)
{
    std::atomic<int32_t> slowResult{-1};
    bool released = false;
    std::thread slow([&] {
        MessageParcel data;
        MessageParcel reply;
        slowResult = Call(callback_, SLOW, data, reply);
        released = reply.ReadBool();
    });
    EXPECT_EQ(EchoThroughHelper(7), 8);  // answered while SLOW still blocks its handler
    MessageParcel data;
    MessageParcel reply;
    EXPECT_EQ(Call(callback_, RELEASE_SLOW, data, reply), ERR_NONE);
    slow.join();
    EXPECT_EQ(slowResult.load(), ERR_NONE);
    EXPECT_TRUE(released);
}

TEST_F(AppHelperTest, SyncRequestPastItsWaitFailsAndOneWayReturnsAtOnce)
{
    MessageParcel data;
    MessageParcel reply;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Call(callback_, NEVER, data, reply, 1), ERR_TIMED_OUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    MessageOption async(MessageOption::TF_ASYNC);
    MessageParcel asyncData;
    EXPECT_EQ(callback_->SendRequest(NEVER, asyncData, reply, async), ERR_NONE);
    EXPECT_EQ(EchoThroughHelper(1), 2);  // the connection is still fine
}

TEST_F(AppHelperTest, KillNineFiresTheDeathRecipientOnceAndFailsLaterRequests)
{
    sptr<CountingRecipient> recipient = new CountingRecipient();
    ASSERT_TRUE(callback_->AddDeathRecipient(recipient));
    helper_->Kill();
    ASSERT_TRUE(recipient->WaitForCall());
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_EQ(recipient->Calls(), 1);
    EXPECT_NE(recipient->Thread(), std::this_thread::get_id());
    EXPECT_TRUE(callback_->IsObjectDead());
    EXPECT_TRUE(ProcessRegistry::Get().IsDead(helper_->Pid()));
    MessageParcel data;
    MessageParcel reply;
    EXPECT_EQ(Call(callback_, ECHO, data, reply), ERR_DEAD_OBJECT);
    EXPECT_FALSE(callback_->AddDeathRecipient(new CountingRecipient()));
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(AppHelperTest, TenThousandRequestsLeaveDescriptorsHandlesAndThreadsUnchanged)
{
    auto round = [this]() {
        sptr<IPCObjectStub> mine = new IPCObjectStub(LEAF_DESCRIPTOR);
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) {
            return false;
        }
        MessageParcel data;
        MessageParcel reply;
        data.WriteRemoteObject(mine);
        data.WriteFileDescriptor(pipeFds[1]);
        close(pipeFds[0]);
        close(pipeFds[1]);
        if (Call(callback_, LEAK_ROUND, data, reply) != ERR_NONE) {
            return false;
        }
        bool same = reply.ReadRemoteObject() == sptr<IRemoteObject>(mine);
        sptr<IRemoteObject> theirs = reply.ReadRemoteObject();
        int fd = reply.ReadFileDescriptor();
        bool ok = same && theirs != nullptr && theirs->IsProxyObject() && fd >= 0;
        close(fd);
        return ok;
    };
    auto stats = [this](IpcStats expected, size_t fds, IpcStats* helper, size_t* helperFds) {
        MessageParcel data;
        MessageParcel reply;
        data.WriteUint64(expected.exportedHandles);
        data.WriteUint64(expected.proxyHandles);
        data.WriteUint64(fds);
        if (Call(callback_, STATS, data, reply, 15) != ERR_NONE) {
            return false;
        }
        helper->exportedHandles = reply.ReadUint64();
        helper->proxyHandles = reply.ReadUint64();
        *helperFds = reply.ReadUint64();
        return true;
    };
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(round());
    }
    // One connection; the registry exported to the helper; the helper's callback proxy.
    IpcStats settled{1, 1, 1};
    ASSERT_TRUE(WaitForIpcStats([&](const IpcStats& s) { return s == settled; }, TIMEOUT))
        << GetIpcStats().connections << " " << GetIpcStats().exportedHandles << " " << GetIpcStats().proxyHandles;
    IpcStats helperBefore;
    size_t helperFdsBefore = 0;
    ASSERT_TRUE(stats(IpcStats{1, 1, 1}, SIZE_MAX, &helperBefore, &helperFdsBefore));
    EXPECT_EQ(helperBefore.exportedHandles, 1u);  // its callback
    EXPECT_EQ(helperBefore.proxyHandles, 1u);     // our registry
    size_t fdsBefore = OpenFdCount();
    size_t poolBefore = 0;
    size_t threadsBefore = ThreadCountOutsidePool(&poolBefore);

    constexpr int ROUNDS = 10000;
    int failures = 0;
    for (int i = 0; i < ROUNDS; ++i) {
        failures += round() ? 0 : 1;
    }
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(WaitForIpcStats([&](const IpcStats& s) { return s == settled; }, TIMEOUT))
        << GetIpcStats().connections << " " << GetIpcStats().exportedHandles << " " << GetIpcStats().proxyHandles;
    EXPECT_EQ(OpenFdCount(), fdsBefore);
    size_t poolAfter = 0;
    EXPECT_EQ(ThreadCountOutsidePool(&poolAfter), threadsBefore);
    EXPECT_LE(poolAfter, 16u);  // the worker pool's cap
    IpcStats helperAfter;
    size_t helperFdsAfter = 0;
    ASSERT_TRUE(stats(helperBefore, helperFdsBefore, &helperAfter, &helperFdsAfter));
    EXPECT_EQ(helperAfter.exportedHandles, helperBefore.exportedHandles);
    EXPECT_EQ(helperAfter.proxyHandles, helperBefore.proxyHandles);
    EXPECT_EQ(helperFdsAfter, helperFdsBefore);
}

// ---- bad input: each row is sent by a raw helper; only its connection closes ----

struct Chunk {
    std::vector<uint8_t> bytes;
    size_t fds = 0;
};

struct BadInputCase {
    const char* name;
    std::function<std::vector<Chunk>()> chunks;
    const char* logged;  // part of the one error line
};

void PrintTo(const BadInputCase& c, std::ostream* os)
{
    *os << c.name;
}

std::vector<uint8_t> Encode(Frame frame, const std::vector<uint8_t>& data = {})
{
    std::vector<uint8_t> bytes;
    std::string error;
    EncodeFrame(frame, data.size(), &bytes, &error);
    bytes.insert(bytes.end(), data.begin(), data.end());
    bytes.resize(bytes.size() + IpcDataPadding(data.size()), 0);
    return bytes;
}

Frame Request(uint64_t handle)
{
    Frame frame;
    frame.type = FrameType::REQUEST;
    frame.code = 1;
    frame.transaction = 1;
    frame.handle = handle;
    return frame;
}

void PutU32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value)
{
    std::memcpy(bytes.data() + offset, &value, 4);
}

std::vector<uint8_t> ValidRequestToRoot()
{
    std::vector<uint8_t> data(4, 0);
    return Encode(Request(0), data);
}

const BadInputCase BAD_INPUT[] = {
    {"TruncatedFrame", [] {
         auto bytes = ValidRequestToRoot();
         bytes.resize(30);
         return std::vector<Chunk>{{bytes, 0}};
     }, "ended inside a frame"},
    {"BadMagic", [] {
         auto bytes = ValidRequestToRoot();
         bytes[0] ^= 0xFF;
         return std::vector<Chunk>{{bytes, 0}};
     }, "bad frame magic"},
    {"BodyPastTheLimit", [] {
         auto bytes = ValidRequestToRoot();
         PutU32(bytes, 32, static_cast<uint32_t>(IPC_MAX_BODY_SIZE + 1));
         return std::vector<Chunk>{{bytes, 0}};
     }, "body size"},
    {"DataPastTheLimit", [] {
         auto bytes = ValidRequestToRoot();
         PutU32(bytes, 48, static_cast<uint32_t>(IPC_MAX_DATA_SIZE + 1));
         return std::vector<Chunk>{{bytes, 0}};
     }, "past their limits"},
    {"TooManyDescriptorsAnnounced", [] {
         auto bytes = ValidRequestToRoot();
         PutU32(bytes, 36, static_cast<uint32_t>(IPC_MAX_FDS + 1));
         return std::vector<Chunk>{{bytes, 0}};
     }, "descriptors, limit"},
    {"TooManyDescriptorsInOneMessage", [] { return std::vector<Chunk>{{ValidRequestToRoot(), IPC_MAX_FDS + 8}}; },
     "descriptors in one message"},
    {"DescriptorFlood", [] {
         auto bytes = ValidRequestToRoot();
         std::vector<Chunk> chunks;
         for (size_t i = 0; i < 4; ++i) {
             chunks.push_back({std::vector<uint8_t>(bytes.begin() + 4 * i, bytes.begin() + 4 * i + 4), 50});
         }
         return chunks;
     }, "descriptor flood"},
    {"FewerDescriptorsThanAnnounced", [] {
         Frame frame = Request(0);
         frame.fdCount = 2;
         return std::vector<Chunk>{{Encode(frame), 1}};
     }, "2 descriptors, 1 arrived"},
    {"RequestToUnknownHandle", [] { return std::vector<Chunk>{{Encode(Request(999)), 0}}; }, "unknown or released handle 999"},
    {"ForgedObjectHandle", [] {
         Frame frame = Request(0);
         frame.objects.push_back(FrameObject{ObjectKind::RECEIVER, 777, u""});
         return std::vector<Chunk>{{Encode(frame), 0}};
     }, "handle 777 was never exported"},
    {"ReleaseOfUnknownHandle", [] {
         Frame frame;
         frame.type = FrameType::RELEASE;
         frame.handle = 555;
         frame.code = 1;
         return std::vector<Chunk>{{Encode(frame), 0}};
     }, "release of unknown handle 555"},
    {"RawDataNotInASealedMemfd", [] {
         Frame frame = Request(0);
         frame.fdCount = 1;
         frame.rawSizes.push_back(4096);
         return std::vector<Chunk>{{Encode(frame), 1}};
     }, "not a sealed memfd"},
};

class BadInputTest : public AppHelperTest, public testing::WithParamInterface<BadInputCase> {};

TEST_P(BadInputTest, ClosesOnlyTheConnectionThatSentIt)
{
    ASSERT_TRUE(WaitForConnections(1));
    std::vector<std::string> args{"raw", folder_.Socket()};
    for (const Chunk& chunk : GetParam().chunks()) {
        std::string hex;
        char digits[3];
        for (uint8_t byte : chunk.bytes) {
            snprintf(digits, sizeof(digits), "%02x", byte);
            hex += digits;
        }
        args.push_back(hex + ":" + std::to_string(chunk.fds));
    }
    LogCapture log;
    HelperProcess bad(args);
    EXPECT_EQ(bad.Wait(TIMEOUT), 0) << "the server did not close the bad connection";
    EXPECT_TRUE(WaitForConnections(1));
    std::string closing = "closing the connection of pid " + std::to_string(bad.Pid());
    size_t lines = 0;
    for (const LogRecord& record : log.Records()) {
        if (record.level == LOG_ERROR) {
            ++lines;
            EXPECT_NE(record.message.find(closing), std::string::npos) << record.message;
            EXPECT_NE(record.message.find(GetParam().logged), std::string::npos) << record.message;
        }
    }
    EXPECT_EQ(lines, 1u);
    EXPECT_TRUE(ProcessRegistry::Get().IsDead(bad.Pid()));
    EXPECT_EQ(EchoThroughHelper(5), 6);  // the good connection is untouched
    EXPECT_FALSE(callback_->IsObjectDead());
}

INSTANTIATE_TEST_SUITE_P(Rows, BadInputTest, testing::ValuesIn(BAD_INPUT),
                         [](const testing::TestParamInfo<BadInputCase>& info) { return std::string(info.param.name); });

// ---- the helper serves, this process is the client ----

TEST(ServingHelperTest, ClientFindsTheServersAbilitiesAndSeesItsDeath)
{
    TempFolder folder;
    HelperProcess helper({"serve", folder.Socket()}, true);
    ASSERT_TRUE(helper.WaitReady(TIMEOUT));
    std::string error;
    auto client = IpcClient::Connect(folder.Socket(), &error);
    ASSERT_NE(client, nullptr) << error;
    EXPECT_EQ(client->ServerPeer().pid, helper.Pid());
    EXPECT_EQ(client->GetSystemAbility(12345), nullptr);

    sptr<ISystemAbilityManager> local = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    client->InstallAsSystemAbilityManager();
    sptr<IRemoteObject> ability =
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->GetSystemAbility(HELPER_ABILITY_ID);
    SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(local);
    ASSERT_NE(ability, nullptr);
    sptr<IEcho> echo = iface_cast<IEcho>(ability);
    ASSERT_NE(echo, nullptr);
    EXPECT_EQ(echo->Echo(9), 10);

    sptr<CountingRecipient> recipient = new CountingRecipient();
    ASSERT_TRUE(ability->AddDeathRecipient(recipient));
    helper.Kill();
    ASSERT_TRUE(recipient->WaitForCall());
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_EQ(recipient->Calls(), 1);
    EXPECT_EQ(echo->Echo(1), ERR_DEAD_OBJECT);
    EXPECT_FALSE(client->IsConnected());
    EXPECT_EQ(client->GetSystemAbility(HELPER_ABILITY_ID), nullptr);
}

}  // namespace
}  // namespace Vex::IpcTest
