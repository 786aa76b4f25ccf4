// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace bench {

// The five requests that are measured, and `none`: a request with empty fields and nothing to bring back.
enum class Case { kSmall, kBulk, kLeast, kUsage, kToken, kNone };

// Throws for a name that is none.
Case CaseNamed(const std::string& name);

// One case as the command line gives it.
struct Workload {
    Case kind = Case::kNone;
    size_t records = 0;       // how many records come back
    size_t requestBytes = 0;  // for the contender without a codec: the length of its messages
    size_t replyBytes = 0;
};

}  // namespace bench
