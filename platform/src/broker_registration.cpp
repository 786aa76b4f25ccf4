// SPDX-License-Identifier: Apache-2.0
#include "varn/remote_broker.h"

namespace VARN {

IRemoteBroker::~IRemoteBroker() = default;

BrokerDelegatorBase::~BrokerDelegatorBase() = default;

BrokerRegistration& BrokerRegistration::Get()
{
    static BrokerRegistration registration;
    return registration;
}

BrokerRegistration::~BrokerRegistration()
{
    // A library that outlives the registry must not call it from its own static destruction.
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [descriptor, entry] : entries_) {
        if (entry.delegator != nullptr) {
            entry.delegator->SetUnloaded();
        }
    }
}

bool BrokerRegistration::Register(const std::u16string& descriptor, const Creator& creator,
                                  BrokerDelegatorBase* delegator)
{
    if (descriptor.empty() || !creator) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_.try_emplace(descriptor, Entry{creator, delegator}).second;
}

void BrokerRegistration::Unregister(const std::u16string& descriptor)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.erase(descriptor);
}

sptr<IRemoteBroker> BrokerRegistration::NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object)
{
    if (!object) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = entries_.find(descriptor);
    return entry == entries_.end() ? sptr<IRemoteBroker>() : entry->second.creator(object);
}

}  // namespace VARN
