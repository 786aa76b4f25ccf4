// SPDX-License-Identifier: Apache-2.0
// Breaks the port in the way that PORTING_FAULT names, so that the kit can be seen to fail.
#include <cstdlib>
#include <string>

#include "varn/remote_object.h"
#include "varn/system_ability_manager.h"

namespace VARN::Porting {
namespace {

const std::string fault = std::getenv("PORTING_FAULT");

class BrokenObject final : public IRemoteObject {
public:
    explicit BrokenObject(const sptr<IRemoteObject>& object) : object_(object) {}
    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        MessageOption ownOption;
        const bool isPatient = fault == "ignores the wait time";
        const int32_t status = object_->SendRequest(code, data, reply, isPatient ? ownOption : option);
        return fault == "loses statuses" ? 0 : status;
    }

private:
    const sptr<IRemoteObject> object_;
};

class BrokenManager final : public ISystemAbilityManager {
public:
    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds) override
    {
        const bool isHasty = fault == "does not wait";
        const auto object = manager_->LoadSystemAbility(systemAbilityId, isHasty ? 0 : timeoutSeconds);
        return sptr<IRemoteObject>(object == nullptr || fault == "finds nothing" ? nullptr : new BrokenObject(object));
    }

private:
    const sptr<ISystemAbilityManager> manager_ = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
};

const bool isBroken = [] {
    SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(sptr<BrokenManager>(new BrokenManager()));
    return true;
}();

}  // namespace
}  // namespace VARN::Porting
