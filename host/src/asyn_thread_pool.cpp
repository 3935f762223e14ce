// The plugin's pool is the device context's.
#include "asyn_thread_pool.h"

#include "device_context.h"

namespace QUEX {
namespace Tandra {

int32_t AsynThreadPool::AddAsynTask(std::function<void()> task)
{
    return DeviceContext::Get().Pool().Post(std::move(task));
}

bool AsynThreadPool::WaitIdle(int64_t timeoutMs)
{
    return DeviceContext::Get().Pool().WaitIdle(std::chrono::milliseconds(timeoutMs));
}

}  // namespace Tandra
}  // namespace QUEX
