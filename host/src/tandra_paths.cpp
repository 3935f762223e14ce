#include "tandra_paths.h"

#include <unistd.h>

#include <cstdlib>

namespace QUEX {
namespace Tandra {

std::string DefaultSocketPath()
{
    if (getuid() == 0) {
        return "/run/tandra/tandrad.sock";
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] == '\0') {
        return "/tmp/tandra-" + std::to_string(getuid()) + "/tandrad.sock";
    }
    return std::string(runtime) + "/tandra/tandrad.sock";
}

}  // namespace Tandra
}  // namespace QUEX
