// SPDX-License-Identifier: Apache-2.0
// The Linux host under the kit: each service on a socket of a folder of its own.
#include <map>
#include <memory>

#include "platform/raw_client.h"
#include "porting_kit/port.h"
#include "varn/host/ability_server.h"

namespace VARN::Porting {
namespace {

const Host::SocketFolder folder;  // made before main, since the host reads the variable once
std::map<int32_t, std::unique_ptr<Host::AbilityServer>> servers;

}  // namespace

bool Serve(int32_t id, const sptr<IPCObjectStub>& stub)
{
    servers[id] = std::make_unique<Host::AbilityServer>(id, stub);
    return servers[id]->Start();
}

void StopServing(int32_t id)
{
    servers.erase(id);
}

}  // namespace VARN::Porting
