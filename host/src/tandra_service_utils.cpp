// Collaboration ids are handed out from a rolling counter that skips 0 and every id still in
// use, so an id names one collaboration for as long as it runs.
#include "tandra_service_utils.h"

#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <set>

#include "device_context.h"

namespace QUEX {
namespace Tandra {

namespace {

struct IdPool {
    std::mutex mutex;
    uint32_t next = 1;
    std::set<uint32_t> inUse;
};

IdPool& Ids()
{
    static IdPool* pool = new IdPool();  // used by pool workers until the process ends
    return *pool;
}

}  // namespace

uint32_t TandraServiceUtils::ObtainIdleCollaborationId()
{
    IdPool& ids = Ids();
    std::lock_guard<std::mutex> lock(ids.mutex);
    // inUse can never hold every 32-bit value, so the search ends.
    while (ids.next == 0 || ids.inUse.count(ids.next) != 0) {
        ++ids.next;
    }
    uint32_t id = ids.next++;
    ids.inUse.insert(id);
    return id;
}

void TandraServiceUtils::ReleaseCollaborationId(uint32_t collaborationId)
{
    IdPool& ids = Ids();
    std::lock_guard<std::mutex> lock(ids.mutex);
    ids.inUse.erase(collaborationId);
}

uint32_t TandraServiceUtils::GetLocalDeviceType()
{
    return DeviceContext::Get().Env()->GetLocalDevice().deviceType;
}

std::string TandraServiceUtils::GetLocalNetworkId()
{
    return DeviceContext::Get().Env()->GetLocalDevice().networkId;
}

std::string TandraServiceUtils::GetLocalUdid()
{
    return DeviceContext::Get().Env()->GetLocalDevice().udid;
}

std::string TandraServiceUtils::ConvertHexToString(uint32_t value)
{
    char buffer[9] = {};
    std::snprintf(buffer, sizeof(buffer), "%" PRIx32, value);
    return buffer;
}

}  // namespace Tandra
}  // namespace QUEX
