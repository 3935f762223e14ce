// IpcIoService: the process's one IPC event loop (asio), run by one thread that only reads,
// accepts and closes; requests run on IPC worker threads and writes happen on the sending
// thread, so a slow handler or a full socket never holds up reading.
// Thread-safety: Context() may be used from any thread as asio allows (post, socket creation).
#pragma once

#include <asio.hpp>
#include <thread>

namespace Vex {

class IpcIoService {
public:
    static IpcIoService& Get();
    asio::io_context& Context() { return context_; }
    bool InLoopThread() const { return std::this_thread::get_id() == threadId_; }

private:
    IpcIoService();
    static void StopAtExit();
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::thread thread_;
    std::thread::id threadId_;
};

}  // namespace Vex
