// SPDX-License-Identifier: Apache-2.0
// How long our messages are: `bench-sizes CASE RECORDS` prints the bytes of the request and of the reply as they
// travel, headers and all. The floor sends as many.
#include <exception>
#include <iostream>
#include <string>

#include "bench/contenders/library.h"
#include "varn/host/ability_manager.h"

namespace bench {
namespace {

using VARN::MessageOption;
using VARN::MessageParcel;

// What the host puts in front of a parcel, see docs/wire-protocol.md.
constexpr size_t kHeaderBytes = 20;

// Stands between proxy and stub and prints the sizes of the parcels.
class Meter final : public VARN::IRemoteObject {
public:
    explicit Meter(const Workload& workload) : service_(MakeLibraryService(workload)) {}

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        const int32_t status = service_->SendRequest(code, data, reply, option);
        std::cout << kHeaderBytes + data.GetDataSize() << ' ' << kHeaderBytes + reply.GetDataSize() << '\n';
        return status;
    }

private:
    const VARN::sptr<VARN::IPCObjectStub> service_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "bench-sizes CASE RECORDS\n";
        return 2;
    }
    try {
        const bench::Workload workload{bench::CaseNamed(argv[1]), std::stoul(argv[2]), 0, 0};
        VARN::Host::AbilityManager::Get()->AddSystemAbility(bench::SECURITY_PRIVACY_SA_ID, new bench::Meter(workload));
        bench::TypedClient<bench::LibraryPeer>(std::string(), workload).Call();
        return 0;
    } catch (const std::exception& exception) {
        std::cerr << "bench-sizes: " << exception.what() << '\n';
        return 1;
    }
}
