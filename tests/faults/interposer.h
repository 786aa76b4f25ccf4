// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// Stands between the program and the C library: one call of a kind, the n-th from now on, fails.
namespace VARN::Testing {

constexpr int COMES_SHORT = -1;  // not a failure: one byte at the most is received or sent

struct Fault {
    const char* call;  // a function of the C library, or "new" for the form that does not throw
    int error;         // an errno or COMES_SHORT
    int fatalTimes;    // from the next time on nothing is lost by it, so nothing may fail
};

void Arm(const Fault& fault, int number);
// No fault from now on. Whether the one before has struck.
bool Disarm();

}  // namespace VARN::Testing
