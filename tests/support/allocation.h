// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

// Watches and fails the allocations of `new` on this thread, by replacing the global operators of the test program that
// allocation.cpp is linked into. What malloc gives to parcels is left alone.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// Lets the allocation after the next `count` fail, and only that one; HasAllocationFailed() says whether it came.
void FailAllocation(size_t count);
bool HasAllocationFailed();

// Whether what `new (std::nothrow)` gave to this thread last has been deleted since.
bool IsLastNothrowNewDeleted();

// The most bytes that were allocated at a time since CountBytes().
void CountBytes();
size_t MostBytes();

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
