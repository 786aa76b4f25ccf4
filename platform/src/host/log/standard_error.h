// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string_view>

namespace VARN::Host {

// Writes to standard error as much of `text` as it takes at once, and returns how much that was. It never waits for a
// reader and never raises a signal: a pipe, socket or terminal that is full, closed or has no reader takes nothing.
// Only a file on a disk is waited for, and a terminal that is nearly full where this user may not open it. A terminal
// may take any part; elsewhere up to 4096 bytes go whole or not at all.
size_t WriteToStandardError(std::string_view text) noexcept;

// Whether what is written there goes to the journal, as the environment says (JOURNAL_STREAM). Looked at once.
bool IsJournal();

}  // namespace VARN::Host
