// Plugins register themselves from their libraries' static initialisers, so LoadPlugin only
// has to dlopen; the handle is kept and never closed (a plugin's objects live until exit).
#include "plugin_loader.h"

#include <dlfcn.h>

#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

PluginLoader& PluginLoader::GetLoader()
{
    // Never destroyed: plugins may still be called while the process exits.
    static PluginLoader* loader = new PluginLoader();
    return *loader;
}

bool PluginLoader::RegisterInstance(PluginType type, AbilityPlugin* plugin)
{
    if (plugin == nullptr) {
        TNDR_HOST_LOGE("null plugin of type %{public}d", static_cast<int32_t>(type));
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    bool inserted = plugins_.emplace(type, plugin).second;
    TNDR_HOST_LOGI("plugin of type %{public}d %{public}s", static_cast<int32_t>(type),
                   inserted ? "registered" : "already registered");
    return inserted;
}

AbilityPlugin* PluginLoader::GetPlugin(PluginType type)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = plugins_.find(type);
    return it == plugins_.end() ? nullptr : it->second;
}

int32_t PluginLoader::LoadPlugin(const std::string& libraryPath)
{
    // Not under mutex_: the library's initialisers call RegisterInstance.
    void* handle = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* error = dlerror();
        TNDR_HOST_LOGE("cannot load %{public}s: %{public}s", libraryPath.c_str(), error != nullptr ? error : "");
        return HOST_ERR_LOAD_FAILED;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    libraries_.push_back(handle);
    TNDR_HOST_LOGI("loaded %{public}s", libraryPath.c_str());
    return HOST_OK;
}

int32_t PluginLoader::DispatchRequest(PluginType type, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                      Vex::MessageOption& option, IPCContext context)
{
    AbilityPlugin* plugin = GetPlugin(type);
    if (plugin == nullptr) {
        TNDR_HOST_LOGE("no plugin of type %{public}d", static_cast<int32_t>(type));
        return HOST_ERR_NO_PLUGIN;
    }
    return plugin->DispatchRequest(data, reply, option, context);
}

std::vector<std::shared_ptr<Command>> PluginLoader::CreateCommand(PluginType type, const std::string& commandProp)
{
    AbilityPlugin* plugin = GetPlugin(type);
    if (plugin == nullptr) {
        TNDR_HOST_LOGE("no plugin of type %{public}d for a command", static_cast<int32_t>(type));
        return {};
    }
    return plugin->CreateCommand(commandProp);
}

}  // namespace Tandra
}  // namespace QUEX
