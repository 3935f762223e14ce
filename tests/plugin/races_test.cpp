// Endings of a take-photo collaboration on the requesting device that race with the plugin's
// own steps: the last photo overtaking the pool task that starts the photo-data wait, a cancel
// landing while the command's session is being recorded, and the collaboration id, which goes
// back to the host once, whatever the ending. Each race is made to happen, not hoped for:
// pool tasks are held at a gate, and a cancel is run at the exact step it must race with.
// Time is simulated, so a wait left behind stays visible until the test moves the clock.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_msg_header.h"
#include "collaboration_records.h"
#include "device_context.h"
#include "ipc_skeleton.h"
#include "iremote_stub.h"
#include "process_registry.h"
#include "scripted_meshline_service.h"
#include "tandra_service_utils.h"
#include "test_device.h"
#include "vex_clock.h"
#include "vex_log.h"

namespace {

// The ids the plugin gave back to the host, in order.
struct ReleasedIds {
    std::mutex mutex;
    std::vector<uint32_t> ids;
};

ReleasedIds& Released()
{
    static ReleasedIds* released = new ReleasedIds();  // pool workers may release until exit
    return *released;
}

}  // namespace

namespace QUEX {
namespace Tandra {

// The host hands an id out again only after its release and a wrap-around of its counter, far
// out of a test's reach, so the test watches the release itself: the executable's definition
// comes first for the plugin, records the id and forwards to the host's.
void TandraServiceUtils::ReleaseCollaborationId(uint32_t collaborationId)
{
    {
        std::lock_guard<std::mutex> lock(Released().mutex);
        Released().ids.push_back(collaborationId);
    }
    using HostRelease = void (*)(uint32_t);
    static const auto hostRelease = reinterpret_cast<HostRelease>(
        dlsym(RTLD_NEXT, "_ZN4QUEX6Tandra18TandraServiceUtils22ReleaseCollaborationIdEj"));
    if (hostRelease != nullptr) {
        hostRelease(collaborationId);
    }
}

namespace {

using namespace std::chrono_literals;
using Vex::Clock;

constexpr int32_t APP_PID = 4321;
constexpr int32_t APP_UID = 20010001;
constexpr int32_t MESHLINE_PID = 7001;
constexpr int32_t MESHLINE_UID = 1000;
constexpr int32_t SERVICE_GRANTED = 320001;
constexpr uint32_t REQ_TAKE_PHOTO = 1;
constexpr uint32_t REQ_CANCEL = 4;
constexpr uint32_t SERVICE_TYPE_EVENT = 101;
constexpr int32_t NO_SESSION = -2;
constexpr int32_t SERVICE_STATE_SESSION_UP = 4;
constexpr auto LONGEST_WAIT = 180s;
constexpr std::chrono::milliseconds AWAIT{5000};
const std::string APP_BUNDLE = "com.example.photo";
const std::string TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";

size_t ReleaseCount(uint32_t collaborationId)
{
    std::lock_guard<std::mutex> lock(Released().mutex);
    return static_cast<size_t>(std::count(Released().ids.begin(), Released().ids.end(), collaborationId));
}

std::string IdText(uint32_t collaborationId)
{
    char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "%011u", collaborationId);
    return buffer;
}

// A peer message: the 8-byte header, then the payload.
std::string CameraMessage(uint32_t code, const std::string& payload = std::string(), uint32_t size = 0)
{
    CameraMsgHeader header{code, payload.empty() ? size : static_cast<uint32_t>(payload.size())};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + payload;
}

const std::string PHOTO(64 * 1024, 'p');

AbilityInfo PeerCamera()
{
    AbilityInfo info;
    info.bundleName = "com.peer.camera";
    info.abilityName = "CameraAbility";
    info.moduleName = "entry";
    info.action = TAKE_PHOTO_TYPE;
    info.abilityType = TAKE_PHOTO_TYPE;
    return info;
}

// The application's callback object: records events and photos, and can run an action on the
// calling thread when a call with a given code arrives, before answering it.
class AppCallback : public Vex::IPCObjectStub {
public:
    struct Call {
        uint32_t serviceType = 0;
        uint32_t code = 0;
        std::string text;  // events only
    };

    AppCallback() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}

    void OnCall(uint32_t code, std::function<void()> action)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hookCode_ = code;
        hook_ = std::move(action);
    }

    int OnRemoteRequest(uint32_t, Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption&) override
    {
        data.ReadInterfaceToken();
        Call call;
        call.serviceType = data.ReadUint32();
        for (int i = 0; i < 4; ++i) {
            data.ReadUint32();
        }
        call.code = data.ReadUint32();
        data.ReadUint32();  // the collaboration id
        if (call.serviceType == SERVICE_TYPE_EVENT) {
            call.text = data.ReadString();
        }
        std::function<void()> action;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(call);
            if (hook_ && hookCode_ == call.code) {
                action = std::move(hook_);
                hook_ = nullptr;
            }
        }
        if (action) {
            action();
        }
        reply.WriteInt32(0);
        return 0;
    }

    std::vector<uint32_t> Codes() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<uint32_t> codes;
        for (const Call& call : calls_) {
            codes.push_back(call.code);
        }
        return codes;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    uint32_t hookCode_ = 0;
    std::function<void()> hook_;
};

// Holds the host's pool tasks before they start. The pool asks the env for the service's
// identity before every task; while the gate is closed that call waits, except on the thread
// that closed it (the bus thread, which asks too before it delivers a message).
class PoolGate : public DeviceEnvWrapper {
public:
    explicit PoolGate(std::shared_ptr<DeviceEnv> target) : DeviceEnvWrapper(std::move(target)) {}

    Vex::Identity GetServiceIdentity() override
    {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (closed_ && std::this_thread::get_id() != closer_) {
                ++held_;
                cv_.notify_all();
                cv_.wait(lock, [this]() { return !closed_; });
                --held_;
            }
        }
        return DeviceEnvWrapper::GetServiceIdentity();
    }

    void CloseForOthers()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        closer_ = std::this_thread::get_id();
    }

    void Open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = false;
        cv_.notify_all();
    }

    bool AwaitHeld(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, AWAIT, [&]() { return held_ >= count; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool closed_ = false;
    std::thread::id closer_;
    size_t held_ = 0;
};

// Holds the thread that logs a line containing the text at that line until an action has run:
// the only way into a step that calls out to nothing but the log. The logging thread holds the
// log's lock meanwhile, so the action runs on a thread of its own with the log silenced (lines
// below the fatal level are dropped before that lock is taken).
class LogHook {
public:
    LogHook(std::string text, std::function<void()> action) : text_(std::move(text)), action_(std::move(action))
    {
        previous_ = Vex::SetLogSink([this](const Vex::LogRecord& record) {
            std::cerr << record.tag << ": " << record.message << "\n";
            if (!fired_ && record.message.find(text_) != std::string::npos) {
                fired_ = true;
                Vex::SetLogLevel(Vex::LOG_FATAL);
                std::thread(action_).join();
                Vex::SetLogLevel(Vex::LOG_DEBUG);
            }
        });
    }
    ~LogHook() { Vex::SetLogSink(previous_); }
    LogHook(const LogHook&) = delete;
    LogHook& operator=(const LogHook&) = delete;

    bool Fired() const { return fired_; }

private:
    const std::string text_;
    const std::function<void()> action_;
    std::atomic<bool> fired_{false};
    Vex::LogSink previous_;
};

class RaceTest : public testing::Test {
protected:
    void SetUp() override
    {
        Clock::UseSimulatedTime();
        device_.AddPeerDevice(peer_, {PeerCamera()});
        device_.SetForegroundApp(APP_BUNDLE);
        device_.SetBundleName(APP_UID, APP_BUNDLE);
        gate_ = std::make_shared<PoolGate>(device_.EnvPtr());
        DeviceContext::Get().InstallEnv(gate_);
        meshline_ = Testing::ScriptedMeshlineService::Create(MESHLINE_PID, MESHLINE_UID);
        ASSERT_TRUE(meshline_->Register());
        meshline_->AnswerApplyResource(SERVICE_GRANTED);
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
        Vex::ScopedIdentity asApp(APP_PID, APP_UID);
        app_ = new AppCallback();
    }

    void TearDown() override
    {
        // Whatever a failed test left held or waiting runs out while the backends still exist.
        gate_->Open();
        Clock::UseScaledTime(1000);
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        meshline_->WaitForActions();
        meshline_->SetReplyWriter(Testing::PUBLISH_SERVICE_STATE, nullptr);
        meshline_->Unregister();
        DeviceContext::Get().InstallEnv(device_.EnvPtr());
    }

    // A request of the application as the host hands it over: (result, parcel reply).
    int32_t Dispatch(uint32_t code, const std::function<void(Vex::MessageParcel&)>& write, Vex::MessageParcel& reply)
    {
        Vex::MessageParcel data;
        Vex::MessageOption option;
        for (uint32_t value : {code, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
        write(data);
        Vex::ScopedCallingIdentity call({APP_PID, APP_UID}, Vex::IPCSkeleton::GetSelfIdentity());
        return process_->DispatchRequest(data, reply, option, IPCContext{APP_PID, APP_UID});
    }

    // The take-photo request; the collaboration id of its reply.
    uint32_t Request()
    {
        DeviceIdentity local = device_.Identity();
        Vex::sptr<PickerResult> picker =
            new PickerResult(new AbilityFilter(TAKE_PHOTO_TYPE),
                             new DeviceInfo(peer_.networkId, peer_.udid, peer_.deviceName, peer_.deviceType),
                             new LocalInfo(APP_BUNDLE, "MainAbility", "entry", local.udid, local.deviceType));
        Vex::MessageParcel reply;
        int32_t result = Dispatch(
            REQ_TAKE_PHOTO,
            [&](Vex::MessageParcel& data) {
                data.WriteInt32(1);
                picker->Marshalling(data);
                data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(app_.GetRefPtr()));
            },
            reply);
        EXPECT_EQ(result, 0);
        return reply.ReadInt32() == 0 ? reply.ReadUint32() : 0;
    }

    int32_t Cancel(uint32_t collaborationId)
    {
        Vex::MessageParcel reply;
        return Dispatch(
            REQ_CANCEL, [collaborationId](Vex::MessageParcel& data) { data.WriteUint32(collaborationId); }, reply);
    }

    // The session the device opened for the collaboration, once the open is done, whether or
    // not it is still open (-1 if it never was).
    int32_t AwaitSession(uint32_t collaborationId)
    {
        const std::string name = IdText(collaborationId) + "-" + peer_.networkId;
        Testing::ScriptedPeer& peer = device_.Peer();
        int32_t sessionId = -1;
        EXPECT_TRUE(peer.AwaitCondition([&]() {
            for (const Testing::SessionRecord& session : peer.SessionsOpenedByDevice()) {
                if (session.sessionName == name && session.openDone) {
                    sessionId = session.sessionId;
                    return true;
                }
            }
            return false;
        }));
        return sessionId;
    }

    // A collaboration whose command went out and whose wait for the peer's first answer runs.
    std::pair<uint32_t, int32_t> Start()
    {
        uint32_t collaborationId = Request();
        EXPECT_NE(collaborationId, 0u);
        int32_t sessionId = AwaitSession(collaborationId);
        EXPECT_TRUE(Clock::AwaitWaiters(1));
        EXPECT_EQ(process_->QuerySessionId(collaborationId), sessionId);
        return {collaborationId, sessionId};
    }

    void PeerSends(int32_t sessionId, std::string bytes, bool onDataChannel)
    {
        Testing::ScriptedPeer& peer = device_.Peer();
        uint64_t ticket = onDataChannel ? peer.SendOnDataChannel(sessionId, std::move(bytes))
                                        : peer.SendOnSession(sessionId, std::move(bytes));
        ASSERT_TRUE(peer.AwaitDelivered(ticket));
    }

    // Everything set off so far has run: deliveries, death notices, pool tasks, scripted
    // answers. A pool task stuck in a wait makes this fail.
    bool Settle()
    {
        return device_.Peer().AwaitIdle() && Vex::ProcessRegistry::Get().WaitForDeathNotices() &&
               AsynThreadPool::WaitIdle() && meshline_->WaitForActions();
    }

    // The collaboration is over and nothing of it is left: no record, no session id, no wait
    // (a wait left behind is a waiter now and, once its time has run out, a record still
    // registered), and its id went back to the host exactly once.
    void ExpectNothingLeft(uint32_t collaborationId)
    {
        EXPECT_EQ(process_->QueryCameraProcess(collaborationId), nullptr);
        EXPECT_EQ(process_->QuerySessionId(collaborationId), NO_SESSION);
        EXPECT_EQ(Clock::WaitingCount(), 0u) << "a wait of a finished collaboration runs";
        const std::vector<uint32_t> codes = app_->Codes();
        Clock::Advance(LONGEST_WAIT);
        EXPECT_TRUE(Settle());
        EXPECT_EQ(app_->Codes(), codes) << "the application heard of a finished collaboration";
        EXPECT_FALSE(process_->SetTimeoutContext(collaborationId, CODE_PHOTO_COUNT));
        EXPECT_FALSE(process_->SetTimeoutContext(collaborationId, CODE_LAST_PHOTO));
        EXPECT_EQ(ReleaseCount(collaborationId), 1u);
    }

    std::vector<int32_t> PublishedStates()
    {
        std::vector<int32_t> states;
        for (const auto& request : meshline_->Requests(Testing::PUBLISH_SERVICE_STATE)) {
            states.push_back(request.ints.empty() ? 0 : request.ints.front());
        }
        return states;
    }

    Testing::TestDevice device_;
    DeviceIdentity peer_ = Testing::TestDevice::PeerIdentity();
    std::shared_ptr<PoolGate> gate_;
    Vex::sptr<Testing::ScriptedMeshlineService> meshline_;
    CameraAbilityProcess* process_ = nullptr;
    Vex::sptr<AppCallback> app_;
};

// The photo-data wait is started on the pool by whichever message registers it first: the
// photo count, or a photo that came without one. The last photo overtakes that pool task and
// releases the wait before it starts; the task must then not wait at all.
struct OvertakenWait {
    const char* name;
    uint32_t firstCode;                   // the message that registers the wait
    bool onDataChannel;                   // where it arrives
    uint32_t appCode;                     // the application's call while it is handled
    size_t heldTasks;                     // the pool tasks it posts (the photo wait among them)
    std::vector<uint32_t> expectedCodes;  // what the application hears in all
};

void PrintTo(const OvertakenWait& race, std::ostream* os)
{
    *os << race.name;
}

class PhotoWaitRaceTest : public RaceTest, public testing::WithParamInterface<OvertakenWait> {};

TEST_P(PhotoWaitRaceTest, LastPhotoOvertakingTheWaitLeavesNoWait)
{
    const OvertakenWait& race = GetParam();
    auto [collaborationId, sessionId] = Start();

    // From the application's call on, the pool's tasks wait at the gate: the photo wait is
    // registered but not yet started when the last photo arrives.
    app_->OnCall(race.appCode, [this]() { gate_->CloseForOthers(); });
    const std::string first =
        race.firstCode == CODE_PHOTO_COUNT ? CameraMessage(CODE_PHOTO_COUNT, "", 2) : CameraMessage(CODE_PHOTO, PHOTO);
    PeerSends(sessionId, first, race.onDataChannel);
    ASSERT_TRUE(gate_->AwaitHeld(race.heldTasks));
    PeerSends(sessionId, CameraMessage(CODE_LAST_PHOTO, PHOTO), true);
    gate_->Open();
    EXPECT_TRUE(Settle());

    EXPECT_EQ(app_->Codes(), race.expectedCodes);
    EXPECT_FALSE(device_.Peer().IsSessionOpen(sessionId));
    ExpectNothingLeft(collaborationId);
}

INSTANTIATE_TEST_SUITE_P(
    Races, PhotoWaitRaceTest,
    testing::Values(
        OvertakenWait{
            "StartedByTheCount", CODE_PHOTO_COUNT, false, EVENT_PHOTO_COUNT, 2, {EVENT_PHOTO_COUNT, EVENT_LAST_PHOTO}},
        OvertakenWait{"StartedByAPhoto", CODE_PHOTO, true, EVENT_PHOTO, 1, {EVENT_PHOTO, EVENT_LAST_PHOTO}}),
    [](const testing::TestParamInfo<OvertakenWait>& info) { return std::string(info.param.name); });

// The application cancels while the take-photo send is between its check for a cancel and its
// wait for the peer: before the session id is recorded (the cancel finds none to stop), or
// while the session is being announced (the cancel stops the session, but the wait has yet to
// start). Either way the session ends, the send does not wait and nothing is left.
TEST_F(RaceTest, CancelBeforeTheSessionIdIsRecordedStopsTheSession)
{
    // The application's cancel comes in as the sending thread is about to record the session
    // id: the one point between its check for a cancel and the record that a test can reach.
    int32_t cancelResult = -1;
    LogHook hook(", collaborationSessionId is ", [&]() {
        std::shared_ptr<CameraProcessState> state = process_->QueryCameraProcess(peer_.networkId);
        ASSERT_NE(state, nullptr);
        cancelResult = Cancel(state->GetCollaborationId());
    });
    const uint32_t collaborationId = Request();
    ASSERT_NE(collaborationId, 0u);
    EXPECT_TRUE(Settle());
    ASSERT_TRUE(hook.Fired());
    const int32_t sessionId = AwaitSession(collaborationId);

    // The cancel found no session id to stop or erase.
    EXPECT_EQ(cancelResult, 1001);
    const std::vector<Testing::CloseRecord> closed = device_.Peer().SessionsClosedByDevice();
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].id, sessionId);
    EXPECT_FALSE(closed[0].notifyPeer);
    EXPECT_EQ(PublishedStates(), std::vector<int32_t>{2}) << "the session of a cancelled collaboration was announced";
    EXPECT_TRUE(app_->Codes().empty());
    ExpectNothingLeft(collaborationId);
}

TEST_F(RaceTest, CancelWhileTheSessionIsAnnouncedEndsTheWait)
{
    // The application's cancel arrives while the plugin is announcing the session to the
    // connection manager; the announcement's answer waits for the cancel to finish.
    // The first announcement (state 2) is the request's own, on this thread.
    int32_t cancelResult = -1;
    std::atomic<int> published{0};
    meshline_->SetReplyWriter(Testing::PUBLISH_SERVICE_STATE, [&](Vex::MessageParcel& reply) {
        if (++published == 2) {
            std::thread cancel([&]() {
                std::shared_ptr<CameraProcessState> state = process_->QueryCameraProcess(peer_.networkId);
                ASSERT_NE(state, nullptr);
                cancelResult = Cancel(state->GetCollaborationId());
            });
            cancel.join();
        }
        reply.WriteInt32(0);
    });
    const uint32_t collaborationId = Request();
    ASSERT_NE(collaborationId, 0u);
    EXPECT_TRUE(Settle());
    ASSERT_EQ(published.load(), 3);
    const int32_t sessionId = AwaitSession(collaborationId);

    EXPECT_EQ(cancelResult, 0);
    const std::vector<Testing::CloseRecord> closed = device_.Peer().SessionsClosedByDevice();
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].id, sessionId);
    EXPECT_TRUE(closed[0].notifyPeer);
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, SERVICE_STATE_SESSION_UP, 1}));
    EXPECT_TRUE(app_->Codes().empty());
    ExpectNothingLeft(collaborationId);
}

// Every ending gives the collaboration id back, once.
struct Ending {
    const char* name;
    std::function<void(RaceTest&, uint32_t collaborationId, int32_t sessionId)> run;
};

void PrintTo(const Ending& ending, std::ostream* os)
{
    *os << ending.name;
}

class IdReleaseTest : public RaceTest, public testing::WithParamInterface<Ending> {
public:
    void PeerSendsMessage(int32_t sessionId, std::string bytes, bool onDataChannel = false)
    {
        PeerSends(sessionId, std::move(bytes), onDataChannel);
    }
    int32_t CancelAsApp(uint32_t collaborationId) { return Cancel(collaborationId); }
    Testing::ScriptedPeer& Peer() { return device_.Peer(); }
};

TEST_P(IdReleaseTest, IdGoesBackOnceWhenTheCollaborationEnds)
{
    auto [collaborationId, sessionId] = Start();
    EXPECT_EQ(ReleaseCount(collaborationId), 0u) << "the id of a running collaboration was given back";

    GetParam().run(*this, collaborationId, sessionId);
    EXPECT_TRUE(Settle());
    ExpectNothingLeft(collaborationId);
}

INSTANTIATE_TEST_SUITE_P(Endings, IdReleaseTest,
                         testing::Values(Ending{"LastPhoto",
                                                [](RaceTest& test, uint32_t, int32_t sessionId) {
                                                    static_cast<IdReleaseTest&>(test).PeerSendsMessage(
                                                        sessionId, CameraMessage(CODE_LAST_PHOTO, PHOTO), true);
                                                }},
                                         Ending{"ApplicationCancels",
                                                [](RaceTest& test, uint32_t collaborationId, int32_t) {
                                                    EXPECT_EQ(
                                                        static_cast<IdReleaseTest&>(test).CancelAsApp(collaborationId),
                                                        0);
                                                }},
                                         Ending{"CameraApplicationDies",
                                                [](RaceTest& test, uint32_t, int32_t sessionId) {
                                                    static_cast<IdReleaseTest&>(test).PeerSendsMessage(
                                                        sessionId, CameraMessage(CODE_CAMERA_DIED));
                                                }},
                                         Ending{"ControlSessionLost",
                                                [](RaceTest& test, uint32_t, int32_t sessionId) {
                                                    Testing::ScriptedPeer& peer =
                                                        static_cast<IdReleaseTest&>(test).Peer();
                                                    ASSERT_TRUE(peer.AwaitDelivered(peer.CloseSession(sessionId)));
                                                }}),
                         [](const testing::TestParamInfo<Ending>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
