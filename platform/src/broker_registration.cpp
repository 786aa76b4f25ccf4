// SPDX-License-Identifier: Apache-2.0
#include "varn/remote_broker.h"

#include <algorithm>
#include <mutex>

#include "varn/fork_handler.h"

namespace VARN {

namespace {

// Guards the entries of the only registry. A namespace's own, so that it can be held across a fork.
std::mutex registryMutex;

const ForkHandler registryForkHandler(ForkHandler::Rank::REGISTRY,
                                      {[] { registryMutex.lock(); }, [] { registryMutex.unlock(); },
                                       [] { registryMutex.unlock(); }});

template <class Entries>
auto Find(Entries& entries, const std::u16string& descriptor)
{
    return std::find_if(entries.begin(), entries.end(), [&descriptor](const auto& entry) {
        // Unlike the strings' own comparison, this one is a single memcmp.
        return std::equal(entry.descriptor.begin(), entry.descriptor.end(), descriptor.begin(), descriptor.end());
    });
}

}  // namespace

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
    const std::lock_guard<std::mutex> lock(registryMutex);
    for (const Entry& entry : entries_) {
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
    const std::lock_guard<std::mutex> lock(registryMutex);
    if (Find(entries_, descriptor) != entries_.end()) {
        return false;
    }
    entries_.push_back({descriptor, creator, delegator});
    return true;
}

void BrokerRegistration::Unregister(const std::u16string& descriptor)
{
    const std::lock_guard<std::mutex> lock(registryMutex);
    const auto entry = Find(entries_, descriptor);
    if (entry != entries_.end()) {
        entries_.erase(entry);
    }
}

sptr<IRemoteBroker> BrokerRegistration::NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object)
{
    const std::lock_guard<std::mutex> lock(registryMutex);
    const auto entry = Find(entries_, descriptor);
    return entry == entries_.end() ? sptr<IRemoteBroker>() : entry->creator(object);
}

}  // namespace VARN
