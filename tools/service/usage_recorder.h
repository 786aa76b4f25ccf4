// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "service/database.h"

namespace SecurityPrivacyTools {

// Appends the usage events of a file or, for "-", of standard input: one JSON object a line. What has arrived is stored
// in batches of one transaction each; an event that is fed in is not held back until more come. Answers how many there
// were.
//
// Throws InputError, which names the line that is wrong and how many are stored, or DatabaseError; nothing of the batch
// is stored then.
int64_t RecordUsage(Database& database, const std::string& path);

// Forgets the usage events that began before `time`, the oldest first and a bounded number, so that nobody waits long.
// Answers how many there were: 0 when none is left. Throws DatabaseError.
int64_t DropUsageBefore(Database& database, int64_t time);

}  // namespace SecurityPrivacyTools
