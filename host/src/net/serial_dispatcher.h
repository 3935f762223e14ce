// SerialDispatcher: one thread that runs posted calls in order, so listener calls of one peer
// arrive on one thread in send order and never on an I/O thread. It counts the bytes its
// pending calls hold, for the bus to bound what a peer can make it buffer.
// Thread-safety: Post, PendingBytes and Stop may be called from any thread; Stop not from the
// dispatcher's own thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace QUEX {
namespace Tandra {

class SerialDispatcher {
public:
    SerialDispatcher() : thread_([this] { Run(); }) {}
    ~SerialDispatcher() { Stop(); }
    SerialDispatcher(const SerialDispatcher&) = delete;
    SerialDispatcher& operator=(const SerialDispatcher&) = delete;

    // False after Stop (the call is dropped).
    bool Post(std::function<void()> call, size_t bytes = 0)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return false;
        }
        queue_.push_back({std::move(call), bytes});
        pendingBytes_ += bytes;
        cv_.notify_one();
        return true;
    }

    size_t PendingBytes()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return pendingBytes_;
    }

    size_t PendingCalls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return queue_.size();
    }

    // Drops calls not yet started, waits for the running one.
    void Stop()
    {
        std::deque<Item> dropped;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            dropped.swap(queue_);
            cv_.notify_one();
        }
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    struct Item {
        std::function<void()> call;
        size_t bytes;
    };

    void Run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) {
                return;
            }
            Item item = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            item.call();
            item.call = nullptr;  // release what it holds (a received buffer) before accounting
            lock.lock();
            pendingBytes_ -= item.bytes;
        }
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Item> queue_;
    size_t pendingBytes_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace Tandra
}  // namespace QUEX
