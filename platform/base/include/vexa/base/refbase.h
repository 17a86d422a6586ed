// SPDX-License-Identifier: Apache-2.0
// Intrusive reference counting: RefBase is counted, sptr<T> is a strong reference, wptr<T> a weak one.
//
// A new object has no references; the first sptr takes the first one, and the object is deleted
// when the last sptr goes. A wptr keeps only the counts alive, and Promote() yields a strong
// reference as long as one still exists elsewhere. The counts are atomic: references to one object may be
// taken and dropped on any threads. A single sptr or wptr variable is not itself safe to change from two threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "vexa/base/export.h"
#include "vexa/base/no_cancel.h"

namespace VEXA {

// The counts of one object. It outlives the object while weak references remain.
class VEXA_EXPORT RefCounter {
public:
    void IncStrong() { strong_.fetch_add(1, std::memory_order_relaxed); }
    // True when this was the last strong reference.
    bool DecStrong() { return strong_.fetch_sub(1, std::memory_order_acq_rel) == 1; }
    // Takes a strong reference unless none is left.
    bool TryIncStrong()
    {
        int32_t count = strong_.load(std::memory_order_relaxed);
        while (count > 0) {
            if (strong_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel, std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }
    void IncWeak() { weak_.fetch_add(1, std::memory_order_relaxed); }
    void DecWeak()
    {
        if (weak_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }
    int32_t Strong() const { return strong_.load(std::memory_order_relaxed); }

private:
    std::atomic<int32_t> strong_{0};
    std::atomic<int32_t> weak_{1};  // the object itself counts as one
};

class VEXA_EXPORT RefBase {
public:
    RefBase() : counter_(new RefCounter) {}
    RefBase(const RefBase&) : RefBase() {}
    RefBase& operator=(const RefBase&) { return *this; }
    // Ends the process where references to the object are held: their next use would be a fault that nobody can trace.
    // A process that is leaving may delete its static objects so.
    virtual ~RefBase()
    {
        if (counter_->Strong() > 0) {
            EndUnlessLeaving();
        }
        counter_->DecWeak();
    }

    void IncStrongRef() const { counter_->IncStrong(); }
    void DecStrongRef() const
    {
        if (counter_->DecStrong()) {
            const NoCancel guard;
            delete this;
        }
    }
    RefCounter* GetRefCounter() const { return counter_; }
    int32_t GetSptrRefCount() const { return counter_->Strong(); }

protected:
    static bool IsLeaving();
    // Has the exit of the process noted where this thread is the main thread: its thread-locals go before all statics.
    static void NoteLeaving();

private:
    static void EndUnlessLeaving();

    RefCounter* const counter_;
};

template <typename T>
class wptr;

template <typename T>
class sptr {
public:
    sptr() = default;
    sptr(std::nullptr_t) {}
    sptr(T* object) : object_(object) { Acquire(); }
    sptr(const sptr& other) : object_(other.object_) { Acquire(); }
    sptr(sptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <typename O, typename = std::enable_if_t<std::is_convertible_v<O*, T*>>>
    sptr(const sptr<O>& other) : object_(other.GetRefPtr())
    {
        Acquire();
    }
    template <typename O, typename = std::enable_if_t<std::is_convertible_v<O*, T*>>>
    sptr(sptr<O>&& other) noexcept : object_(other.Detach())
    {}
    ~sptr() { Release(object_); }

    sptr& operator=(const sptr& other)
    {
        sptr(other).Swap(*this);
        return *this;
    }
    sptr& operator=(sptr&& other) noexcept
    {
        sptr(std::move(other)).Swap(*this);
        return *this;
    }

    // A new T behind its first strong reference; null when memory is short.
    template <typename... Args>
    static sptr MakeSptr(Args&&... args)
    {
        return sptr(new (std::nothrow) T(std::forward<Args>(args)...));
    }

    T* GetRefPtr() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }
    void clear() { sptr().Swap(*this); }
    void Swap(sptr& other) noexcept { std::swap(object_, other.object_); }
    // Gives up the reference without dropping it: the caller owns it now.
    T* Detach() noexcept { return std::exchange(object_, nullptr); }
    // Takes over a reference that is already counted.
    static sptr Adopt(T* counted)
    {
        sptr result;
        result.object_ = counted;
        return result;
    }

    template <typename O>
    bool operator==(const sptr<O>& other) const
    {
        return object_ == other.GetRefPtr();
    }
    template <typename O>
    bool operator!=(const sptr<O>& other) const
    {
        return object_ != other.GetRefPtr();
    }
    bool operator==(std::nullptr_t) const { return object_ == nullptr; }
    bool operator!=(std::nullptr_t) const { return object_ != nullptr; }

private:
    void Acquire() const
    {
        if (object_ != nullptr) {
            object_->IncStrongRef();
        }
    }
    static void Release(T* object)
    {
        if (object != nullptr) {
            object->DecStrongRef();
        }
    }

    T* object_ = nullptr;
};

template <typename T>
class wptr {
public:
    wptr() = default;
    wptr(std::nullptr_t) {}
    wptr(T* object) : object_(object), counter_(object != nullptr ? object->GetRefCounter() : nullptr) { Acquire(); }
    wptr(const sptr<T>& strong) : wptr(strong.GetRefPtr()) {}
    wptr(const wptr& other) : object_(other.object_), counter_(other.counter_) { Acquire(); }
    wptr(wptr&& other) noexcept
        : object_(std::exchange(other.object_, nullptr)), counter_(std::exchange(other.counter_, nullptr))
    {}
    ~wptr()
    {
        if (counter_ != nullptr) {
            counter_->DecWeak();
        }
    }
    wptr& operator=(wptr other) noexcept
    {
        std::swap(object_, other.object_);
        std::swap(counter_, other.counter_);
        return *this;
    }

    // A strong reference, or null when the object has no strong reference left (or never had one).
    sptr<T> Promote() const
    {
        if (counter_ == nullptr || !counter_->TryIncStrong()) {
            return nullptr;
        }
        return sptr<T>::Adopt(object_);
    }
    bool operator==(const wptr& other) const { return counter_ == other.counter_; }
    bool operator!=(const wptr& other) const { return counter_ != other.counter_; }
    bool operator==(std::nullptr_t) const { return counter_ == nullptr; }
    bool operator!=(std::nullptr_t) const { return counter_ != nullptr; }

private:
    void Acquire() const
    {
        if (counter_ != nullptr) {
            counter_->IncWeak();
        }
    }

    T* object_ = nullptr;
    RefCounter* counter_ = nullptr;
};

}  // namespace VEXA
