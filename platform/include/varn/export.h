// SPDX-License-Identifier: Apache-2.0
#pragma once

// Marks what the platform library exports. The library is built with hidden visibility, so a class or function without
// this mark is private to it, and its name can change without anybody noticing.
#define VARN_API __attribute__((visibility("default")))
