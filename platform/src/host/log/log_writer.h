// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/host/log_sink.h"

namespace VARN::Host {

// Hands a line that has passed the level to the sink, or writes it. Called by several threads at once.
void DeliverToSink(const LogLine& line);

// Writes a line to standard error, in one piece and without waiting: what is not taken at once is lost, and the next
// line says how many were. A line that one user's requests cause counts against that user's limit. Called by several
// threads at once.
void WriteLogLine(const LogLine& line) noexcept;

}  // namespace VARN::Host
