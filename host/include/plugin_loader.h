// PluginLoader: the host's registry of loaded plugins. It loads a plugin library by path
// (dlopen; the library's static initialisers call RegisterInstance), routes an application's
// request for a plugin to its DispatchRequest with the caller's identity, and hands a peer's
// command text to the plugin's CreateCommand.
// Thread-safety: all operations may be called from any thread; a plugin registered once stays
// registered until the process ends (libraries are never unloaded while in use).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ability_plugin.h"

namespace QUEX {
namespace Tandra {

class PluginLoader {
public:
    static PluginLoader& GetLoader();

    // False when a plugin of that type is already registered (the first one stays).
    bool RegisterInstance(PluginType type, AbilityPlugin* plugin);
    AbilityPlugin* GetPlugin(PluginType type);

    // Loads a plugin library; 0, or HOST_ERR_LOAD_FAILED (the dlerror text is logged).
    int32_t LoadPlugin(const std::string& libraryPath);

    // Routes a request to the plugin of the type; HOST_ERR_NO_PLUGIN when none is registered.
    int32_t DispatchRequest(PluginType type, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                            Vex::MessageOption& option, IPCContext context);
    // The commands of a peer's command text; empty when no plugin is registered.
    std::vector<std::shared_ptr<Command>> CreateCommand(PluginType type, const std::string& commandProp);

private:
    PluginLoader() = default;
    std::mutex mutex_;
    std::map<PluginType, AbilityPlugin*> plugins_;
    std::vector<void*> libraries_;
};

}  // namespace Tandra
}  // namespace QUEX
