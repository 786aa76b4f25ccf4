// SPDX-License-Identifier: Apache-2.0
// What the porting kit (examples/porting_kit) asks of a port besides the seam.
#include "porting_kit/port.h"
#include "smallest_port.h"

namespace VARN::Porting {

bool Serve(int32_t id, const sptr<IPCObjectStub>& stub)
{
    return AddService(id, stub);
}

void StopServing(int32_t id)
{
    RemoveService(id);
}

}  // namespace VARN::Porting
