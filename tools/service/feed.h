// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "service/database.h"

namespace SecurityPrivacyTools {

// What goes into the database from files, and how old usage leaves it. Each throws InputError, which says where the
// file is wrong, or DatabaseError.

// What an import did.
struct ImportCounts {
    int64_t apps = 0;
    int64_t usageEvents = 0;
    int64_t droppedChoices = 0;  // of states that are not offered any more
};

// Makes the database say what a device file says, in one transaction: after an error nothing is changed. Users, groups
// and apps that the file does not name are gone with their usage and choices. Of the others the choices stay, if the
// state is still offered, and the usage; events that are there already are not added again. Policies are added as a
// request adds them.
//
// With `now`, in milliseconds since the epoch, the file's usage is moved to end then; 0 takes it as it is.
ImportCounts ImportDevice(Database& database, const std::string& path, int64_t now);

// Appends the usage events of a file or, for "-", of standard input: one JSON object a line. What has arrived is stored
// in batches of one transaction each; an event that is fed in is not held back until more come. Answers how many there
// were. An InputError names the line that is wrong and how many are stored; of its batch nothing is.
int64_t RecordUsage(Database& database, const std::string& path);

// Forgets the usage events that began before `time`, the oldest first and a bounded number, so that no other writer
// waits long. Answers how many there were: 0 when none is left.
int64_t DropUsageBefore(Database& database, int64_t time);

}  // namespace SecurityPrivacyTools
