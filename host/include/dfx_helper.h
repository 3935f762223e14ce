// DfxHelper: what the framework's fault and behaviour reports may show of a device id.
// Thread-safety: a pure function.
#pragma once

#include <string>

namespace QUEX {
namespace Tandra {

class DfxHelper {
public:
    // The first and last four characters around "**" ("abcd**wxyz"); an id of eight
    // characters or fewer becomes "**".
    static std::string GetAnonymousID(const std::string& id);
};

}  // namespace Tandra
}  // namespace QUEX
