// SPDX-License-Identifier: Apache-2.0
#include "fuzz/input.h"
#include "security_privacy/testing/fake_service.h"
#include "varn/host/log_sink.h"

namespace {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// Answers everything with status 0 and the same bytes.
class Replier : public VARN::IRemoteObject {
public:
    explicit Replier(fuzz::Input reply) : reply_(reply) {}
    int32_t SendRequest(uint32_t, VARN::MessageParcel&, VARN::MessageParcel& reply, VARN::MessageOption&) override
    {
        fuzz::Input bytes = reply_;
        bytes.TakeParcel(reply);
        return 0;
    }

private:
    const fuzz::Input reply_;
};

// A record takes a presence word at least, so no reply gives more of them than it has words.
template <class List>
void Check(const List& list, size_t size)
{
    fuzz::Require(list.size() <= size / sizeof(int32_t) + 1);
}

}  // namespace

// The first byte of the input chooses the operation; the rest is the reply.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static const bool isQuiet = (VARN::Host::SetLogSink([](const VARN::Host::LogLine&) {}), true);
    fuzz::Input input(bytes, size);
    const int choice = isQuiet ? input.TakeByte() % 8 : 0;
    const VARN::sptr<VARN::IRemoteObject> object(new Replier(input));
    const auto broker =
        VARN::BrokerRegistration::Get().NewInstance(SecurityPrivacyServiceIntf::GetDescriptor(), object);
    auto& proxy = dynamic_cast<SecurityPrivacyServiceIntf&>(*broker);
    std::vector<Permission::AppPermissionGroupInfo> infos;
    std::vector<Record::PermissionUsageRecord> records;
    bool returns = false;
    switch (choice) {
        case 0:
            proxy.GetAppPermissionGroupInfosByApp("app", 1, {}, infos);
            break;
        case 1:
            proxy.GetAppPermissionGroupInfosByPermission("group", 1, {}, infos);
            break;
        case 2:
            proxy.SetAppPermissionGroupCheckedState("app", 1, "group", {}, returns);
            break;
        case 3:
            proxy.GetPermissionUsageSummary({}, records);
            break;
        case 4:
            proxy.GetPermissionUsageTimeline({}, records);
            break;
        case 5:
            proxy.GTokenPolicyAddPolicy({});
            break;
        case 6:
            Check(proxy.GTokenPolicyGetPolicy("policy", {}).gTokenResults, input.GetSize());
            break;
        default:
            proxy.GTokenPolicyRemovePolicy({});
            break;
    }
    Check(infos, input.GetSize());
    Check(records, input.GetSize());
    return 0;
}
