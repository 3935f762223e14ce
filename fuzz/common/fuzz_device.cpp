// The fuzz targets' device: one-time set-up of the process, and the per-input start, end and
// leftover check of collaborations.
#include "fuzz_device.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sys/types.h>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "collaboration_records.h"
#include "collaboration_sessions.h"
#include "device_context.h"
#include "host_service_stub.h"
#include "ipc_skeleton.h"
#include "iremote_stub.h"
#include "process_registry.h"
#include "scripted_meshline_service.h"
#include "vex_clock.h"
#include "camera_msg_header.h"
#include "vex_log.h"

namespace QUEX::Tandra::Fuzz {
namespace {

constexpr int32_t MESHLINE_PID = 7001;
constexpr int32_t MESHLINE_UID = 1000;
constexpr int32_t GRANTED = 320001;
const char* const APP_BUNDLE = "com.example.photo";
const char* const CAMERA_BUNDLE = "com.example.camera";
const char* const TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";
// Real-time bound for the plugin's own threads to finish an input's work; far above what an
// input takes, so only a hang reaches it.
constexpr std::chrono::milliseconds SETTLE{5000};
// How long a thread that was just woken (a wait stopped, a task finishing) may take to get
// going on a loaded machine before a wait still in place counts as left behind.
constexpr std::chrono::milliseconds GRACE{500};
// Rounds of GRACE after which work that has not ended is a hang.
constexpr int MAX_ROUNDS = 20;
// Longer than every wait of the plugin (the longest is 180 s).
constexpr std::chrono::seconds RUN_OUT_WAITS{200};

AbilityInfo CameraAbility(const std::string& bundle)
{
    return {bundle, "CameraAbility", "entry", TAKE_PHOTO_TYPE, TAKE_PHOTO_TYPE};
}

// An application's callback object: answers every call with 0, as a well-behaved app does.
class AppCallback : public Vex::IPCObjectStub {
public:
    AppCallback() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}
    int OnRemoteRequest(uint32_t, Vex::MessageParcel&, Vex::MessageParcel& reply, Vex::MessageOption&) override
    {
        reply.WriteInt32(0);
        return Vex::ERR_NONE;
    }
};

// A small file with recognisable bytes, unlinked at once; the descriptor keeps it.
int PhotoFile(size_t size)
{
    char path[] = "/tmp/tandra_fuzz_photo_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) {
        std::perror("mkstemp");
        std::abort();
    }
    unlink(path);
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 31 + 7) & 0xFF);
    }
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        std::abort();
    }
    return fd;
}

template <typename T>
Vex::sptr<T> OwnedBy(int32_t pid, int32_t uid)
{
    Vex::ScopedIdentity as(pid, uid);
    return new T();
}

}  // namespace

struct FuzzDevice::Impl {
    Vex::sptr<Testing::ScriptedMeshlineService> meshline;
    Vex::sptr<HostServiceStub> service = new HostServiceStub();
    Vex::sptr<AppCallback> appCallback;
    Vex::sptr<AppCallback> cameraCallback;
    Vex::sptr<Vex::IPCObjectStub> unrelated;
    int fds[3] = {-1, -1, -1};
    size_t waitsRunOut = 0;
    size_t inputs = 0;
    uint32_t requestingId = 0;  // the collaboration StartRequesting began in this input, or 0
    // TANDRA_FUZZ_STRICT_WAITS=1: a wait still running after the end is a failure, not a count.
    bool strictWaits = std::getenv("TANDRA_FUZZ_STRICT_WAITS") != nullptr;
};

const std::string& FuzzDevice::PeerNetworkId()
{
    static const std::string id = Testing::TestDevice::PeerIdentity().networkId;
    return id;
}

FuzzDevice& FuzzDevice::Get()
{
    // Never destroyed: the plugin's threads may still refer to it while the process exits.
    static FuzzDevice* device = new FuzzDevice();
    return *device;
}

FuzzDevice::FuzzDevice() : impl_(std::make_unique<Impl>())
{
    // A log line per step would cost more than the step; TANDRA_FUZZ_LOG=1 keeps them.
    if (std::getenv("TANDRA_FUZZ_LOG") == nullptr) {
        Vex::SetLogSink([](const Vex::LogRecord&) {});
    }
    Vex::Clock::UseSimulatedTime();
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        std::abort();
    }
    // The command text exactly as the requesting device's plugin writes it for this device.
    {
        DeviceIdentity requester = Testing::TestDevice::PeerIdentity();
        Testing::TestDevice view(requester);
        view.AddPeerDevice(Testing::TestDevice::DefaultIdentity(), {CameraAbility(CAMERA_BUNDLE)});
        std::string servingUdid = Testing::TestDevice::DefaultIdentity().udid;
        commandText_ = process->GenerateTakePhotoReqCommand(
            servingUdid, new AbilityFilter(TAKE_PHOTO_TYPE),
            new LocalInfo(APP_BUNDLE, "MainAbility", "entry", requester.udid, requester.deviceType));
    }
    impl_->meshline = Testing::ScriptedMeshlineService::Create(MESHLINE_PID, MESHLINE_UID);
    if (!impl_->meshline->Register()) {
        std::abort();
    }
    impl_->meshline->AnswerApplyResource(GRANTED);
    impl_->fds[FD_PHOTO_SMALL] = PhotoFile(100);
    impl_->fds[FD_PHOTO_LARGER] = PhotoFile(40000);  // above the parcel's inline raw-data limit
    impl_->fds[FD_DEV_NULL] = open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::atexit([] {
        Impl& impl = *Get().impl_;
        std::fprintf(stderr, "FuzzDevice: %zu inputs, %zu left a timed wait running after their end\n", impl.inputs,
                     impl.waitsRunOut);
    });
}

void FuzzDevice::BeginInput()
{
    ++impl_->inputs;
    device_ = std::make_unique<Testing::TestDevice>();
    device_->AddLocalAbility(CameraAbility(CAMERA_BUNDLE));
    device_->AddPeerDevice(Testing::TestDevice::PeerIdentity(), {CameraAbility("com.peer.camera")});
    device_->SetForegroundApp(APP_BUNDLE);
    device_->SetBundleName(APP_UID, APP_BUNDLE);
    device_->SetBundleName(CAMERA_UID, CAMERA_BUNDLE);
    // Objects belong to their process: created afresh, since the processes die each input.
    impl_->appCallback = OwnedBy<AppCallback>(APP_PID, APP_UID);
    impl_->cameraCallback = OwnedBy<AppCallback>(CAMERA_PID, CAMERA_UID);
    Vex::ScopedIdentity as(CAMERA_PID, CAMERA_UID);
    impl_->unrelated = new Vex::IPCObjectStub(u"fuzz.Unrelated");
}

int32_t FuzzDevice::SendToService(Vex::MessageParcel& data, Vex::MessageParcel& reply, int32_t pid, int32_t uid)
{
    Vex::MessageOption option;
    Vex::ScopedIdentity as(pid, uid);
    return impl_->service->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option);
}

void FuzzDevice::FillSideTables(Vex::MessageParcel& data)
{
    data.AppendObject(Vex::sptr<Vex::IRemoteObject>(impl_->appCallback.GetRefPtr()));
    data.AppendObject(Vex::sptr<Vex::IRemoteObject>(impl_->cameraCallback.GetRefPtr()));
    data.AppendObject(Vex::sptr<Vex::IRemoteObject>(impl_->unrelated.GetRefPtr()));
    for (int fd : impl_->fds) {
        data.AdoptFileDescriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    }
}

bool FuzzDevice::StartRequesting(uint32_t& collaborationId, int32_t& sessionId)
{
    Vex::MessageParcel data;
    Vex::MessageParcel reply;
    data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
    for (uint32_t value : {SERVICE_TYPE_COLLABORATION_TO_DEVICE, 1u, 0u, 0u, 0u}) {
        data.WriteUint32(value);
    }
    DeviceIdentity local = device_->Identity();
    DeviceIdentity peer = Testing::TestDevice::PeerIdentity();
    Vex::sptr<PickerResult> picker =
        new PickerResult(new AbilityFilter(TAKE_PHOTO_TYPE),
                         new DeviceInfo(peer.networkId, peer.udid, peer.deviceName, peer.deviceType),
                         new LocalInfo(APP_BUNDLE, "MainAbility", "entry", local.udid, local.deviceType));
    data.WriteInt32(1);
    picker->Marshalling(data);
    data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(impl_->appCallback.GetRefPtr()));
    if (SendToService(data, reply, APP_PID, APP_UID) != Vex::ERR_NONE || reply.ReadInt32() != 0) {
        return false;
    }
    collaborationId = reply.ReadUint32();
    impl_->requestingId = collaborationId;
    char name[16];
    std::snprintf(name, sizeof(name), "%011u", collaborationId);
    const std::string sessionName = std::string(name) + "-" + peer.networkId;
    Testing::ScriptedPeer& bus = device_->Peer();
    if (!bus.AwaitCondition([&]() { return bus.SessionIdByName(sessionName) != -1; }, SETTLE)) {
        return false;
    }
    sessionId = bus.SessionIdByName(sessionName);
    // The command went out once the plugin waits for the peer's first answer.
    return Vex::Clock::AwaitWaiters(1, SETTLE) &&
           CameraAbilityProcess::GetInstance()->QuerySessionId(collaborationId) == sessionId;
}

int32_t FuzzDevice::StartServing()
{
    Testing::ScriptedPeer& bus = device_->Peer();
    int32_t result = -1;
    int32_t sessionId = OpenFromPeer(commandText_, result);
    if (result != 0 || !bus.AwaitChannelsOpened(1, SETTLE) ||
        !AsynThreadPool::WaitIdle(SETTLE.count())) {
        return -1;
    }
    for (const char* event : {"imageProcessComplete", "imagePreviewCancel"}) {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
        for (uint32_t value : {SERVICE_TYPE_COLLABORATION_TO_DEVICE, 2u, 0u, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
        data.WriteString(event);
        data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(impl_->cameraCallback.GetRefPtr()));
        if (SendToService(data, reply, CAMERA_PID, CAMERA_UID) != Vex::ERR_NONE || reply.ReadInt32() != 0) {
            return -1;
        }
    }
    return bus.AwaitSentOnSession(sessionId, 1, SETTLE) ? sessionId : -1;
}

int32_t FuzzDevice::OpenFromPeer(const std::string& commandText, int32_t& result)
{
    Testing::ScriptedPeer& bus = device_->Peer();
    int32_t sessionId = bus.OpenSessionToDevice(
        PeerNetworkId(), "00000000007-" + Testing::TestDevice::DefaultIdentity().networkId, commandText);
    // The commands run on the bus's opener thread and may wait (for a pre-empted
    // collaboration, for the data channel): time moves on only when nothing else happens.
    for (int round = 0; !bus.AwaitOpenResult(sessionId, result, GRACE); ++round) {
        if (round == MAX_ROUNDS) {
            LeftBehind("a command of the peer's session still executes");
        }
        if (Vex::Clock::WaitingCount() > 0) {
            Vex::Clock::Advance(RUN_OUT_WAITS);
        }
    }
    return sessionId;
}

void FuzzDevice::Settle()
{
    Testing::ScriptedPeer& bus = device_->Peer();
    if (!bus.AwaitIdle(SETTLE) || !Vex::ProcessRegistry::Get().WaitForDeathNotices(SETTLE) ||
        !impl_->meshline->WaitForActions(SETTLE)) {
        LeftBehind("the peer, the death notices or the connection manager did not settle");
    }
    // Pool tasks may sit in timed waits that only advancing time ends. A wait that was just
    // stopped needs a moment to leave, so only one still there after the grace counts.
    bool counted = false;
    for (int round = 0; !AsynThreadPool::WaitIdle(0) || Vex::Clock::WaitingCount() > 0; ++round) {
        if (round == MAX_ROUNDS) {
            LeftBehind("work of the input still runs after every wait was run out");
        }
        if (AsynThreadPool::WaitIdle(GRACE.count()) || Vex::Clock::WaitingCount() == 0) {
            continue;
        }
        if (!counted) {
            counted = true;
            ++impl_->waitsRunOut;
            if (impl_->strictWaits) {
                LeftBehind("a timed wait still running");
            }
        }
        Vex::Clock::Advance(RUN_OUT_WAITS);
        bus.AwaitIdle(SETTLE);
        Vex::ProcessRegistry::Get().WaitForDeathNotices(SETTLE);
        impl_->meshline->WaitForActions(SETTLE);
    }
}

void FuzzDevice::EndInput()
{
    // As a device loses everything at once: the link to the peer drops and both applications
    // die. Whatever the input left must end through these.
    device_->Peer().DropLink();
    device_->Peer().AwaitIdle(SETTLE);
    Vex::ProcessRegistry& processes = Vex::ProcessRegistry::Get();
    processes.DeclareDead(APP_PID);
    processes.DeclareDead(CAMERA_PID);
    Settle();

    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (DeviceContext::Get().Sessions().ActiveIncomingCount() != 0) {
        LeftBehind("an incoming control session keeps its commands");
    }
    if (!process->GetAllPutPhotoContexts().empty()) {
        LeftBehind("a put-image record");
    }
    if (process->GetCollaborationDataInfo() != std::pair<int32_t, std::string>{0, ""}) {
        LeftBehind("the collaboration data info");
    }
    if (process->QueryCameraProcess(PeerNetworkId()) != nullptr) {
        LeftBehind("a requesting collaboration with the peer");
    }
    if (const uint32_t id = impl_->requestingId; id != 0) {
        if (process->QueryCameraProcess(id) != nullptr || process->QuerySessionId(id) != -2) {
            LeftBehind("the record or session id of collaboration " + std::to_string(id));
        }
        // Setting a wait's outcome finds a registered wait (and would end it).
        if (process->SetTimeoutContext(id, CODE_PHOTO_COUNT) || process->SetTimeoutContext(id, CODE_LAST_PHOTO)) {
            LeftBehind("a registered wait of collaboration " + std::to_string(id));
        }
        impl_->requestingId = 0;
    }
    // A cancel for a camera application that never subscribed stays cached by design (the
    // next command for its bundle clears it); drained here so that inputs do not pile it up.
    while (process->PopCachedEvent().code != 0) {
    }
    for (int32_t channel = 1; channel <= 16; ++channel) {
        if (process->QueryDataChannelId(channel) != -1) {
            LeftBehind("a data channel of session " + std::to_string(channel));
        }
    }
    for (int32_t pid : {APP_PID, CAMERA_PID}) {
        if (process->QueryOnEventProcess(pid) != nullptr) {
            LeftBehind("an event subscription of pid " + std::to_string(pid));
        }
        // The query claims a pid it does not find; the claim is given back at once.
        if (process->QueryIsDeathRecipient(pid)) {
            LeftBehind("the death recipient of pid " + std::to_string(pid));
        }
        process->EraseDeathRecipientPid(pid);
    }

    impl_->appCallback = nullptr;
    impl_->cameraCallback = nullptr;
    impl_->unrelated = nullptr;
    device_.reset();
    processes.Revive(APP_PID);
    processes.Revive(CAMERA_PID);
    impl_->meshline->ClearRequests();
}

void FuzzDevice::LeftBehind(const std::string& what)
{
    std::fprintf(stderr, "FuzzDevice: after the input ended, the plugin kept %s\n", what.c_str());
    std::abort();
}

void WriteObjectIndex(Vex::MessageParcel& data, int32_t index)
{
    data.WriteInt32(Vex::MessageParcel::REMOTE_OBJECT_TAG);
    data.WriteInt32(index);
}

void WriteDescriptorIndex(Vex::MessageParcel& data, int32_t index)
{
    data.WriteInt32(Vex::MessageParcel::FILE_DESCRIPTOR_TAG);
    data.WriteInt32(index);
}

void WriteSeed(const std::string& dir, const std::string& name, const std::string& bytes)
{
    mkdir(dir.c_str(), 0755);
    std::ofstream out(dir + "/" + name, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        std::fprintf(stderr, "cannot write seed %s/%s\n", dir.c_str(), name.c_str());
        std::exit(1);
    }
}

}  // namespace QUEX::Tandra::Fuzz
