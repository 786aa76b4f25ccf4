// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "varn/remote_stub.h"

// What the kit asks of a port besides the seam: how a service gets onto the port's transport. A port brings one source
// with both functions, see examples/port/kit.cpp.
namespace VARN::Porting {

// From now on LoadSystemAbility finds `stub` under `id`, over the transport that is to be tested; where the port has
// processes it may still be in this one.
bool Serve(int32_t id, const sptr<IPCObjectStub>& stub);

// Ends the service as if its process had gone, once the request that it runs is over. The port lets go of the stub.
void StopServing(int32_t id);

}  // namespace VARN::Porting
