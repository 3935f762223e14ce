#include "ipc_work_queue.h"

#include <pthread.h>

#include <thread>

namespace Vex {

IpcWorkQueue& IpcWorkQueue::Get()
{
    // Never destroyed: stubs of other libraries may post work while statics are torn down.
    static IpcWorkQueue* queue = new IpcWorkQueue();
    return *queue;
}

void IpcWorkQueue::Post(std::function<void()> task)
{
    bool spawn = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
        if (idle_ < tasks_.size() && threads_ < MAX_THREADS) {
            ++threads_;
            spawn = true;
        }
    }
    if (spawn) {
        std::thread([this] { Run(); }).detach();
    }
    cv_.notify_one();
}

void IpcWorkQueue::Run()
{
    pthread_setname_np(pthread_self(), "VexIpcWorker");
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ++idle_;
        cv_.wait(lock, [this] { return !tasks_.empty(); });
        --idle_;
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        task = nullptr;  // release captured references outside the queue's lock
        lock.lock();
    }
}

}  // namespace Vex
