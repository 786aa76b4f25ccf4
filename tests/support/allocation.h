// SPDX-License-Identifier: Apache-2.0
#pragma once

// Watches and fails the allocations of `new (std::nothrow)`, by replacing the global operators of the test program that
// allocation.cpp is linked into.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// While it is true, every `new (std::nothrow)` of this thread yields null.
void SetNothrowNewFails(bool isFailing);

// Whether what `new (std::nothrow)` gave to this thread last has been deleted since.
bool IsLastNothrowNewDeleted();

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
