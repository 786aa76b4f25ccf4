// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// Watches and fails the allocations of `new` on this thread, by replacing the global operators of the test program that
// allocation.cpp is linked into. What malloc gives to parcels is left alone.
struct Allocations {
    static constexpr size_t NEVER = SIZE_MAX;

    size_t untilFailure = NEVER;  // after so many, one fails, and only that one; then this is NEVER again
    int64_t bytes = 0;            // that are allocated, and not yet deleted, since this was reset
    int64_t mostBytes = 0;        // at a time
};
extern thread_local Allocations allocations;

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
