// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace SecurityPrivacyExample {

// Who may do what, decided by request code and user id alone. It never changes, so any thread may ask.
class AccessPolicy {
public:
    // `changers` are the user ids that may change something; a read-only policy refuses every change all the same.
    AccessPolicy(std::vector<uid_t> changers, bool isReadOnly);

    // Reading requests are for everyone, changing ones for the changers. Codes that are no requests are let through:
    // the library answers that it does not know them, which tells a client more than a refusal.
    bool IsAllowed(uint32_t messageCode, uid_t uid) const;

    // Whether the user may see fingerprints: those who may hand them in, also while nothing can be changed.
    bool MaySeeFingerprints(uid_t uid) const;

private:
    const std::vector<uid_t> changers_;
    const bool isReadOnly_;
};

}  // namespace SecurityPrivacyExample
