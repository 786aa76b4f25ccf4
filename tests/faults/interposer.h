// SPDX-License-Identifier: Apache-2.0
#pragma once

// Stands between the program and the C library: one call of a kind, the n-th from now on, fails.
namespace VARN::Host {

constexpr int COMES_SHORT = -1;  // not a failure: one byte at the most is received or sent

// `call` is a function of the C library, or "new" for the form that does not throw; `error` an errno or COMES_SHORT.
void Arm(const char* call, int error, int number);
// No fault from now on. Whether the one before has struck.
bool Disarm();

}  // namespace VARN::Host
