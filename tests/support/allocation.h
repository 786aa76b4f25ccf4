// SPDX-License-Identifier: Apache-2.0
#pragma once

// Watches and fails the allocations of `new (std::nothrow)`, by replacing the global operators of the test program that
// allocation.cpp is linked into.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// While it exists, every `new (std::nothrow)` of this thread yields null.
class NothrowNewFails {
public:
    NothrowNewFails();
    ~NothrowNewFails();
    NothrowNewFails(const NothrowNewFails&) = delete;
    NothrowNewFails& operator=(const NothrowNewFails&) = delete;
};

// What `new (std::nothrow)` gave to this thread last, and whether that has been deleted since.
void* LastNothrowNew();
bool IsLastNothrowNewDeleted();

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
