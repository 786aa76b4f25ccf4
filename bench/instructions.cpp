// SPDX-License-Identifier: Apache-2.0
// What bench/instructions counts under callgrind: small requests in one process, once the first ones have warmed it up.
//
//   bench-instructions dispatch    client, proxy, stub and records, without a socket
//   bench-instructions socket DIR  the same over a socket in DIR
#include <valgrind/callgrind.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "bench/contenders/library_peer.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"

namespace bench {
namespace {

constexpr int kWarmUpCalls = 20;
constexpr int kCountedCalls = 100;
constexpr size_t kRecords = 8;

void Count(const Workload& workload)
{
    TypedClient<LibraryPeer> client({}, workload);
    for (int call = 0; call < kWarmUpCalls; ++call) {
        client.Call();
    }
    CALLGRIND_ZERO_STATS;
    for (int call = 0; call < kCountedCalls; ++call) {
        client.Call();
    }
    CALLGRIND_DUMP_STATS;
    if (!client.IsAnswerRight()) {
        throw std::runtime_error("the answer is wrong");
    }
    std::cout << kCountedCalls << '\n';
}

void CountDispatch(const Workload& workload)
{
    VARN::Host::AbilityManager::Get()->AddSystemAbility(kAbilityId, MakeLibraryService(workload));
    Count(workload);
}

void CountSocket(const Workload& workload, const std::string& directory)
{
    setenv("VARN_ABILITY_DIR", directory.c_str(), 1);
    VARN::Host::AbilityServerOptions options;
    options.workers = 1;
    VARN::Host::AbilityServer server(kAbilityId, MakeLibraryService(workload), options);
    if (!server.Start()) {
        throw std::runtime_error("the server does not start");
    }
    Count(workload);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    const std::string road = argc > 1 ? argv[1] : "";
    const bench::Workload workload{bench::Case::kSmall, bench::kRecords, 0, 0};
    try {
        if (road == "dispatch" && argc == 2) {
            bench::CountDispatch(workload);
        } else if (road == "socket" && argc == 3) {
            bench::CountSocket(workload, argv[2]);
        } else {
            std::cerr << "bench-instructions dispatch | socket DIR\n";
            return 2;
        }
        return 0;
    } catch (const std::exception& exception) {
        std::cerr << "bench-instructions: " << exception.what() << '\n';
        return 1;
    }
}
