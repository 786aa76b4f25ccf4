// SPDX-License-Identifier: Apache-2.0
// The Linux host under the kit: each service on a socket of a folder of its own.
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "porting_kit/port.h"
#include "varn/host/ability_server.h"

namespace VARN::Porting {
namespace {

// Set before main, since the host reads the variable once.
struct Folder {
    Folder() { ::setenv("VARN_ABILITY_DIR", ::mkdtemp(path.data()), 1); }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path = std::filesystem::temp_directory_path() / "porting-XXXXXX";
} const folder;
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
