// The plugin loader and the host's IPC endpoint, with a real plugin library loaded by path.
#include "plugin_loader.h"

#include <gtest/gtest.h>

#include "host_service_stub.h"
#include "host_types.h"
#include "ipc_skeleton.h"

namespace QUEX {
namespace Tandra {
namespace {

struct ProbeReply {
    int32_t pid;
    int32_t uid;
    uint32_t subService;
    int32_t registrations;
};

ProbeReply ReadProbe(Vex::MessageParcel& reply)
{
    ProbeReply probe{};
    probe.pid = reply.ReadInt32();
    probe.uid = reply.ReadInt32();
    probe.subService = reply.ReadUint32();
    probe.registrations = reply.ReadInt32();
    return probe;
}

void WriteEnvelope(Vex::MessageParcel& data, uint32_t serviceType, uint32_t subService)
{
    data.WriteInterfaceToken(u"quex.ITandra.ITandraService");
    data.WriteUint32(serviceType);
    for (uint32_t value : {subService, 0u, 0u, 0u}) {
        data.WriteUint32(value);
    }
}

TEST(PluginLoaderTest, LibraryLoadedByPathRegistersOnceAndGetsCallerIdentity)
{
    PluginLoader& loader = PluginLoader::GetLoader();
    ASSERT_EQ(loader.LoadPlugin(TANDRA_TEST_PLUGIN_PATH), HOST_OK);
    ASSERT_EQ(loader.LoadPlugin(TANDRA_TEST_PLUGIN_PATH), HOST_OK);  // same library: no second registration
    AbilityPlugin* plugin = loader.GetPlugin(PLUGIN_TYPE_CAMERA);
    ASSERT_NE(plugin, nullptr);

    Vex::MessageParcel data;
    Vex::MessageParcel reply;
    Vex::MessageOption option;
    data.WriteUint32(7);
    ASSERT_EQ(loader.DispatchRequest(PLUGIN_TYPE_CAMERA, data, reply, option, IPCContext{4321, 20010042}), 0);
    ProbeReply probe = ReadProbe(reply);
    EXPECT_EQ(probe.pid, 4321);
    EXPECT_EQ(probe.uid, 20010042);
    EXPECT_EQ(probe.subService, 7u);
    EXPECT_EQ(probe.registrations, 1);
}

TEST(PluginLoaderTest, MissingLibraryAndMissingPluginAreReported)
{
    PluginLoader& loader = PluginLoader::GetLoader();
    EXPECT_EQ(loader.LoadPlugin("/nonexistent/libnothing.so"), HOST_ERR_LOAD_FAILED);
    Vex::MessageParcel data;
    Vex::MessageParcel reply;
    Vex::MessageOption option;
    const auto unknownType = static_cast<PluginType>(7);
    EXPECT_EQ(loader.DispatchRequest(unknownType, data, reply, option, IPCContext{1, 1}), HOST_ERR_NO_PLUGIN);
    EXPECT_EQ(reply.GetDataSize(), 0u);
    EXPECT_TRUE(loader.CreateCommand(unknownType, "{}").empty());
}

TEST(HostServiceStubTest, RoutesAnApplicationRequestWithTheCallersIdentity)
{
    ASSERT_EQ(PluginLoader::GetLoader().LoadPlugin(TANDRA_TEST_PLUGIN_PATH), HOST_OK);
    Vex::sptr<HostServiceStub> stub = new HostServiceStub();

    Vex::MessageParcel data;
    Vex::MessageParcel reply;
    Vex::MessageOption option;
    WriteEnvelope(data, SERVICE_TYPE_COLLABORATION_TO_DEVICE, 3);
    {
        Vex::ScopedIdentity app(5555, 20010077);  // the application process calls
        ASSERT_EQ(stub->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option), Vex::ERR_NONE);
    }
    ProbeReply probe = ReadProbe(reply);
    EXPECT_EQ(probe.pid, 5555);
    EXPECT_EQ(probe.uid, 20010077);
    EXPECT_EQ(probe.subService, 3u);
}

TEST(HostServiceStubTest, EnvelopeErrorsAndResultsWithoutReply)
{
    ASSERT_EQ(PluginLoader::GetLoader().LoadPlugin(TANDRA_TEST_PLUGIN_PATH), HOST_OK);
    Vex::sptr<HostServiceStub> stub = new HostServiceStub();
    Vex::MessageOption option;

    {  // the plugin wrote nothing: its result is the reply
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        WriteEnvelope(data, SERVICE_TYPE_COLLABORATION_TO_DEVICE, 99);
        ASSERT_EQ(stub->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option), Vex::ERR_NONE);
        EXPECT_EQ(reply.ReadInt32(), 4242);
        EXPECT_EQ(reply.GetReadableBytes(), 0u);
    }
    {  // another service type
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        WriteEnvelope(data, 102, 1);
        ASSERT_EQ(stub->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option), Vex::ERR_NONE);
        EXPECT_EQ(reply.ReadInt32(), HOST_ERR_NO_PLUGIN);
    }
    {  // wrong token
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        data.WriteInterfaceToken(u"quex.ITandra.ITandraCallback");
        data.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
        EXPECT_EQ(stub->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option), Vex::ERR_INVALID_DATA);
    }
    {  // another request code without a fallback
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        EXPECT_EQ(stub->SendRequest(501, data, reply, option), Vex::ERR_UNKNOWN_TRANSACTION);
    }
}

TEST(HostServiceStubTest, OtherRequestCodesGoToTheFallback)
{
    class Fallback : public Vex::IPCObjectStub {
    public:
        int OnRemoteRequest(uint32_t code, Vex::MessageParcel&, Vex::MessageParcel& reply, Vex::MessageOption&) override
        {
            reply.WriteUint32(code);
            return Vex::ERR_NONE;
        }
    };
    Vex::sptr<HostServiceStub> stub = new HostServiceStub(new Fallback());
    Vex::MessageParcel data;
    Vex::MessageParcel reply;
    Vex::MessageOption option;
    ASSERT_EQ(stub->SendRequest(501, data, reply, option), Vex::ERR_NONE);
    EXPECT_EQ(reply.ReadUint32(), 501u);
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
