// Endings of a take-photo collaboration on the requesting device that race with the plugin's
// own steps: the last photo overtaking the pool task that starts the photo-data wait, a cancel
// landing while the command's session is being recorded, and the collaboration id, which goes
// back to the host once, whatever the ending. Each race is made to happen, not hoped for:
// pool tasks are held at a gate, and a cancel is run at the exact step it must race with.
// Time is simulated, so a wait left behind stays visible until the test moves the clock.
#include <dlfcn.h>

#include <atomic>
#include <thread>

#include "requesting_fixture.h"
#include "tandra_service_utils.h"

namespace QUEX::Tandra {
namespace {
// The ids the plugin gave back to the host, in order; never destroyed, as pool workers may
// release until exit.
std::mutex& releasedMutex = *new std::mutex;
std::vector<uint32_t>& releasedIds = *new std::vector<uint32_t>;
}  // namespace

// The host hands an id out again only after its release and a wrap-around of its counter, far
// out of a test's reach, so the test watches the release itself: the executable's definition
// comes first for the plugin, records the id and forwards to the host's.
void TandraServiceUtils::ReleaseCollaborationId(uint32_t collaborationId)
{
    {
        std::lock_guard<std::mutex> lock(releasedMutex);
        releasedIds.push_back(collaborationId);
    }
    using HostRelease = void (*)(uint32_t);
    static const auto hostRelease = reinterpret_cast<HostRelease>(
        dlsym(RTLD_NEXT, "_ZN4QUEX6Tandra18TandraServiceUtils22ReleaseCollaborationIdEj"));
    if (hostRelease != nullptr) {
        hostRelease(collaborationId);
    }
}

namespace RequestingTesting {
namespace {

using namespace std::chrono_literals;
using Vex::Clock;

constexpr auto LONGEST_WAIT = 180s;
const std::string PHOTO(64 * 1024, 'p');

size_t ReleaseCount(uint32_t collaborationId)
{
    std::lock_guard<std::mutex> lock(releasedMutex);
    return static_cast<size_t>(std::count(releasedIds.begin(), releasedIds.end(), collaborationId));
}

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
    void Close(bool closed)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = closed;
        closer_ = std::this_thread::get_id();
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
    bool Fired() const { return fired_; }

private:
    const std::string text_;
    const std::function<void()> action_;
    std::atomic<bool> fired_{false};
    Vex::LogSink previous_;
};

class RaceTest : public RequestingDeviceTest {
public:
    void SetUp() override
    {
        RequestingDeviceTest::SetUp();
        gate_ = std::make_shared<PoolGate>(env_);
        DeviceContext::Get().InstallEnv(gate_);
    }

    void TearDown() override
    {
        // Whatever a failed test left held runs out while the backends still exist.
        gate_->Close(false);
        meshline_->SetReplyWriter(Testing::PUBLISH_SERVICE_STATE, nullptr);
        RequestingDeviceTest::TearDown();
    }

    // The take-photo request as the host hands it over, and the session the device opened for
    // it once the open is done, whether or not it is still open.
    Collaboration RequestAndAwaitSession()
    {
        auto [result, id] = Request();
        EXPECT_EQ(result, 0);
        EXPECT_NE(id, 0u);
        Collaboration collaboration{id, -1};
        EXPECT_TRUE(device_.Peer().AwaitCondition([&]() {
            for (const Testing::SessionRecord& session : device_.Peer().SessionsOpenedByDevice()) {
                if (session.sessionName == IdText(collaboration.id) + "-" + peer_.networkId && session.openDone) {
                    collaboration.sessionId = session.sessionId;
                }
            }
            return collaboration.sessionId != -1;
        }));
        return collaboration;
    }

    // A cancel of the only collaboration, on a thread of its own; its result.
    int32_t CancelFromAnotherThread()
    {
        int32_t result = -1;
        std::thread([&]() {
            std::shared_ptr<CameraProcessState> state = process_->QueryCameraProcess(peer_.networkId);
            ASSERT_NE(state, nullptr);
            result = Cancel(state->GetCollaborationId());
        }).join();
        return result;
    }

    // The collaboration is over and nothing of it is left: no record, no session id, no wait
    // (a wait left behind is a waiter now and, once its time has run out, a record still
    // registered), and its id went back to the host exactly once.
    void ExpectNothingLeft(uint32_t collaborationId)
    {
        EXPECT_EQ(process_->QueryCameraProcess(collaborationId), nullptr);
        EXPECT_EQ(process_->QuerySessionId(collaborationId), -2);
        EXPECT_EQ(Clock::WaitingCount(), 0u) << "a wait of a finished collaboration runs";
        const std::vector<uint32_t> codes = app_->Codes();
        Clock::Advance(LONGEST_WAIT);
        Settle();
        EXPECT_EQ(app_->Codes(), codes) << "the application heard of a finished collaboration";
        EXPECT_EQ(ReleaseCount(collaborationId), 1u);
        ExpectGone(collaborationId);
    }

    std::shared_ptr<PoolGate> gate_;
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
    friend void PrintTo(const OvertakenWait& row, std::ostream* os) { *os << row.name; }
};

class PhotoWaitRaceTest : public RaceTest, public testing::WithParamInterface<OvertakenWait> {};

TEST_P(PhotoWaitRaceTest, LastPhotoOvertakingTheWaitLeavesNoWait)
{
    const OvertakenWait& race = GetParam();
    const Collaboration collaboration = Start();

    // From the application's call on, the pool's tasks wait at the gate: the photo wait is
    // registered but not yet started when the last photo arrives.
    app_->OnCall(race.appCode, [this]() { gate_->Close(true); });
    PeerSends(collaboration,
              race.firstCode == CODE_PHOTO_COUNT ? CameraMessage(CODE_PHOTO_COUNT, 2)
                                                 : CameraMessage(CODE_PHOTO, PHOTO.size(), PHOTO),
              race.onDataChannel);
    ASSERT_TRUE(gate_->AwaitHeld(race.heldTasks));
    PeerSends(collaboration, CameraMessage(CODE_LAST_PHOTO, PHOTO.size(), PHOTO), true);
    gate_->Close(false);
    Settle();

    EXPECT_EQ(app_->Codes(), race.expectedCodes);
    EXPECT_FALSE(device_.Peer().IsSessionOpen(collaboration.sessionId));
    ExpectNothingLeft(collaboration.id);
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
// start). Either way the session ends at both ends, the link is freed, the send does not wait
// and nothing is left.
TEST_F(RaceTest, CancelBeforeTheSessionIdIsRecordedStopsTheSession)
{
    // The application's cancel comes in as the sending thread is about to record the session
    // id: the one point between its check for a cancel and the record that a test can reach.
    int32_t cancelResult = -1;
    LogHook hook(", collaborationSessionId is ", [&]() { cancelResult = CancelFromAnotherThread(); });
    const Collaboration collaboration = RequestAndAwaitSession();
    Settle();
    ASSERT_TRUE(hook.Fired());

    // The cancel found no session id to stop or erase.
    EXPECT_EQ(cancelResult, 1001);
    const std::vector<Testing::CloseRecord> closed = device_.Peer().SessionsClosedByDevice();
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].id, collaboration.sessionId);
    EXPECT_TRUE(closed[0].notifyPeer) << "the peer would keep its camera application running";
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 1}))
        << "the session of a cancelled collaboration was announced, or the link was not freed";
    EXPECT_TRUE(app_->Calls().empty());
    ExpectNothingLeft(collaboration.id);
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
            cancelResult = CancelFromAnotherThread();
        }
        reply.WriteInt32(0);
    });
    const Collaboration collaboration = RequestAndAwaitSession();
    Settle();
    ASSERT_EQ(published.load(), 3);

    EXPECT_EQ(cancelResult, 0);
    const std::vector<Testing::CloseRecord> closed = device_.Peer().SessionsClosedByDevice();
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].id, collaboration.sessionId);
    EXPECT_TRUE(closed[0].notifyPeer);
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4, 1}));  // 4: the session is up
    EXPECT_TRUE(app_->Calls().empty());
    ExpectNothingLeft(collaboration.id);
}

// Every ending gives the collaboration id back, once.
struct Ending {
    const char* name;
    std::function<void(RaceTest&, const Collaboration&)> run;
    friend void PrintTo(const Ending& row, std::ostream* os) { *os << row.name; }
};

class IdReleaseTest : public RaceTest, public testing::WithParamInterface<Ending> {};

TEST_P(IdReleaseTest, IdGoesBackOnceWhenTheCollaborationEnds)
{
    const Collaboration collaboration = Start();
    EXPECT_EQ(ReleaseCount(collaboration.id), 0u) << "the id of a running collaboration was given back";

    GetParam().run(*this, collaboration);
    Settle();
    ExpectNothingLeft(collaboration.id);
}

INSTANTIATE_TEST_SUITE_P(
    Endings, IdReleaseTest,
    testing::Values(
        Ending{"LastPhoto",
               [](RaceTest& t, const Collaboration& c) {
                   t.PeerSends(c, CameraMessage(CODE_LAST_PHOTO, PHOTO.size(), PHOTO), true);
               }},
        Ending{"ApplicationCancels", [](RaceTest& t, const Collaboration& c) { EXPECT_EQ(t.Cancel(c.id), 0); }},
        Ending{"CameraApplicationDies",
               [](RaceTest& t, const Collaboration& c) { t.PeerSends(c, CameraMessage(CODE_CAMERA_DIED, 0)); }},
        Ending{"ControlSessionLost",
               [](RaceTest& t, const Collaboration& c) {
                   ASSERT_TRUE(t.device_.Peer().AwaitDelivered(t.device_.Peer().CloseSession(c.sessionId)));
               }}),
    [](const testing::TestParamInfo<Ending>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace RequestingTesting
}  // namespace QUEX::Tandra
