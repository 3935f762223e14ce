#include "ipc_io_service.h"

#include <pthread.h>

namespace Vex {

IpcIoService& IpcIoService::Get()
{
    // Never destroyed: connections held by statics close during exit.
    static IpcIoService* service = new IpcIoService();
    return *service;
}

IpcIoService::IpcIoService() : guard_(asio::make_work_guard(context_))
{
    std::thread thread([this] {
        pthread_setname_np(pthread_self(), "VexIpcIo");
        context_.run();
    });
    threadId_ = thread.get_id();
    thread.detach();
}

}  // namespace Vex
