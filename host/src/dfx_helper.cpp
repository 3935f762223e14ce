// Device ids in reports show only their ends, enough to tell devices apart in a log.
#include "dfx_helper.h"

namespace QUEX {
namespace Tandra {

namespace {
constexpr size_t SHOWN_CHARS = 4;
}

std::string DfxHelper::GetAnonymousID(const std::string& id)
{
    if (id.size() <= SHOWN_CHARS * 2) {
        return "**";
    }
    return id.substr(0, SHOWN_CHARS) + "**" + id.substr(id.size() - SHOWN_CHARS);
}

}  // namespace Tandra
}  // namespace QUEX
