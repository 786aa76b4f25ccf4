// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/remote_stub.h"

namespace VARN {

// Has `stub` answer for service `id`. False when the number is taken.
VARN_API bool AddService(int32_t id, const sptr<IPCObjectStub>& stub);

// Ends the service: waits for the request that is running, and fails all later ones; one that waits already may run
// before. So no operation may call it.
VARN_API void RemoveService(int32_t id);

}  // namespace VARN
