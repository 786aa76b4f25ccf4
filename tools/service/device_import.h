// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "common/json_input.h"
#include "service/database.h"

namespace SecurityPrivacyTools {

// What an import did.
struct ImportCounts {
    int64_t apps = 0;
    int64_t usageEvents = 0;
    int64_t droppedChoices = 0;  // of states that are not offered any more
};

// Makes the database say what a device file says, in one transaction. Users, groups and apps that the file does not
// name are gone with their usage and choices. Of the others the choices stay, if the state is still offered, and the
// usage; events that are there already are not added again. Policies are added as a request adds them.
//
// With `now`, in milliseconds since the epoch, the file's usage is moved to end then; 0 takes it as it is. Throws
// InputError, which says where the file is wrong, or DatabaseError; nothing is changed then.
ImportCounts ImportDevice(Database& database, const std::string& path, int64_t now);

// Whether the database knows no user yet. Throws DatabaseError.
bool IsEmpty(Database& database);

// Appends one usage event, moved by `shift` ms; one of the same content whose id is `knownUpTo` or less is left as it
// is. Answers how many were appended, 0 or 1. Throws InputError where the event is wrong, or DatabaseError.
int64_t AddUsageEvent(Connection& connection, const JsonNode& event, int64_t shift = 0, int64_t knownUpTo = 0);

}  // namespace SecurityPrivacyTools
