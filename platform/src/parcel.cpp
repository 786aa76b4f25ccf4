// SPDX-License-Identifier: Apache-2.0
#include "varn/parcel.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "parcel_buffer.h"
#include "varn/message_parcel.h"

namespace VARN {

namespace {

// Buffers of parcels that are gone, for the next ones: a call makes two parcels, and a large block from the heap makes
// the allocator tidy up, which costs the many small ones of a record list more than the block itself. Each place holds
// one buffer, whose first bytes say how large it is, and is taken and filled by one atomic step: no lock, so a fork may
// happen at any time. Larger buffers go back to the heap, so that a program that had one long answer does not pay for
// it for ever.
constexpr size_t MAX_SPARE_CAPACITY = size_t{2} * 1024 * 1024;
constexpr size_t SMALL_SPARE_CAPACITY = 65536;

struct SparePlace {
    const size_t maxCapacity;
    std::atomic<uint8_t*> buffer{nullptr};
};
SparePlace sparePlaces[] = {{SMALL_SPARE_CAPACITY}, {MAX_SPARE_CAPACITY}};

void GiveBack(uint8_t* buffer, size_t capacity) noexcept
{
    std::memcpy(buffer, &capacity, sizeof(capacity));
    for (SparePlace& place : sparePlaces) {
        uint8_t* none = nullptr;
        // Release: the thread that takes it reads what stands in it.
        if (capacity <= place.maxCapacity &&
            place.buffer.compare_exchange_strong(none, buffer, std::memory_order_release, std::memory_order_relaxed)) {
            return;
        }
    }
    std::free(buffer);
}

// A buffer of at least `capacity` bytes, which is set to how many there are; null when there is none.
uint8_t* TakeSpare(size_t& capacity) noexcept
{
    for (SparePlace& place : sparePlaces) {
        uint8_t* buffer = place.buffer.exchange(nullptr, std::memory_order_acquire);
        if (buffer == nullptr) {
            continue;
        }
        size_t found = 0;
        std::memcpy(&found, buffer, sizeof(found));
        if (found >= capacity) {
            capacity = found;
            return buffer;
        }
        std::free(buffer);  // the longer one comes back in its place
    }
    return nullptr;
}

}  // namespace

Parcelable::~Parcelable() = default;

MessageParcel::~MessageParcel() = default;

Parcel::~Parcel()
{
    if (ownsHeap_) {
        GiveBack(data_, capacity_);
    }
}

bool Parcel::WriteParcelable(const Parcelable* value)
{
    if (value == nullptr) {
        return WriteInt32(0);
    }
    const bool isWhole = WriteInt32(1) && value->Marshalling(*this);
    isCut_ = isCut_ || !isWhole;
    return isWhole;
}

bool Parcel::ReadBool(bool& value)
{
    int32_t word = 0;
    if (!ReadInt32(word)) {
        return false;
    }
    value = word != 0;
    return true;
}

template <class Unit>
bool Parcel::ReadText(std::basic_string<Unit>& value)
{
    int32_t count = 0;
    if (GetReadableBytes() < sizeof(count)) {
        return false;
    }
    const uint8_t* text = data_ + cursor_ + sizeof(count);
    std::memcpy(&count, data_ + cursor_, sizeof(count));
    const size_t room = GetReadableBytes() - sizeof(count);
    // A hostile length must not overflow the sum below: more units than there are bytes are too many in any case.
    if (count < 0 || static_cast<size_t>(count) > room) {
        return false;
    }
    const auto length = static_cast<size_t>(count);
    const size_t padded = Align((length + 1) * sizeof(Unit));
    if (padded > room) {
        return false;
    }
    Unit terminator;
    std::memcpy(&terminator, text + length * sizeof(Unit), sizeof(terminator));
    if (terminator != 0) {
        return false;
    }
    // Made anew: cheaper than to assign to, also where the old memory would do.
    value = std::basic_string<Unit>(reinterpret_cast<const Unit*>(text), length);
    cursor_ += sizeof(count) + padded;
    return true;
}

bool Parcel::ReadString(std::string& value)
{
    return ReadText(value);
}

bool Parcel::ReadString16(std::u16string& value)
{
    return ReadText(value);
}

bool Parcel::ReadBool()
{
    bool value = false;
    ReadBool(value);
    return value;
}

int32_t Parcel::ReadInt32()
{
    int32_t value = 0;
    ReadInt32(value);
    return value;
}

int64_t Parcel::ReadInt64()
{
    int64_t value = 0;
    ReadInt64(value);
    return value;
}

std::string Parcel::ReadString()
{
    std::string value;
    ReadString(value);
    return value;
}

std::u16string Parcel::ReadString16()
{
    std::u16string value;
    ReadString16(value);
    return value;
}

bool Parcel::SetMaxCapacity(size_t bytes) noexcept
{
    if (bytes < size_) {
        return false;
    }
    maxCapacity_ = bytes;
    capacity_ = std::min(capacity_, bytes);
    return true;
}

bool Parcel::Grow(size_t bytes) noexcept
{
    if (bytes > maxCapacity_ - size_) {
        return false;
    }
    // Doubling keeps the cost of a long series of small writes linear; from powers of two, so that a buffer that is
    // given back serves the next message of about this length.
    size_t capacity = kInlineCapacity;
    while (capacity < maxCapacity_ && (capacity <= capacity_ || capacity < size_ + bytes)) {
        capacity *= 2;
    }
    capacity = std::min(capacity, maxCapacity_);
    // One that outgrows a small buffer of its own finds the long one that another parcel has left.
    const bool mayTakeSpare = !ownsHeap_ || (capacity_ <= SMALL_SPARE_CAPACITY && capacity > SMALL_SPARE_CAPACITY);
    uint8_t* data = mayTakeSpare ? TakeSpare(capacity) : nullptr;
    const bool isOther = data != nullptr || !ownsHeap_;
    if (data == nullptr) {
        data = static_cast<uint8_t*>(ownsHeap_ ? std::realloc(data_, capacity) : std::malloc(capacity));
    }
    if (data == nullptr) {
        return false;
    }
    if (isOther) {
        std::memcpy(data, data_, size_);
        if (ownsHeap_) {
            GiveBack(data_, capacity_);
        }
    }
    data_ = data;
    capacity_ = std::min(capacity, maxCapacity_);
    ownsHeap_ = true;
    return true;
}

void ParcelBuffer::Clear(Parcel& parcel, size_t keptCapacity) noexcept
{
    if (parcel.ownsHeap_ && parcel.capacity_ > keptCapacity) {
        GiveBack(parcel.data_, parcel.capacity_);
        parcel.ownsHeap_ = false;
    }
    if (!parcel.ownsHeap_) {
        parcel.data_ = parcel.inline_;
        parcel.capacity_ = std::min(Parcel::kInlineCapacity, parcel.maxCapacity_);
    }
    parcel.size_ = 0;
    parcel.cursor_ = 0;
    parcel.isCut_ = false;
}

void ParcelBuffer::FreeSpares() noexcept
{
    for (SparePlace& place : sparePlaces) {
        std::free(place.buffer.exchange(nullptr, std::memory_order_acquire));
    }
}

void ParcelBuffer::Lend(Parcel& parcel, uint8_t* bytes, size_t size) noexcept
{
    Clear(parcel, 0);
    parcel.data_ = bytes;
    parcel.size_ = size;
    parcel.capacity_ = size;
}

uint8_t* ParcelBuffer::Space(Parcel& parcel, size_t bytes) noexcept
{
    if (bytes > parcel.capacity_ - parcel.size_ && !parcel.Grow(bytes)) {
        return nullptr;
    }
    return parcel.data_ + parcel.size_;
}

}  // namespace VARN
