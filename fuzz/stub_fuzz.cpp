// SPDX-License-Identifier: Apache-2.0
#include "fuzz/input.h"
#include "security_privacy/testing/fake_service.h"

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// The first byte of the input is the request code, the second says whether the token is the right one; the rest are the
// arguments. Whatever they are, the stub answers with one of its statuses.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    std::string_view input = fuzz::MakeInput(bytes, size);
    const uint32_t code = fuzz::Take<uint8_t>(input) % 16;
    VARN::MessageParcel data;
    if (fuzz::Take<uint8_t>(input) != 0) {
        data.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor());
    }
    fuzz::TakeParcel(input, data);
    const VARN::sptr<Testing::FakeService> service(new Testing::FakeService());
    VARN::MessageParcel reply;
    VARN::MessageOption option;
    const int32_t status = service->SendRequest(code, data, reply, option);
    fuzz::Require(status == 0 || status == 1 || status == 4 || status == 5 || status == 401);
    fuzz::Require(service->Calls().size() == (status == 0 ? 1U : 0U));
    return 0;
}
