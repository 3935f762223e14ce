// The plugin's entry points: load-time registration with the host, the singleton, and the
// routing of application requests by their sub-service code.
#include <gtest/gtest.h>

#include <memory>

#include "bundle_mgr.h"
#include "callback_skeleton_proxy.h"
#include "camera_ability_listener.h"
#include "camera_ability_process.h"
#include "collaboration_records.h"
#include "iremote_stub.h"
#include "listener_manager.h"
#include "plugin_loader.h"
#include "vex_log.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace Vex;

void WriteDispatchHeader(MessageParcel& data, uint32_t subService)
{
    data.WriteUint32(subService);
    data.WriteUint32(7);  // op code, sub-op code and command only get logged
    data.WriteUint32(8);
    data.WriteUint32(9);
}

sptr<IRemoteObject> NewCallbackObject()
{
    return new IPCObjectStub(ICollaborationCallback::GetDescriptor());
}

TEST(SpineDispatchTest, UnknownSubServiceAnswers1005AndLeavesTheReplyEmpty)
{
    for (uint32_t code : {0u, 6u, 7u, 8u, 9u, 11u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(code);
        LogCapture log;
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        WriteDispatchHeader(data, code);
        EXPECT_EQ(CameraAbilityProcess::GetInstance()->DispatchRequest(data, reply, option, {100, 200}), 1005);
        EXPECT_EQ(reply.GetWritePosition(), 0u);
        EXPECT_TRUE(log.Contains("unkown service type, which is " + std::to_string(static_cast<int32_t>(code))));
    }
}

TEST(SpineDispatchTest, TakePhotoWithoutPickerResultOrCallbackReplies1001AndNoId)
{
    struct Case {
        const char* name;
        bool withPicker;
        bool withCallback;
        const char* logged;
    };
    const Case cases[] = {
        {"callback only", false, true, "pickerResult == 1, object = 0"},
        {"picker only", true, false, "pickerResult == 0, object = 1"},
        {"neither", false, false, "pickerResult == 1, object = 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        WriteDispatchHeader(data, 1);
        if (c.withPicker) {
            data.WriteInt32(1);
            PickerResult picker(new AbilityFilter("camera"), new DeviceInfo("PEERNET", "PEERUDID", "peer", 0x11),
                                new LocalInfo("com.example.photo", "MainAbility", "entry", "LOCALNET", 0x0E));
            ASSERT_TRUE(picker.Marshalling(data));
        } else {
            data.WriteInt32(0);
        }
        if (c.withCallback) {
            data.WriteRemoteObject(NewCallbackObject());
        }
        EXPECT_EQ(CameraAbilityProcess::GetInstance()->DispatchRequest(data, reply, option, {100, 200}), 1001);
        EXPECT_EQ(reply.ReadInt32(), 1001);
        EXPECT_EQ(reply.ReadUint32(), 0u);
        EXPECT_EQ(reply.GetReadableBytes(), 0u);
        EXPECT_TRUE(log.Contains(c.logged));
    }
}

TEST(SpineDispatchTest, LoadingTheLibraryRegistersTheOneInstanceWithTheHost)
{
    CameraAbilityProcess* instance = CameraAbilityProcess::GetInstance();
    ASSERT_NE(instance, nullptr);
    // Linking the library already ran its initialisers: the host knows the plugin.
    EXPECT_EQ(PluginLoader::GetLoader().GetPlugin(PLUGIN_TYPE_CAMERA), instance);

    LogCapture log;
    EXPECT_EQ(PluginLoader::GetLoader().LoadPlugin(TANDRA_CAMERA_LIBRARY_PATH), 0);
    EXPECT_EQ(PluginLoader::GetLoader().GetPlugin(PLUGIN_TYPE_CAMERA), instance);
    EXPECT_EQ(CameraAbilityProcess::GetInstance(), instance);
    EXPECT_FALSE(log.Contains("create CameraAbilityProcess"));

    size_t cameraListeners = 0;
    for (const auto& listener : ListenerManager::GetInstance()->GetListeners()) {
        if (std::dynamic_pointer_cast<CameraAbilityProcessListener>(listener) != nullptr) {
            ++cameraListeners;
        }
    }
    EXPECT_EQ(cameraListeners, 1u);
}

TEST(SpineDispatchTest, ProxiesAreBuiltForTheCallbackAndBundleManagerDescriptors)
{
    sptr<ICollaborationCallback> callback = iface_cast<ICollaborationCallback>(NewCallbackObject());
    EXPECT_NE(callback, nullptr);
    EXPECT_NE(dynamic_cast<CallbackSkeletonProxy*>(callback.GetRefPtr()), nullptr);

    sptr<IRemoteObject> bundleObject = new IPCObjectStub(AppExecFwk::IBundleMgr::GetDescriptor());
    sptr<AppExecFwk::IBundleMgr> bundleMgr = iface_cast<AppExecFwk::IBundleMgr>(bundleObject);
    EXPECT_NE(dynamic_cast<AppExecFwk::BundleMgrProxy*>(bundleMgr.GetRefPtr()), nullptr);
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
