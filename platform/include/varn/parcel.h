// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "varn/export.h"
#include "varn/ref_base.h"

namespace VARN {

class Parcel;

// A value that travels in a parcel. A record derives from it and adds a static `T* Unmarshalling(Parcel&)` that returns
// a new record for the caller to own, or null; `Parcel::ReadParcelable<T>` finds it by that name.
class VARN_API Parcelable : public virtual RefBase {
public:
    Parcelable() noexcept = default;
    // Copies the flags; the owners are the copy's own.
    Parcelable(const Parcelable&) noexcept = default;
    Parcelable& operator=(const Parcelable&) noexcept = default;
    ~Parcelable() override;

    // Writes the value at the end of `parcel`. False as soon as a write fails; what was written until then stays in the
    // parcel, which the caller is expected to drop.
    virtual bool Marshalling(Parcel& parcel) const = 0;

    // A word for a platform to note how the value travels. It is copied with the value, never sent, and 0 on this host.
    uint32_t GetBehavior() const noexcept { return behavior_; }
    void SetBehavior(uint32_t behavior) noexcept { behavior_ = behavior; }

private:
    uint32_t behavior_ = 0;
};

// The bytes of one message: typed values, written at the end and read from the front in the same order. A value carries
// no type mark: reader and writer agree on the order, and a reader that asks for something else gets whatever the bytes
// say, or a failure, never memory outside the parcel.
//
// Layout: every value starts at a multiple of 4 bytes, numbers in the host's byte order.
//
//   bool, int32   4 bytes (a bool is written as 0 or 1; anything but 0 reads as true)
//   int64         8 bytes
//   string        int32 length in bytes, the bytes, one zero byte, zero bytes up to a multiple of 4
//   string16      int32 length in 2-byte units, the units, one zero unit, zero bytes up to a multiple of 4
//   parcelable    int32 presence: 0 and nothing else, or 1 and the value's own fields
//
// Strings may hold zero bytes; the length counts. What a failed operation leaves behind:
//
//   read    The cursor and the target are as they were. It fails when the parcel does not hold the whole value, when a
//           length is negative or longer than what is left, and when the terminator is missing. A length is compared
//           with the bytes that are there before anything is allocated for it.
//   write   The parcel is as it was. It fails when the parcel would outgrow its capacity, when a string is longer than
//           an int32 can say, and when memory runs out.
//
// The first bytes live inside the object, so a small message needs no heap; beyond that the buffer doubles.
//
// Thread safety: none; a parcel belongs to one thread at a time.
class VARN_API Parcel {
public:
    // More than any honest message needs; it stops a runaway writer from taking all memory.
    static constexpr size_t kDefaultMaxCapacity = size_t{128} * 1024 * 1024;

    Parcel() noexcept = default;
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;
    virtual ~Parcel();

    // Each writes one value at the end.
    bool WriteBool(bool value) { return WriteInt32(value ? 1 : 0); }
    bool WriteInt32(int32_t value) { return WriteNumber(value); }
    bool WriteInt64(int64_t value) { return WriteNumber(value); }
    bool WriteString(const std::string& value) { return WriteText(value.data(), value.size()); }
    bool WriteString16(const std::u16string& value) { return WriteText(value.data(), value.size()); }

    // Writes presence 1 and then the value's own `Marshalling`, whose failure it returns without taking anything back;
    // for null it writes presence 0.
    bool WriteParcelable(const Parcelable* value);

    // The filling forms: true and `value` set, or false with `value` and the cursor untouched. A string for which there
    // is no memory throws std::bad_alloc, like any string.
    bool ReadBool(bool& value);
    bool ReadInt32(int32_t& value) { return ReadNumber(value); }
    bool ReadInt64(int64_t& value) { return ReadNumber(value); }
    bool ReadString(std::string& value);
    bool ReadString16(std::u16string& value);

    // The returning forms give false, 0 or an empty string where the filling form fails.
    bool ReadBool();
    int32_t ReadInt32();
    int64_t ReadInt64();
    std::string ReadString();
    std::u16string ReadString16();

    // Reads the presence and, unless it is 0, the value by `T::Unmarshalling`. Null when it is absent or unreadable;
    // the cursor then stands where reading stopped.
    template <class T>
    sptr<T> ReadParcelable()
    {
        return ReadInt32() != 0 ? sptr<T>(T::Unmarshalling(*this)) : sptr<T>();
    }

    // Bytes from the cursor to the end.
    size_t GetReadableBytes() const noexcept { return size_ - cursor_; }
    // Bytes written in all.
    size_t GetDataSize() const noexcept { return size_; }

    // The most bytes that the parcel may hold: a write that ends exactly there succeeds, one that would pass it fails.
    // False, and no change, when the parcel already holds more.
    bool SetMaxCapacity(size_t bytes) noexcept;

private:
    friend class ParcelBuffer;

    static constexpr size_t kAlignment = 4;
    // Holds the interface token of a request and a handful of short strings.
    static constexpr size_t kInlineCapacity = 512;

    static constexpr size_t Align(size_t bytes) noexcept { return (bytes + kAlignment - 1) & ~(kAlignment - 1); }

    // `bytes` more bytes at the end, or null. Only the slow half is a call.
    uint8_t* Extend(size_t bytes) noexcept
    {
        if (bytes > capacity_ - size_ && !Grow(bytes)) {
            isCut_ = true;
            return nullptr;
        }
        uint8_t* end = data_ + size_;
        size_ += bytes;
        return end;
    }
    bool Grow(size_t bytes) noexcept;

    template <class T>
    bool WriteNumber(T value) noexcept
    {
        uint8_t* end = Extend(sizeof(value));
        if (end == nullptr) {
            return false;
        }
        std::memcpy(end, &value, sizeof(value));
        return true;
    }

    template <class T>
    bool ReadNumber(T& value) noexcept
    {
        if (GetReadableBytes() < sizeof(value)) {
            return false;
        }
        std::memcpy(&value, data_ + cursor_, sizeof(value));
        cursor_ += sizeof(value);
        return true;
    }

    template <class Unit>
    bool WriteText(const Unit* units, size_t length) noexcept
    {
        if (length > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
            isCut_ = true;
            return false;
        }
        const size_t bytes = length * sizeof(Unit);
        const size_t padded = Align(bytes + sizeof(Unit));
        uint8_t* end = Extend(sizeof(int32_t) + padded);
        if (end == nullptr) {
            return false;
        }
        const auto count = static_cast<int32_t>(length);
        const int32_t zero = 0;
        std::memcpy(end, &count, sizeof(count));
        // The last word holds the terminator and the padding; the text then covers what of it is text.
        std::memcpy(end + padded, &zero, sizeof(zero));
        std::memcpy(end + sizeof(count), units, bytes);
        return true;
    }

    template <class Unit>
    bool ReadText(std::basic_string<Unit>& value);

    uint8_t* data_ = inline_;
    size_t size_ = 0;
    size_t cursor_ = 0;
    // How far `size_` may go without a call to `Grow`: never beyond `maxCapacity_`.
    size_t capacity_ = kInlineCapacity;
    size_t maxCapacity_ = kDefaultMaxCapacity;
    // Whether `data_` is from the heap and ours to free; false for the inline bytes and for bytes lent by the
    // transport.
    bool ownsHeap_ = false;
    // A write has failed since the parcel was last empty.
    bool isCut_ = false;
    alignas(8) uint8_t inline_[kInlineCapacity];
};

}  // namespace VARN
