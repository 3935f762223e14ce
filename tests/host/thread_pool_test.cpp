// The pool under blocking tasks: new work runs while earlier tasks wait, extra workers retire,
// and tasks run as the device's service process.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "asyn_thread_pool.h"
#include "device_context.h"
#include "host_types.h"
#include "ipc_skeleton.h"
#include "test_device.h"

namespace QUEX {
namespace Tandra {
namespace {

using namespace std::chrono_literals;

// A gate that blocked tasks wait at until the test opens it.
class Gate {
public:
    void Enter()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting_;
        cv_.notify_all();
        cv_.wait(lock, [this] { return open_; });
    }
    bool AwaitWaiting(int count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, 5s, [this, count] { return waiting_ >= count; });
    }
    bool AwaitOpen()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, 5s, [this] { return open_; });
    }
    void Open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int waiting_ = 0;
    bool open_ = false;
};

TEST(ThreadPoolTest, NewTasksRunWhileEarlierOnesBlock)
{
    constexpr int BLOCKED = 40;  // far beyond the core size
    ThreadPool pool(2, 256, 60s);
    Gate gate;
    for (int i = 0; i < BLOCKED; ++i) {
        ASSERT_EQ(pool.Post([&gate] { gate.Enter(); }), HOST_OK);
    }
    ASSERT_TRUE(gate.AwaitWaiting(BLOCKED));

    // A task posted now, and one it posts in turn, finish although every earlier one waits.
    Gate done;
    ASSERT_EQ(pool.Post([&pool, &done] { pool.Post([&done] { done.Open(); }); }), HOST_OK);
    ASSERT_TRUE(done.AwaitOpen());

    EXPECT_GE(pool.ThreadCount(), static_cast<size_t>(BLOCKED + 1));
    gate.Open();
    EXPECT_TRUE(pool.WaitIdle(5000ms));
}

TEST(ThreadPoolTest, ExtraWorkersRetireWhenIdle)
{
    ThreadPool pool(1, 64, 20ms);
    Gate gate;
    for (int i = 0; i < 8; ++i) {
        pool.Post([&gate] { gate.Enter(); });
    }
    ASSERT_TRUE(gate.AwaitWaiting(8));
    EXPECT_GE(pool.ThreadCount(), 8u);
    gate.Open();
    ASSERT_TRUE(pool.WaitIdle(5000ms));
    EXPECT_TRUE(pool.AwaitThreadCountAtMost(1, 5000ms));
    EXPECT_EQ(pool.ThreadCount(), 1u);  // the core worker stays

    std::atomic<bool> ran{false};
    pool.Post([&ran] { ran = true; });
    EXPECT_TRUE(pool.WaitIdle(5000ms));
    EXPECT_TRUE(ran);
}

TEST(ThreadPoolTest, CapQueuesInsteadOfFailingAndThrowingTaskKeepsWorker)
{
    ThreadPool pool(0, 2, 60s);
    Gate gate;
    pool.Post([&gate] { gate.Enter(); });
    pool.Post([] { throw std::runtime_error("task failure"); });
    std::atomic<int> after{0};
    for (int i = 0; i < 3; ++i) {
        pool.Post([&after] { ++after; });
    }
    ASSERT_TRUE(gate.AwaitWaiting(1));
    EXPECT_LE(pool.ThreadCount(), 2u);
    gate.Open();
    ASSERT_TRUE(pool.WaitIdle(5000ms));
    EXPECT_EQ(after.load(), 3);
    EXPECT_EQ(pool.Post(nullptr), HOST_ERR_INVALID_PARAM);
}

TEST(AsynThreadPoolTest, TasksRunWithTheDevicesServiceIdentity)
{
    Testing::TestDevice device;
    device.SetServiceIdentity(3100, 1000);
    std::mutex mutex;
    std::condition_variable cv;
    bool ran = false;
    Vex::Identity seen{};
    {
        Vex::ScopedIdentity app(7000, 20010001);  // posted from an application's request
        ASSERT_EQ(AsynThreadPool::AddAsynTask([&] {
                      std::lock_guard<std::mutex> lock(mutex);
                      seen = Vex::IPCSkeleton::GetSelfIdentity();
                      ran = true;
                      cv.notify_all();
                  }),
                  HOST_OK);
    }
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return ran; }));
    EXPECT_EQ(seen.pid, 3100);
    EXPECT_EQ(seen.uid, 1000);
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
