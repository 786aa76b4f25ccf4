// SPDX-License-Identifier: Apache-2.0
// This project: the client singleton on one side, a stub behind an ability server on the other.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bench/contenders/library.h"
#include "varn/host/ability_server.h"

namespace bench {
namespace {

// The measurements of many connections open a thousand as one user.
constexpr size_t kConnections = 4096;

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    VARN::Host::AbilityServerOptions options;
    options.directory = directory;
    options.maxConnections = kConnections;
    options.maxConnectionsPerUser = kConnections;
    VARN::Host::AbilityServer server(SECURITY_PRIVACY_SA_ID, MakeLibraryService(workload), options);
    if (!server.Start()) {
        throw std::runtime_error("the server does not start");
    }
    AnnounceReady();
    for (;;) {
        pause();
    }
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    setenv("VARN_ABILITY_DIR", directory.c_str(), 1);
    return std::make_unique<TypedClient<LibraryPeer>>(directory, workload);
}

}  // namespace bench
