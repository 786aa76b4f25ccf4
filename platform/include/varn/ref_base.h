// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "varn/export.h"

namespace VARN {

// The base of everything that is shared by counting its owners: remote objects, proxies, stubs, managers and the
// records that travel in parcels. The count lives inside the object. An object starts with no owner; the first `sptr`
// makes it one, and the release of the last deletes it through the virtual destructor, on whichever thread that
// happens.
//
// Derive virtually when more than one base of a class may derive from it, so that one object has one count.
//
// An object on the stack or inside a container is never counted; just do not point an `sptr` at it.
//
// Thread safety: the count may be changed from any thread. Everything else of the object is its own class's business.
class VARN_API RefBase {
public:
    RefBase() noexcept = default;

    // A copy is another object: it starts without owners, whoever owns the original.
    RefBase(const RefBase&) noexcept {}

    // Assignment changes an object's value, not who owns it: both counts stay as they are.
    RefBase& operator=(const RefBase&) noexcept { return *this; }

    virtual ~RefBase();

    // Adds an owner.
    // Relaxed: a thread that adds one already reaches the object through another owner or has just made it, so nothing
    // that happens to the object needs to be ordered by this step.
    void IncStrongRef() const noexcept { strongCount_.fetch_add(1, std::memory_order_relaxed); }

    // Takes an owner away and deletes the object when that was the last.
    // Release: what this owner did to the object must happen before its deletion by the last one. Acquire: the
    // last one must see what all the others did. One read-modify-write carries both, and the chain of them is one
    // release sequence, so no fence is needed.
    void DecStrongRef() const noexcept
    {
        if (strongCount_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    // The number of owners at some moment during the call: for tests and diagnostics, never for decisions, since
    // another thread may change it before the caller looks. Relaxed: a lone number with nothing attached.
    int32_t StrongCount() const noexcept { return strongCount_.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<int32_t> strongCount_{0};
};

// A strong reference to a `RefBase`: while it exists, the object does. Null by default. The size of a pointer.
//
// Thread safety: two threads may use two `sptr`s to one object; one `sptr` that several threads change needs a lock.
template <class T>
class sptr {
public:
    constexpr sptr() noexcept = default;
    // Null.
    constexpr sptr(std::nullptr_t) noexcept {}

    // Becomes an owner of `object`, which may be null. A freshly allocated object gets its first owner here.
    sptr(T* object) noexcept : object_(object)
    {
        if (object_ != nullptr) {
            object_->IncStrongRef();
        }
    }

    // A copy is one owner more; a move leaves null behind.
    sptr(const sptr& other) noexcept : sptr(other.object_) {}
    sptr(sptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

    // From a reference to a derived class.
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    sptr(const sptr<U>& other) noexcept : sptr(other.Get())
    {
    }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    sptr(sptr<U>&& other) noexcept : object_(other.Release())
    {
    }

    ~sptr()
    {
        if (object_ != nullptr) {
            object_->DecStrongRef();
        }
    }

    // Gives up the object owned before, if any.
    sptr& operator=(sptr other) noexcept
    {
        Swap(other);
        return *this;
    }

    // The object, still owned by this reference; null when there is none.
    T* Get() const noexcept { return object_; }
    // Both need an object.
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }

    // Whether there is an object.
    explicit operator bool() const noexcept { return object_ != nullptr; }

    // Changes no count.
    void Swap(sptr& other) noexcept { std::swap(object_, other.object_); }

    // Gives the ownership away without counting: the caller now owes one `DecStrongRef`.
    [[nodiscard]] T* Release() noexcept { return std::exchange(object_, nullptr); }

    // Two references are equal when they share one object; a plain pointer is compared with it.
    friend bool operator==(const sptr& left, const sptr& right) noexcept { return left.object_ == right.object_; }
    friend bool operator!=(const sptr& left, const sptr& right) noexcept { return left.object_ != right.object_; }
    template <class U>
    friend bool operator==(const sptr& left, const U* right) noexcept
    {
        return left.object_ == right;
    }
    template <class U>
    friend bool operator!=(const sptr& left, const U* right) noexcept
    {
        return left.object_ != right;
    }
    template <class U>
    friend bool operator==(const U* left, const sptr& right) noexcept
    {
        return left == right.object_;
    }
    template <class U>
    friend bool operator!=(const U* left, const sptr& right) noexcept
    {
        return left != right.object_;
    }
    friend bool operator==(const sptr& left, std::nullptr_t) noexcept { return left.object_ == nullptr; }
    friend bool operator!=(const sptr& left, std::nullptr_t) noexcept { return left.object_ != nullptr; }
    friend bool operator==(std::nullptr_t, const sptr& right) noexcept { return right.object_ == nullptr; }
    friend bool operator!=(std::nullptr_t, const sptr& right) noexcept { return right.object_ != nullptr; }

private:
    T* object_ = nullptr;
};

}  // namespace VARN
