// Intrusive reference counting for platform objects: RefBase, sptr<T> and wptr<T>.
// An object derived (virtually) from RefBase is freed when its last strong reference goes;
// weak references can outlive it and promote() to a strong one only while it lives.
// Thread-safety: the counts are atomic; a single sptr/wptr variable is not (like shared_ptr).
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace Vex {

class RefCounter;

class RefBase {
public:
    RefBase();
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    void IncStrongRef(const void* objectId = nullptr);
    void DecStrongRef(const void* objectId = nullptr);
    // Takes a strong reference only if the object is still alive; true on success.
    bool AttemptIncStrongRef(const void* objectId = nullptr);
    int32_t GetSptrRefCount() const;

    RefCounter* GetRefCounter() const { return refs_; }

    // Hooks for subclasses: first strong reference taken, last strong reference dropped.
    virtual void OnFirstStrongRef(const void* objectId);
    virtual void OnLastStrongRef(const void* objectId);

protected:
    virtual ~RefBase();

private:
    RefCounter* refs_;
};

// Shared control block: outlives the object while weak references exist.
class RefCounter {
public:
    std::atomic<int32_t> strong{0};
    std::atomic<int32_t> weak{1};  // one weak count held by the object itself
    std::atomic<bool> everStrong{false};
    void IncWeak() { weak.fetch_add(1, std::memory_order_relaxed); }
    void DecWeak()
    {
        if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }
};

template <typename T>
class wptr;

template <typename T>
class sptr {
public:
    sptr() = default;
    sptr(std::nullptr_t) {}
    sptr(T* other) : ptr_(other)
    {
        if (ptr_ != nullptr) {
            ptr_->IncStrongRef(this);
        }
    }
    sptr(const sptr<T>& other) : sptr(other.ptr_) {}
    sptr(sptr<T>&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
    template <typename O>
    sptr(const sptr<O>& other) : sptr(other.GetRefPtr())
    {
    }
    ~sptr()
    {
        if (ptr_ != nullptr) {
            ptr_->DecStrongRef(this);
        }
    }

    template <typename... Args>
    static sptr<T> MakeSptr(Args&&... args)
    {
        return sptr<T>(new T(std::forward<Args>(args)...));
    }

    sptr<T>& operator=(const sptr<T>& other)
    {
        sptr<T> copy(other);
        std::swap(ptr_, copy.ptr_);
        return *this;
    }
    sptr<T>& operator=(sptr<T>&& other) noexcept
    {
        sptr<T> moved(std::move(other));
        std::swap(ptr_, moved.ptr_);
        return *this;
    }
    sptr<T>& operator=(T* other)
    {
        sptr<T> copy(other);
        std::swap(ptr_, copy.ptr_);
        return *this;
    }
    sptr<T>& operator=(std::nullptr_t)
    {
        clear();
        return *this;
    }
    template <typename O>
    sptr<T>& operator=(const sptr<O>& other)
    {
        sptr<T> copy(other.GetRefPtr());
        std::swap(ptr_, copy.ptr_);
        return *this;
    }

    void clear()
    {
        if (ptr_ != nullptr) {
            T* old = ptr_;
            ptr_ = nullptr;
            old->DecStrongRef(this);
        }
    }

    T* GetRefPtr() const { return ptr_; }
    T* operator->() const { return ptr_; }
    T& operator*() const { return *ptr_; }
    explicit operator bool() const { return ptr_ != nullptr; }
    operator T*() const { return ptr_; }

    bool operator==(const sptr<T>& other) const { return ptr_ == other.ptr_; }
    bool operator!=(const sptr<T>& other) const { return ptr_ != other.ptr_; }
    bool operator==(const T* other) const { return ptr_ == other; }
    bool operator!=(const T* other) const { return ptr_ != other; }
    bool operator==(std::nullptr_t) const { return ptr_ == nullptr; }
    bool operator!=(std::nullptr_t) const { return ptr_ != nullptr; }

private:
    template <typename O>
    friend class wptr;
    struct AdoptTag {};
    sptr(T* alreadyReferenced, AdoptTag) : ptr_(alreadyReferenced) {}
    T* ptr_ = nullptr;
};

template <typename T>
class wptr {
public:
    wptr() = default;
    wptr(T* other) { Assign(other); }
    wptr(const sptr<T>& other) { Assign(other.GetRefPtr()); }
    wptr(const wptr<T>& other) : ptr_(other.ptr_), refs_(other.refs_)
    {
        if (refs_ != nullptr) {
            refs_->IncWeak();
        }
    }
    ~wptr() { Reset(); }
    wptr<T>& operator=(const wptr<T>& other)
    {
        if (this != &other) {
            Reset();
            ptr_ = other.ptr_;
            refs_ = other.refs_;
            if (refs_ != nullptr) {
                refs_->IncWeak();
            }
        }
        return *this;
    }
    wptr<T>& operator=(const sptr<T>& other)
    {
        Reset();
        Assign(other.GetRefPtr());
        return *this;
    }

    // A strong reference if the object still lives, else null.
    sptr<T> promote() const
    {
        // Goes through the control block: the object itself may already be gone.
        if (refs_ == nullptr) {
            return nullptr;
        }
        int32_t current = refs_->strong.load(std::memory_order_acquire);
        while (current > 0) {
            if (refs_->strong.compare_exchange_weak(current, current + 1, std::memory_order_acq_rel)) {
                return sptr<T>(ptr_, typename sptr<T>::AdoptTag{});
            }
        }
        return nullptr;
    }
    // The raw pointer, without liveness guarantee; for identity comparisons only.
    T* GetRefPtr() const { return ptr_; }
    bool operator==(const wptr<T>& other) const { return ptr_ == other.ptr_; }

private:
    void Assign(T* other)
    {
        ptr_ = other;
        refs_ = other != nullptr ? other->GetRefCounter() : nullptr;
        if (refs_ != nullptr) {
            refs_->IncWeak();
        }
    }
    void Reset()
    {
        if (refs_ != nullptr) {
            refs_->DecWeak();
        }
        ptr_ = nullptr;
        refs_ = nullptr;
    }
    T* ptr_ = nullptr;
    RefCounter* refs_ = nullptr;
};

}  // namespace Vex
