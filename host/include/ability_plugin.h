// AbilityPlugin: what the host asks of a plugin: serve an application's IPC request, and turn
// a peer's command text into commands. A plugin registers itself with the PluginLoader from a
// static initialiser when its library is loaded; the host never destroys it through this
// interface (hence no virtual destructor).
// Thread-safety: DispatchRequest is called from several host IPC threads at once;
// CreateCommand from the host's session threads.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "host_types.h"
#include "iremote_object.h"  // message_parcel.h uses sptr<IRemoteObject> inline
#include "message_option.h"
#include "message_parcel.h"

namespace QUEX {
namespace Tandra {

class AbilityPlugin {
public:
    virtual int32_t DispatchRequest(Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption& option,
                                    IPCContext context) = 0;
    virtual std::vector<std::shared_ptr<Command>> CreateCommand(const std::string& commandProp) = 0;

protected:
    ~AbilityPlugin() = default;
};

}  // namespace Tandra
}  // namespace QUEX
