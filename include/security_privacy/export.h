// SPDX-License-Identifier: Apache-2.0
#pragma once

// Marks the public classes. Everything else in the library is hidden.
#define SECURITY_PRIVACY_API __attribute__((visibility("default")))
