#include "ipc_io_service.h"

#include <pthread.h>

#include <cstdlib>

namespace Vex {

IpcIoService& IpcIoService::Get()
{
    // Never destroyed: connections held by statics close during exit.
    static IpcIoService* service = new IpcIoService();
    return *service;
}

IpcIoService::IpcIoService() : guard_(asio::make_work_guard(context_))
{
    // asio's error categories are function statics: made before the exit handler is
    // registered, they are destroyed after it ran, so the loop never sees them gone.
    (void)asio::system_category();
    (void)asio::error::get_misc_category();
    (void)asio::error::get_netdb_category();
    (void)asio::error::get_addrinfo_category();
    thread_ = std::thread([this] {
        pthread_setname_np(pthread_self(), "VexIpcIo");
        context_.run();
    });
    threadId_ = thread_.get_id();
    std::atexit(StopAtExit);
}

void IpcIoService::StopAtExit()
{
    IpcIoService& service = Get();
    service.context_.stop();
    if (service.thread_.joinable() && !service.InLoopThread()) {
        service.thread_.join();
    }
}

}  // namespace Vex
