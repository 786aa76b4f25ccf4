// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace VARN::Host {

// Owns a descriptor and closes it.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }

    void Reset(int fd = -1) noexcept
    {
        // Linux closes the descriptor even when close reports EINTR, so it is never tried again.
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace VARN::Host
