// Where the daemon and the applications of one device meet: the default path of the
// daemon's application socket, the same for both so that neither needs to be told.
// Thread-safety: pure functions of the environment.
#pragma once

#include <string>

namespace QUEX {
namespace Tandra {

// $XDG_RUNTIME_DIR/tandra/tandrad.sock; /run/tandra/tandrad.sock for root; without a runtime
// folder, /tmp/tandra-<uid>/tandrad.sock.
std::string DefaultSocketPath();

}  // namespace Tandra
}  // namespace QUEX
