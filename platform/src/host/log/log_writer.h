// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/host/log_sink.h"

namespace VARN::Host {

// Hands a line that has passed the level to the sink, or writes it. Called by several threads at once.
void DeliverToSink(const LogLine& line);

// Writes a line to standard error, in one piece. Called by several threads at once.
void WriteLogLine(const LogLine& line) noexcept;

// The lock of the log's sink, to be held across a fork, so that the child can log.
void LockLog();
void UnlockLog();

// To be called in the child, with the lock held: the sink calls of the parent's other threads will never end here.
void ForgetOtherThreads();

}  // namespace VARN::Host
