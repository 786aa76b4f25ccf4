// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "varn/parcel.h"

namespace VARN {

// The parcel of one request or one reply. A request begins with an interface token, the descriptor of the interface it
// is meant for, so that a service recognises a message that was meant for another.
class VARN_API MessageParcel : public Parcel {
public:
    MessageParcel() noexcept = default;
    ~MessageParcel() override;

    // Writes the token as a string16. Fails like any write.
    bool WriteInterfaceToken(const std::u16string& token) { return WriteString16(token); }

    // Reads the token; empty when there is none to read, the cursor then unmoved.
    std::u16string ReadInterfaceToken() { return ReadString16(); }
};

// How a request is sent.
class VARN_API MessageOption {
public:
    enum { TF_SYNC = 0 };  // wait for the reply

    // How long a request may take when no other time is given.
    static constexpr int32_t kDefaultWaitTimeSeconds = 8;

    // `waitTimeSeconds` bounds connecting, sending and receiving together. What is not positive means the default,
    // since an endless wait is never what a caller wants.
    MessageOption(int32_t flags = TF_SYNC, int32_t waitTimeSeconds = kDefaultWaitTimeSeconds) noexcept
        : flags_(flags), waitTimeSeconds_(waitTimeSeconds > 0 ? waitTimeSeconds : kDefaultWaitTimeSeconds)
    {
    }

    // As given.
    int32_t GetFlags() const noexcept { return flags_; }
    // Seconds, always positive.
    int32_t GetWaitTime() const noexcept { return waitTimeSeconds_; }

private:
    int32_t flags_;
    int32_t waitTimeSeconds_;
};

}  // namespace VARN
