// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

#include "varn/parcel.h"

namespace VARN {

// How a transport gets at a parcel's bytes without copying them: for the platform's own use.
class ParcelBuffer {
public:
    static const uint8_t* Data(const Parcel& parcel) noexcept { return parcel.data_; }
    static size_t Capacity(const Parcel& parcel) noexcept { return parcel.capacity_; }
    static size_t MaxCapacity(const Parcel& parcel) noexcept { return parcel.maxCapacity_; }

    // Whether a write has failed since the parcel was last empty, so that something is missing in it.
    static bool IsCut(const Parcel& parcel) noexcept { return parcel.isCut_; }

    // Empties the parcel. A heap buffer of up to `keptCapacity` bytes is kept for the next use; a longer one may serve
    // the next parcel that needs one, whosever it is.
    static void Clear(Parcel& parcel, size_t keptCapacity) noexcept;

    // Gives the buffers that wait for such a parcel back to the heap. Any thread may do so at any time.
    static void FreeSpares() noexcept;

    // Lets the parcel read `bytes`, which begin at a multiple of 4, where they are. They must outlive its use or the
    // next `Clear`; a write copies them first, so they are never changed.
    static void Lend(Parcel& parcel, uint8_t* bytes, size_t size) noexcept;

    // Room for `bytes` more bytes at the end, not yet part of the parcel; null when they do not fit or memory runs out.
    static uint8_t* Space(Parcel& parcel, size_t bytes) noexcept;

    // Makes the first `bytes` bytes of that room part of the parcel.
    static void Commit(Parcel& parcel, size_t bytes) noexcept { parcel.size_ += bytes; }
};

}  // namespace VARN
