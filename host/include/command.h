// Command: a unit of work that a peer asked this device to run. The host builds commands from
// a command text received with a new control session (through the plugin's CreateCommand),
// calls Execute with the session id once, and Release once when the session ends (also after
// a failed Execute).
// Thread-safety: the host calls Execute and Release from its own threads, never both at once
// for one command; implementations guard state shared with their callbacks.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

class Command {
public:
    virtual ~Command() = default;
    virtual int32_t Execute(int sessionId) = 0;
    virtual void Release() = 0;
};

}  // namespace Tandra
}  // namespace QUEX
