// A plugin library for the loader test. Its static initialiser registers it as the camera
// plugin; DispatchRequest answers with what it saw (caller identity, the header it was handed,
// how many times the library registered), so the test observes it through the reply alone.
#include <atomic>

#include "ability_plugin.h"
#include "plugin_loader.h"

namespace {

using namespace QUEX::Tandra;

std::atomic<int32_t> g_registrations{0};

class ProbePlugin : public AbilityPlugin {
public:
    int32_t DispatchRequest(Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption&,
                            IPCContext context) override
    {
        uint32_t subService = data.ReadUint32();
        if (subService == 99) {
            return 4242;  // leaves the reply empty: the host writes the result
        }
        reply.WriteInt32(context.pid);
        reply.WriteInt32(context.uid);
        reply.WriteUint32(subService);
        reply.WriteInt32(g_registrations.load());
        return 0;
    }
    std::vector<std::shared_ptr<Command>> CreateCommand(const std::string&) override { return {}; }
};

ProbePlugin g_plugin;

const bool g_registered = [] {
    bool ok = PluginLoader::GetLoader().RegisterInstance(PLUGIN_TYPE_CAMERA, &g_plugin);
    g_registrations.fetch_add(1);
    return ok;
}();

}  // namespace
