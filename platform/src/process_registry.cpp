// ProcessRegistry: pid -> live objects (stubs and proxies), the set of dead pids, and the death-notice thread.
// Lock order: the registry's mutex may be held while a stub's mutex is taken, never the other
// way round; no lock is held while a recipient runs or while a stub reference is dropped (the
// last reference runs the stub's destructor, which detaches under the registry's mutex).
#include "process_registry.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ipc_object_base.h"

namespace Vex {

namespace {

struct DeathNotice {
    sptr<IPCObjectBase> object;
    std::vector<sptr<IRemoteObject::DeathRecipient>> recipients;
};

}  // namespace

struct ProcessRegistry::Impl {
    mutable std::mutex mutex;
    // The control block is recorded at Attach (on the stub's own thread): reading it later
    // through the stub would race with a concurrent destructor rewriting the object's vtable.
    std::unordered_map<int32_t, std::unordered_map<IPCObjectBase*, RefCounter*>> stubs;
    std::set<int32_t> deadPids;

    // The death-notice queue has its own lock so that delivery never contends with Attach.
    std::mutex noticeMutex;
    std::condition_variable noticeCv;
    std::condition_variable deliveredCv;
    std::deque<std::vector<DeathNotice>> queue;
    uint64_t queued = 0;
    uint64_t delivered = 0;
    bool threadStarted = false;
    std::thread::id threadId;

    void Enqueue(std::vector<DeathNotice> batch);
    void Run();
};

void ProcessRegistry::Impl::Enqueue(std::vector<DeathNotice> batch)
{
    std::lock_guard<std::mutex> lock(noticeMutex);
    queue.push_back(std::move(batch));
    ++queued;
    if (!threadStarted) {
        threadStarted = true;
        std::thread thread([this] { Run(); });
        threadId = thread.get_id();
        thread.detach();
    }
    noticeCv.notify_one();
}

void ProcessRegistry::Impl::Run()
{
    pthread_setname_np(pthread_self(), "VexDeathNotice");
    std::unique_lock<std::mutex> lock(noticeMutex);
    for (;;) {
        noticeCv.wait(lock, [this] { return !queue.empty(); });
        std::vector<DeathNotice> batch = std::move(queue.front());
        queue.pop_front();
        lock.unlock();
        for (DeathNotice& notice : batch) {
            wptr<IRemoteObject> object(notice.object.GetRefPtr());
            for (const auto& recipient : notice.recipients) {
                if (notice.object->ClaimDeathNotice(recipient)) {
                    recipient->OnRemoteDied(object);
                }
            }
        }
        batch.clear();  // may run stub destructors: outside every lock
        lock.lock();
        ++delivered;
        deliveredCv.notify_all();
    }
}

ProcessRegistry& ProcessRegistry::Get()
{
    // Never destroyed: stubs held by statics of other libraries detach during exit.
    static ProcessRegistry* registry = new ProcessRegistry();
    return *registry;
}

ProcessRegistry::ProcessRegistry() : impl_(new Impl()) {}

ProcessRegistry::~ProcessRegistry()
{
    delete impl_;
}

void ProcessRegistry::DeclareDead(int32_t pid)
{
    std::vector<sptr<IPCObjectBase>> objects;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->deadPids.insert(pid);
        auto it = impl_->stubs.find(pid);
        if (it != impl_->stubs.end()) {
            for (const auto& [stub, refs] : it->second) {
                // A stub whose strong count is zero is being built or destroyed: skip it (one
                // built for a dead pid marks itself dead). The control block stays valid while
                // we hold the registry's mutex, since the stub detaches before it lets go.
                int32_t strong = refs->strong.load(std::memory_order_acquire);
                bool taken = false;
                while (strong > 0 && !taken) {
                    taken = refs->strong.compare_exchange_weak(strong, strong + 1, std::memory_order_acq_rel);
                }
                if (taken) {
                    // Our own count keeps the object whole, so touching it is safe now.
                    objects.emplace_back(stub);
                    stub->DecStrongRef(nullptr);
                }
            }
        }
    }
    std::vector<DeathNotice> batch;
    for (auto& object : objects) {
        auto recipients = object->TakeDeathRecipients();
        if (!recipients.empty()) {
            batch.push_back(DeathNotice{object, std::move(recipients)});
        }
    }
    objects.clear();
    if (!batch.empty()) {
        impl_->Enqueue(std::move(batch));
    }
}

void ProcessRegistry::DeclareObjectsDead(const std::vector<sptr<IPCObjectBase>>& objects)
{
    std::vector<DeathNotice> batch;
    for (const auto& object : objects) {
        auto recipients = object->TakeDeathRecipients();
        if (!recipients.empty()) {
            batch.push_back(DeathNotice{object, std::move(recipients)});
        }
    }
    if (!batch.empty()) {
        impl_->Enqueue(std::move(batch));
    }
}

bool ProcessRegistry::IsDead(int32_t pid) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->deadPids.count(pid) != 0;
}

void ProcessRegistry::Revive(int32_t pid)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->deadPids.erase(pid);
}

bool ProcessRegistry::WaitForDeathNotices(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(impl_->noticeMutex);
    if (impl_->threadStarted && std::this_thread::get_id() == impl_->threadId) {
        return false;  // a recipient cannot wait for its own delivery
    }
    uint64_t target = impl_->queued;
    return impl_->deliveredCv.wait_for(lock, timeout, [this, target] { return impl_->delivered >= target; });
}

void ProcessRegistry::Attach(IPCObjectBase* stub, int32_t pid)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->stubs[pid][stub] = stub->GetRefCounter();
}

void ProcessRegistry::Detach(IPCObjectBase* stub, int32_t pid)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = impl_->stubs.find(pid);
    if (it == impl_->stubs.end()) {
        return;
    }
    it->second.erase(stub);
    if (it->second.empty()) {
        impl_->stubs.erase(it);
    }
}

}  // namespace Vex
