// SPDX-License-Identifier: Apache-2.0
// Writes the seeds of all fuzz targets: fuzz_seeds FOLDER makes FOLDER/<target>/<number>. Each valid message is also
// cut short and has its words replaced by numbers that a hostile peer would try.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <numeric>
#include <string>

#include "abuse/requests.h"
#include "support/record_cases.h"
#include "varn/host/log_sink.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Host::BytesOf;
using Host::MakeFrame;

class Seeds {
public:
    explicit Seeds(std::filesystem::path folder) : folder_(std::move(folder)) {}

    void Add(const std::string& target, const std::string& prefix, const std::string& message)
    {
        Save(target, prefix + message);
        for (size_t at = 0; at + sizeof(int32_t) <= message.size(); at += sizeof(int32_t)) {
            Save(target, prefix + message.substr(0, at));
            for (const int32_t word : {-1, 0, INT32_MAX, INT32_MIN, 51, 100, 10001}) {
                Save(target, prefix + std::string(message).replace(at, sizeof(word), BytesOf(word)));
            }
        }
    }

    void Save(const std::string& target, const std::string& bytes)
    {
        std::filesystem::create_directories(folder_ / target);
        std::ofstream(folder_ / target / std::to_string(numbers_[target]++), std::ios::binary) << bytes;
    }

private:
    const std::filesystem::path folder_;
    std::map<std::string, int> numbers_;
};

void AddRecords(Seeds& seeds)
{
    char choice = 0;
    for (const RecordCase& record : RecordCases()) {
        Parcel parcel;
        record.record->Marshalling(parcel);
        const std::string message = BytesLeftIn(parcel);
        seeds.Add("record", {choice++}, message);
        seeds.Add("parcel", "\5\3\1\3\2\4", message);
    }
}

// The arguments of each request, and the reply of a service that has an answer.
void AddCalls(Seeds& seeds)
{
    FakeAnswer answer;
    answer.appPermissionGroupInfos = {MakeAppPermissionGroupInfo()};
    answer.records = {MakePermissionUsageRecord()};
    answer.gTokenResultWithRet = MakeGTokenResultWithRet();
    const sptr<FakeService> service(new FakeService());
    const size_t tokenSize = MakeRequest().size();
    for (const uint32_t number : CODES) {
        const auto code = static_cast<char>(number);
        seeds.Add("stub", {code, '\1'}, MakeHonestRequest(number).substr(tokenSize));
        service->SetAnswer(number, answer);
        const sptr<IRemoteObject> listener(new ScriptedObject([&](uint32_t, MessageParcel& data, MessageParcel& reply) {
            MessageOption option;
            service->SendRequest(number, data, reply, option);
            seeds.Add("proxy", {code}, BytesLeftIn(reply));
            return 1;
        }));
        CallOperation(*ProxyOver(listener), number);
    }
}

// The frames, one behind the other, in pieces of `size` bytes, each behind its length.
std::string Cut(std::initializer_list<std::string> frames, size_t size)
{
    const std::string all = std::accumulate(frames.begin(), frames.end(), std::string());
    std::string pieces;
    for (size_t at = 0; at < all.size(); at += size) {
        const std::string piece = all.substr(at, size);
        pieces += BytesOf(static_cast<uint16_t>(piece.size())) + piece;
    }
    return pieces;
}

void AddConnections(Seeds& seeds)
{
    constexpr size_t RECEIVED_AT_ONCE = 16384;
    for (const int32_t bytes : {0, 1000, 0xFFFFF}) {
        const std::string frame = MakeFrame(7, Host::MakeBody("text") + BytesOf(bytes));
        const std::string longer = MakeFrame(8, std::string(3000, '\0'));
        const std::string full = MakeFrame(9, std::string(RECEIVED_AT_ONCE - HEADER_SIZE, '\0'));
        for (const char reads : {'\0', '\1'}) {
            for (const size_t size : {size_t{1}, size_t{7}, size_t{300}, 3 * RECEIVED_AT_ONCE}) {
                seeds.Save("connection", reads + Cut({frame, frame, longer, frame}, size));
                seeds.Save("connection", reads + Cut({frame, longer.substr(0, 2000)}, size));
                seeds.Save("connection", reads + Cut({full, full, full}, size));
            }
            for (size_t at = 0; at < frame.size(); ++at) {
                std::string changed = frame;
                changed[at] = static_cast<char>(~changed[at]);
                seeds.Save("connection", reads + Cut({frame, changed}, 64));
            }
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing

int main(int argc, char** argv)
try {
    using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    VARN::Host::SetLogLevel(8);
    std::filesystem::remove_all(argv[1]);
    Seeds seeds(argv[1]);
    AddRecords(seeds);
    AddCalls(seeds);
    AddConnections(seeds);
    return 0;
} catch (const std::exception& exception) {
    std::fprintf(stderr, "%s\n", exception.what());
    return 1;
}
