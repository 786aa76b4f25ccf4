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
    UniqueFd& operator=(UniqueFd other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd()
    {
        // Linux closes the descriptor even when close reports EINTR, so it is never tried again.
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    int Get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

}  // namespace VARN::Host
