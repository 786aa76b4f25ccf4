// SPDX-License-Identifier: Apache-2.0
// Makes the seeds of the target that FUZZ_TARGET names: valid messages, the same cut short, and with words that a
// hostile peer would try. fuzz_replay runs them through the target, as an ordinary test. With a folder behind it, it
// leaves them there instead, for a fuzzer to begin with.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "parcel_buffer.h"
#include "support/calls.h"
#include "support/record_cases.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Host::BytesOf;
using Host::HEADER_SIZE;
using Host::MakeFrame;

using Seeds = std::map<std::string, std::vector<std::string>>;  // by target

void Add(std::vector<std::string>& seeds, const std::string& prefix, const std::string& message)
{
    seeds.push_back(prefix + message);
    for (size_t at = 0; at + sizeof(int32_t) <= message.size(); at += sizeof(int32_t)) {
        seeds.push_back(prefix + message.substr(0, at));
        for (const int32_t word : {-1, 0, INT32_MAX, INT32_MIN, 51, 100, 10001}) {
            seeds.push_back(prefix + std::string(message).replace(at, sizeof(word), BytesOf(word)));
        }
    }
}

// The arguments of each request, and the reply of a service that has an answer.
void AddCalls(Seeds& seeds)
{
    FakeAnswer answer;
    answer.appPermissionGroupInfos = {Sample<Permission::AppPermissionGroupInfo>()};
    answer.records = {Sample<Record::PermissionUsageRecord>()};
    answer.gTokenResultWithRet = Sample<GTokenResultWithRet>();
    const sptr<FakeService> service(new FakeService());
    const size_t tokenSize = MakeRequest("").size();
    for (const uint32_t number : CODES) {
        const auto code = static_cast<char>(number);
        service->SetAnswer(number, answer);
        const sptr<IRemoteObject> listener(new ScriptedStub([&](uint32_t, auto& data, auto& reply, auto& option) {
            const std::string sent(reinterpret_cast<const char*>(ParcelBuffer::Data(data)), data.GetDataSize());
            Add(seeds["stub"], {code, '\1'}, sent.substr(tokenSize));
            service->SendRequest(number, data, reply, option);
            Add(seeds["proxy"], {code}, BytesLeftIn(reply));
            return 1;
        }));
        CallOperation(*ProxyOver(listener), number);
    }
}

// Requests whose replies have so many bytes, to a service that has a peer that reads and one that does not.
void AddConnections(std::vector<std::string>& seeds, int32_t replyBytes)
{
    constexpr size_t RECEIVED_AT_ONCE = 16384;
    const std::string frame = MakeFrame(7, Host::MakeBody("text") + BytesOf(replyBytes));
    const std::string longer = MakeFrame(8, std::string(3000, '\0'));
    const std::string full = MakeFrame(9, std::string(RECEIVED_AT_ONCE - HEADER_SIZE, '\0'));
    const std::string streams[] = {frame + longer + frame, frame + longer.substr(0, 2000), full + full + full};
    for (const char reads : {'\0', '\1'}) {
        for (const size_t size : {size_t{1}, size_t{7}, size_t{300}, 3 * RECEIVED_AT_ONCE}) {
            const std::string head =
                reads + BytesOf(static_cast<uint16_t>(size)) + BytesOf(static_cast<uint16_t>(size - 1));
            Add(seeds, head + frame, frame);
            for (const std::string& stream : streams) {
                seeds.push_back(head + stream);
            }
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing

int main(int argc, char** argv)
{
    using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing;
    Seeds all;
    for (const RecordCase& record : RecordCases()) {
        VARN::Parcel parcel;
        record.record->Marshalling(parcel);
        Add(all["parcel"], "\5\3\1\3\2\4", BytesLeftIn(parcel));
    }
    AddCalls(all);
    for (const int32_t replyBytes : {0, 1000, 0xFFFFF}) {
        AddConnections(all["connection"], replyBytes);
    }
    const std::vector<std::string>& seeds = all[std::getenv("FUZZ_TARGET")];
    const std::filesystem::path folder = argc > 1 ? argv[1] : "";
    for (size_t number = 0; number < seeds.size(); ++number) {
        if (folder.empty()) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(seeds[number].data()), seeds[number].size());
        } else {
            std::filesystem::create_directories(folder);
            std::ofstream(folder / std::to_string(number), std::ios::binary) << seeds[number];
        }
    }
    std::printf("%zu seeds\n", seeds.size());
    return seeds.empty() ? 1 : 0;
}
