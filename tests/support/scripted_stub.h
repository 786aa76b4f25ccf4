// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <utility>

#include "varn/remote_stub.h"

namespace VARN {

// A remote object that plays a script.
class ScriptedStub : public IPCObjectStub {
public:
    using Script =
        std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)>;
    explicit ScriptedStub(Script script, bool serial = false)
        : IPCObjectStub(u"test", serial), script_(std::move(script))
    {
    }
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        return script_(code, data, reply, option);
    }

private:
    const Script script_;
};

}  // namespace VARN
