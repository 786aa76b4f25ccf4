// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/host/log_sink.h"

namespace VARN::Host {

// Gives the line to the sink that the program has set; without one the line goes to standard error. Any thread may
// call it, also a sink.
void DeliverToSink(const LogLine& line);

}  // namespace VARN::Host
