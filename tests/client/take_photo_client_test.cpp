// The requesting application's client against the real plugin of one device and a scripted
// peer: its take-photo request reaches the plugin, the photos reach the observer byte for byte,
// every way a collaboration can end reaches the observer (or the request's result) as its own
// ending, and callbacks the client cannot read are refused without reaching the observer.
#include <atomic>

#include "client_codes.h"
#include "requesting_fixture.h"
#include "scripted_meshline_service.h"
#include "service_process.h"
#include "take_photo_client.h"

namespace QUEX::Tandra::RequestingTesting {
namespace {
using namespace std::chrono_literals;
using Client::CollaborationEnd;
using Client::EndingKind;
using Client::ReceivedPhoto;
using Client::TakePhotoClient;
using Client::TakePhotoRequest;
using Client::TakePhotoResult;

constexpr int32_t SERVICE_PID = 3101;

// One observer call.
struct Heard {
    enum What { COUNT, PHOTO, ENDED } what = COUNT;
    uint32_t collaborationId = 0;
    uint32_t count = 0;
    uint32_t status = 0, index = 0, expected = 0;
    bool last = false;
    std::string bytes;
    const uint8_t* data = nullptr;
    CollaborationEnd end;
};

class RecordingObserver : public Client::TakePhotoObserver, public Recorder<Heard> {
public:
    void OnPhotoCount(uint32_t collaborationId, uint32_t count) override
    {
        Heard heard;
        heard.what = Heard::COUNT;
        heard.collaborationId = collaborationId;
        heard.count = count;
        Record(std::move(heard));
    }
    int32_t OnPhoto(const ReceivedPhoto& photo) override
    {
        Heard heard;
        heard.what = Heard::PHOTO;
        heard.collaborationId = photo.collaborationId;
        heard.status = photo.status;
        heard.index = photo.index;
        heard.expected = photo.expected;
        heard.last = photo.last;
        heard.bytes.assign(reinterpret_cast<const char*>(photo.data), photo.size);
        heard.data = photo.data;
        Record(std::move(heard));
        return 0;
    }
    void OnEnded(uint32_t collaborationId, const CollaborationEnd& end) override
    {
        Heard heard;
        heard.what = Heard::ENDED;
        heard.collaborationId = collaborationId;
        heard.end = end;
        Record(std::move(heard));
    }
    bool AwaitEnded() { return Await([](const Heard& heard) { return heard.what == Heard::ENDED; }); }
    std::vector<Heard> Endings() const
    {
        std::vector<Heard> endings;
        for (const Heard& heard : Items()) {
            if (heard.what == Heard::ENDED) {
                endings.push_back(heard);
            }
        }
        return endings;
    }
    bool overlapped_ = false;

private:
    void Record(Heard heard)
    {
        // The client promises one call at a time.
        if (inside_.exchange(true)) {
            overlapped_ = true;
        }
        Add(std::move(heard));
        inside_ = false;
    }
    std::atomic<bool> inside_{false};
};

class TakePhotoClientTest : public RequestingDeviceTest {
public:
    void TearDown() override
    {
        EndOtherCollaboration();
        client_.reset();
        RequestingDeviceTest::TearDown();
        EXPECT_FALSE(observer_.overlapped_) << "observer calls overlapped";
    }

    TakePhotoRequest RequestForPeer()
    {
        DeviceIdentity local = device_.Identity();
        return {TAKE_PHOTO_TYPE, peer_.networkId, peer_.udid,   peer_.deviceName, peer_.deviceType,
                APP_BUNDLE,      "MainAbility",   "entry",      local.udid,       local.deviceType};
    }

    // The client of the application's process, on the framework service (null: none).
    TakePhotoClient& Client(bool withService = true)
    {
        if (client_ == nullptr) {
            Vex::ScopedIdentity as(APP_PID, APP_UID);
            client_ = std::make_unique<TakePhotoClient>(withService ? service_ : nullptr, &observer_);
        }
        return *client_;
    }

    TakePhotoResult TakePhoto(const TakePhotoRequest& request)
    {
        Vex::ScopedIdentity as(APP_PID, APP_UID);
        return Client().TakePhoto(request);
    }

    int32_t Cancel(uint32_t collaborationId)
    {
        Vex::ScopedIdentity as(APP_PID, APP_UID);
        return Client().Cancel(collaborationId);
    }

    // The control session the command went out on, once the plugin waits for the peer.
    Collaboration AwaitSession(uint32_t id)
    {
        const std::string name = IdText(id) + "-" + peer_.networkId;
        EXPECT_TRUE(device_.Peer().AwaitCondition([&]() { return device_.Peer().SessionIdByName(name) != -1; }));
        EXPECT_TRUE(Vex::Clock::AwaitWaiters(1));
        return {id, device_.Peer().SessionIdByName(name)};
    }

    void CountThenPhoto(const Collaboration& c, uint32_t count)
    {
        PeerSends(c, CameraMessage(CODE_CAMERA_STARTED, 0));
        PeerSends(c, CameraMessage(CODE_PHOTO_COUNT, count));
        AwaitPhotoWait();
        const std::string photo = PhotoBytes(5000, 1);
        PeerSends(c, CameraMessage(CODE_PHOTO, photo.size(), photo), true);
    }

    // A collaboration with the peer that another client of the app started and that still runs.
    void StartOtherCollaboration(const TakePhotoRequest& request)
    {
        Vex::ScopedIdentity as(APP_PID, APP_UID);
        other_ = std::make_unique<TakePhotoClient>(service_, &otherObserver_);
        const TakePhotoResult first = other_->TakePhoto(request);
        ASSERT_TRUE(first.Ok()) << first.result;
        otherId_ = first.collaborationId;
        AwaitSession(otherId_);
    }

    void EndOtherCollaboration()
    {
        if (other_ != nullptr) {
            Vex::ScopedIdentity as(APP_PID, APP_UID);
            EXPECT_EQ(other_->Cancel(otherId_), 0);
            other_.reset();
        }
    }

    Vex::sptr<ClientTesting::ServiceProcess> service_ = ClientTesting::ServiceProcess::Start(SERVICE_PID);
    RecordingObserver observer_;
    std::unique_ptr<TakePhotoClient> client_;
    RecordingObserver otherObserver_;
    std::unique_ptr<TakePhotoClient> other_;
    uint32_t otherId_ = 0;
};

// ---- Every ending ----

struct EndingRow {
    const char* name;
    std::function<void(TakePhotoClientTest&, TakePhotoRequest&)> before;  // before the request
    bool accepted;  // the request is accepted
    bool session;   // and the command goes out on a control session
    std::function<void(TakePhotoClientTest&, const Collaboration&)> trigger;
    EndingKind kind;
    int64_t code;
};

void PrintTo(const EndingRow& row, std::ostream* os)
{
    *os << row.name;
}

void Nothing(TakePhotoClientTest&, TakePhotoRequest&) {}
void NoTrigger(TakePhotoClientTest&, const Collaboration&) {}
auto PeerCode(uint32_t code, uint32_t size = 0)
{
    return [code, size](TakePhotoClientTest& t, const Collaboration& c) { t.PeerSends(c, CameraMessage(code, size)); };
}
auto FailSessionOpens(int32_t code)
{
    return [code](TakePhotoClientTest& t, TakePhotoRequest&) { t.device_.Peer().FailSessionOpens(code); };
}

const EndingRow ENDING_ROWS[] = {
    {"NotForeground", [](TakePhotoClientTest& t, TakePhotoRequest&) { t.device_.SetForegroundApp("com.other.app"); },
     false, false, NoTrigger, EndingKind::NOT_FOREGROUND, 1020},
    {"WifiOffAtRequest", [](TakePhotoClientTest& t, TakePhotoRequest&) { t.device_.Env().SetWifiState(false); },
     false, false, NoTrigger, EndingKind::WIFI_OFF, 2013},
    // No grant within the 15 s the plugin waits (let pass quickly here).
    {"ResourcesRefused", [](TakePhotoClientTest&, TakePhotoRequest&) { Vex::Clock::UseScaledTime(1000); }, false,
     false, NoTrigger, EndingKind::RESOURCES_REFUSED, 320003},
    {"IncompleteRequest", [](TakePhotoClientTest&, TakePhotoRequest& r) { r.peerNetworkId.clear(); }, false, false,
     NoTrigger, EndingKind::INVALID_REQUEST, 1001},
    {"ConnectionManagerRejects",
     [](TakePhotoClientTest& t, TakePhotoRequest&) {
         t.meshline_->SetResult(Testing::APPLY_ADVANCED_RESOURCE, 4242);
     },
     false, false, NoTrigger, EndingKind::UNKNOWN, 4242},
    {"NoService", [](TakePhotoClientTest& t, TakePhotoRequest&) { t.Client(false); }, false, false, NoTrigger,
     EndingKind::SERVICE_UNAVAILABLE, Vex::ERR_DEAD_OBJECT},
    // The request joins the running collaboration, whose callbacks go to the client that started it.
    {"JoinsARunningCollaboration", [](TakePhotoClientTest& t, TakePhotoRequest& r) { t.StartOtherCollaboration(r); },
     false, false, NoTrigger, EndingKind::ALREADY_RUNNING, 0},
    {"PeerRefusesTheSession", FailSessionOpens(2008), true, false, NoTrigger, EndingKind::PEER_FAILED, 1001202002},
    {"PeerWifiOffAtOpen", FailSessionOpens(2005), true, false, NoTrigger, EndingKind::PEER_WIFI_OFF, 1001202004},
    {"PeerCancelsBeforeSending", Nothing, true, true, PeerCode(CODE_DISCONNECTED_BEFORE_SEND),
     EndingKind::PEER_CANCELLED, 1001202001},
    {"CameraAppDied", Nothing, true, true, PeerCode(CODE_CAMERA_DIED), EndingKind::PEER_FAILED, 1001202002},
    {"CameraAppDiedMidTransfer", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) {
         t.CountThenPhoto(c, 3);
         t.PeerSends(c, CameraMessage(CODE_CAMERA_DIED, 0));
     },
     EndingKind::PEER_FAILED, 1001202002},
    {"PeerWifiOff", Nothing, true, true, PeerCode(CODE_PEER_WIFI_OFF), EndingKind::PEER_WIFI_OFF, 1001202004},
    {"WifiOffHere", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration&) { t.device_.SetWifiActive(false); }, EndingKind::WIFI_OFF,
     1001202005},
    {"PeerNeverAnswers", Nothing, true, true,
     [](TakePhotoClientTest&, const Collaboration&) { Vex::Clock::Advance(180s); }, EndingKind::PEER_NO_ANSWER,
     1001202008},
    {"PhotoFailed", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) {
         t.CountThenPhoto(c, 3);
         t.PeerSends(c, CameraMessage(CODE_PHOTO_FAILED, 0));
     },
     EndingKind::TRANSFER_FAILED, 1001202009},
    {"PhotosStopArriving", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) {
         t.CountThenPhoto(c, 3);
         ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
         Vex::Clock::Advance(10s);
     },
     EndingKind::TRANSFER_FAILED, 1001202009},
    {"ControlChannelLost", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) {
         ASSERT_TRUE(t.device_.Peer().AwaitDelivered(t.device_.Peer().CloseSession(c.sessionId)));
     },
     EndingKind::LINK_LOST, 1001202011},
    {"LinkDropsMidTransfer", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) {
         t.CountThenPhoto(c, 3);
         ASSERT_TRUE(t.device_.Peer().AwaitDelivered(t.device_.Peer().DropLink()));
     },
     EndingKind::LINK_LOST, 1001202011},
    {"MalformedMessage", Nothing, true, true, PeerCode(CODE_DISCONNECTED_BEFORE_SEND, 1), EndingKind::BAD_DATA, 1001},
    {"Finished", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) {
         t.CountThenPhoto(c, 2);
         const std::string photo = PhotoBytes(100, 2);
         t.PeerSends(c, CameraMessage(CODE_LAST_PHOTO, photo.size(), photo), true);
     },
     EndingKind::FINISHED, 0},
    {"Cancelled", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration& c) { EXPECT_EQ(t.Cancel(c.id), 0); }, EndingKind::CANCELLED, 0},
    {"ServiceDies", Nothing, true, true,
     [](TakePhotoClientTest& t, const Collaboration&) {
         Vex::ProcessRegistry::Get().DeclareDead(SERVICE_PID);
         ASSERT_TRUE(t.observer_.AwaitEnded());
         // What the plugin still reports of the collaboration is dropped.
         Vex::Clock::Advance(180s);
     },
     EndingKind::SERVICE_UNAVAILABLE, 0},
};

class ClientEndingTest : public TakePhotoClientTest, public testing::WithParamInterface<EndingRow> {
public:
    void SetUp() override
    {
        // The refusal is the connection manager's only answer.
        grant_ = GetParam().kind != EndingKind::RESOURCES_REFUSED;
        TakePhotoClientTest::SetUp();
    }
};

// Each way to end reaches the application once, as its own ending with the code that said so:
// a refused request in the request's result (the observer hears nothing), every later ending
// as the observer's last call.
TEST_P(ClientEndingTest, ReachesTheApplicationAsItsEnding)
{
    const EndingRow& row = GetParam();
    TakePhotoRequest request = RequestForPeer();
    row.before(*this, request);
    const TakePhotoResult result = TakePhoto(request);
    if (!row.accepted) {
        EXPECT_EQ(result.result, row.code);
        EXPECT_EQ(result.collaborationId, 0u);
        EXPECT_EQ(result.End().kind, row.kind);
        EndOtherCollaboration();
        Settle();
        EXPECT_TRUE(observer_.Items().empty());
        return;
    }
    ASSERT_TRUE(result.Ok()) << result.result;
    if (row.session) {
        const Collaboration collaboration = AwaitSession(result.collaborationId);
        row.trigger(*this, collaboration);
    }
    ASSERT_TRUE(observer_.AwaitEnded());
    Settle();
    const std::vector<Heard> heard = observer_.Items();
    ASSERT_FALSE(heard.empty());
    EXPECT_EQ(observer_.Endings().size(), 1u);
    EXPECT_EQ(heard.back().what, Heard::ENDED);
    EXPECT_EQ(heard.back().collaborationId, result.collaborationId);
    EXPECT_EQ(heard.back().end.kind, row.kind) << heard.back().end.Info().name;
    EXPECT_EQ(heard.back().end.code, row.code);
}

INSTANTIATE_TEST_SUITE_P(ClientEndings, ClientEndingTest, testing::ValuesIn(ENDING_ROWS),
                         [](const testing::TestParamInfo<EndingRow>& info) { return std::string(info.param.name); });

// The rows above reach every ending of the table; the table gives each its own name and exit
// status, and a sentence for the user.
TEST(EndingTable, EveryEndingIsReachedAndDistinct)
{
    std::set<EndingKind> reached;
    for (const EndingRow& row : ENDING_ROWS) {
        reached.insert(row.kind);
    }
    std::set<std::string> names;
    std::set<int> statuses;
    for (const Client::EndingInfo& info : Client::AllEndings()) {
        SCOPED_TRACE(info.name);
        EXPECT_TRUE(reached.count(info.kind)) << "no row ends as " << info.name;
        EXPECT_EQ(&Client::GetEndingInfo(info.kind), &info);
        EXPECT_TRUE(names.insert(info.name).second);
        EXPECT_TRUE(statuses.insert(info.exitStatus).second);
        EXPECT_EQ(info.exitStatus == 0, info.kind == EndingKind::FINISHED);
        EXPECT_EQ(std::string(info.sentence).back(), '.');
    }
    // Codes nothing sends today still end a collaboration, as unknown, with the code shown.
    EndingKind kind = EndingKind::FINISHED;
    EXPECT_TRUE(Client::EndingForEvent(1001202003, "errorcode", kind));
    EXPECT_EQ(kind, EndingKind::UNKNOWN);
    EXPECT_NE(CollaborationEnd({kind, 1001202003}).Describe().find("1001202003"), std::string::npos);
    EXPECT_FALSE(Client::EndingForEvent(Client::EVENT_PHOTO_COUNT, "3", kind));
}

// ---- The whole collaboration ----

// The request carries what the plugin needs to open the session with its command; every photo
// then reaches the observer whole, in order, numbered against the announced count, and the
// last one finishes the collaboration.
TEST_F(TakePhotoClientTest, TakesPhotosByteForByte)
{
    const TakePhotoResult result = TakePhoto(RequestForPeer());
    ASSERT_TRUE(result.Ok()) << result.result;
    const Collaboration c = AwaitSession(result.collaborationId);
    const auto sessions = device_.Peer().SessionsOpenedByDevice();
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_NE(sessions[0].commandText.find(TAKE_PHOTO_TYPE), std::string::npos);
    EXPECT_NE(sessions[0].commandText.find(APP_BUNDLE), std::string::npos);

    // Above and below the inline limit of raw data.
    const std::vector<std::string> photos = {PhotoBytes(2 * 1024 * 1024 + 3, 11), PhotoBytes(10, 12),
                                             PhotoBytes(3 * 1024 * 1024 + 5, 13)};
    PeerSends(c, CameraMessage(CODE_CAMERA_STARTED, 0));
    PeerSends(c, CameraMessage(CODE_PHOTO_COUNT, photos.size()));
    PeerSends(c, CameraMessage(CODE_PHOTO_COUNT, photos.size()), true);
    AwaitPhotoWait();
    for (size_t i = 0; i < photos.size(); ++i) {
        const bool last = i + 1 == photos.size();
        PeerSends(c, CameraMessage(last ? CODE_LAST_PHOTO : CODE_PHOTO, photos[i].size(), photos[i]), true);
    }
    ASSERT_TRUE(observer_.AwaitEnded());
    Settle();

    const std::vector<Heard> heard = observer_.Items();
    ASSERT_EQ(heard.size(), 2 + photos.size());
    EXPECT_EQ(heard[0].what, Heard::COUNT);
    EXPECT_EQ(heard[0].count, photos.size());
    for (size_t i = 0; i < photos.size(); ++i) {
        SCOPED_TRACE(i);
        const Heard& photo = heard[1 + i];
        ASSERT_EQ(photo.what, Heard::PHOTO);
        EXPECT_EQ(photo.collaborationId, c.id);
        EXPECT_EQ(photo.index, i);
        EXPECT_EQ(photo.expected, photos.size());
        EXPECT_EQ(photo.last, i + 1 == photos.size());
        EXPECT_EQ(photo.status, photo.last ? Client::EVENT_LAST_PHOTO : Client::EVENT_PHOTO);
        EXPECT_TRUE(photo.bytes == photos[i]) << "photo bytes differ";
    }
    EXPECT_EQ(heard.back().end.kind, EndingKind::FINISHED);
    EXPECT_EQ(process_->QueryCameraProcess(c.id), nullptr);
}

// A cancel ends the collaboration once; a later cancel is refused and adds nothing, and the
// client lets go of its observer when it goes.
TEST_F(TakePhotoClientTest, CancelEndsOnce)
{
    const TakePhotoResult result = TakePhoto(RequestForPeer());
    ASSERT_TRUE(result.Ok());
    const Collaboration c = AwaitSession(result.collaborationId);
    CountThenPhoto(c, 3);
    EXPECT_EQ(Cancel(c.id), 0);
    EXPECT_EQ(Cancel(c.id), Client::RESULT_INVALID);
    Settle();
    EXPECT_EQ(observer_.Endings().size(), 1u);
    EXPECT_EQ(observer_.Items().back().end.kind, EndingKind::CANCELLED);
    EXPECT_FALSE(device_.Peer().IsSessionOpen(c.sessionId));

    Vex::wptr<Vex::IRemoteObject> callback(Client().CallbackObject());
    client_.reset();
    EXPECT_EQ(callback.promote(), nullptr) << "the callback object outlives its client";
}

// ---- Callbacks the client cannot read ----

TEST_F(TakePhotoClientTest, RefusesCallbacksItCannotReadAndDropsThoseOfEndedCollaborations)
{
    using Writer = std::function<void(Vex::MessageParcel&)>;
    auto event = [](uint32_t code, uint32_t id, const std::string& text) {
        return [=](Vex::MessageParcel& data) {
            Testing::ScriptedMeshlineService::WriteCallbackHeader(data, 101, 104);
            data.WriteUint32(code);
            data.WriteUint32(id);
            data.WriteString(text);
        };
    };
    auto photo = [](uint32_t id, uint32_t size, const std::string& bytes) {
        return [=](Vex::MessageParcel& data) {
            Testing::ScriptedMeshlineService::WriteCallbackHeader(data, 102, 105);
            data.WriteUint32(Client::EVENT_PHOTO);
            data.WriteUint32(id);
            data.WriteUint32(size);
            data.WriteRawData(bytes.data(), bytes.size());
        };
    };
    struct Row {
        const char* name;
        Writer write;
        int32_t status;  // of the transport
        int32_t reply;   // when the status is ERR_NONE
        size_t heard;    // observer calls so far
    };
    const Row rows[] = {
        {"foreign token",
         [](Vex::MessageParcel& data) {
             data.WriteInterfaceToken(u"quex.ITandra.Other");
             data.WriteUint32(101);
         },
         Vex::ERR_INVALID_DATA, 0, 0},
        {"envelope cut short",
         [](Vex::MessageParcel& data) {
             data.WriteInterfaceToken(u"quex.ITandra.ITandraCallback");
             data.WriteUint32(101);
         },
         Vex::ERR_INVALID_DATA, 0, 0},
        {"the camera app's callback",
         [](Vex::MessageParcel& data) { Testing::ScriptedMeshlineService::WriteCallbackHeader(data, 101, 103); },
         Vex::ERR_UNKNOWN_TRANSACTION, 0, 0},
        {"event without its text",
         [](Vex::MessageParcel& data) {
             Testing::ScriptedMeshlineService::WriteCallbackHeader(data, 101, 104);
             data.WriteUint32(Client::EVENT_PHOTO_COUNT);
         },
         Vex::ERR_NONE, Client::RESULT_INVALID, 0},
        {"count that is no number", event(Client::EVENT_PHOTO_COUNT, 7, "3x"), Vex::ERR_NONE, Client::RESULT_INVALID,
         0},
        {"photo shorter than its size", photo(7, 11, "0123456789"), Vex::ERR_INVALID_DATA, 0, 0},
        {"count", event(Client::EVENT_PHOTO_COUNT, 7, "2"), Vex::ERR_NONE, 0, 1},
        {"photo", photo(7, 10, "0123456789"), Vex::ERR_NONE, 0, 2},
        {"ending", event(Client::EVENT_LINK_LOST, 7, "errorcode"), Vex::ERR_NONE, 0, 3},
        {"photo after the ending", photo(7, 10, "0123456789"), Vex::ERR_NONE, Client::RESULT_INVALID, 3},
        {"second ending", event(Client::EVENT_FAILED, 7, "errorcode"), Vex::ERR_NONE, Client::RESULT_INVALID, 3},
    };
    Vex::sptr<Vex::IRemoteObject> callback = Client().CallbackObject();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Vex::MessageParcel data, reply;
        row.write(data);
        Vex::MessageOption option;
        ASSERT_EQ(callback->SendRequest(101, data, reply, option), row.status);
        if (row.status == Vex::ERR_NONE) {
            EXPECT_EQ(reply.ReadInt32(), row.reply);
        }
        EXPECT_EQ(observer_.Items().size(), row.heard);
    }
    const std::vector<Heard> heard = observer_.Items();
    EXPECT_EQ(heard[1].bytes, "0123456789");
    EXPECT_EQ(heard[1].expected, 2u);
    EXPECT_EQ(heard[2].end.kind, EndingKind::LINK_LOST);
}

// The observer reads the photo where the transport put it: no copy on the way.
TEST_F(TakePhotoClientTest, PhotoBytesReachTheObserverWhereTheParcelHoldsThem)
{
    constexpr size_t SIZE = 256 * 1024;  // out of line
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[SIZE]);
    for (size_t i = 0; i < SIZE; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7);
    }
    const uint8_t* where = bytes.get();
    Vex::MessageParcel data, reply;
    Testing::ScriptedMeshlineService::WriteCallbackHeader(data, 102, 105);
    data.WriteUint32(Client::EVENT_LAST_PHOTO);
    data.WriteUint32(9);
    data.WriteUint32(SIZE);
    ASSERT_TRUE(data.WriteRawData(std::move(bytes), SIZE));
    Vex::MessageOption option;
    ASSERT_EQ(Client().CallbackObject()->SendRequest(101, data, reply, option), Vex::ERR_NONE);
    const std::vector<Heard> heard = observer_.Items();
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0].data, where);
    EXPECT_EQ(heard[0].bytes.size(), SIZE);
    EXPECT_TRUE(heard[0].last);
    EXPECT_EQ(heard[1].end.kind, EndingKind::FINISHED);
}

}  // namespace
}  // namespace QUEX::Tandra::RequestingTesting
