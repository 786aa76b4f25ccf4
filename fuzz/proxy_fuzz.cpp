// SPDX-License-Identifier: Apache-2.0
#include "fuzz/input.h"
#include "support/calls.h"

using namespace VARN;
using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing;

// The first byte of the input chooses the operation; the rest is the reply. A record takes a presence word at least, so
// no reply gives more of them than it has words.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    std::string_view input = fuzz::MakeInput(bytes, size);
    const auto code = fuzz::Take<uint8_t>(input);
    const size_t most = input.size() / sizeof(int32_t) + 1;
    const auto answer = [&input](uint32_t, MessageParcel&, MessageParcel& reply) {
        fuzz::TakeParcel(input, reply);
        return 0;
    };
    const Outcome outcome = CallOperation(*ProxyOver(sptr<IRemoteObject>(new ScriptedObject(answer))), code);
    const Outcome before;
    fuzz::Require(outcome.groups.size() <= before.groups.size() + most);
    fuzz::Require(outcome.records.size() <= before.records.size() + most);
    fuzz::Require(outcome.rows.size() <= most);
    return 0;
}
