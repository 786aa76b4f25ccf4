// SPDX-License-Identifier: Apache-2.0
// Writes the seeds of all fuzz targets: seeds FOLDER makes FOLDER/<target>/<number>. Each valid message is also cut
// short and has its words replaced by numbers that a hostile peer would try.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/raw_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/records.h"
#include "varn/host/log_sink.h"

namespace {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing;
using VARN::Parcel;

std::string BytesOf(Parcel& parcel)
{
    std::string bytes;
    for (int32_t word = 0; parcel.ReadInt32(word);) {
        bytes += VARN::Host::BytesOf(word);
    }
    return bytes;
}

std::string Write(const std::function<void(Parcel&)>& write)
{
    Parcel parcel;
    write(parcel);
    return BytesOf(parcel);
}

class Seeds {
public:
    explicit Seeds(std::filesystem::path folder) : folder_(std::move(folder)) {}

    void Add(const std::string& target, const std::string& prefix, const std::string& message)
    {
        Save(target, prefix + message);
        for (size_t cut = 0; cut < message.size(); cut += 12) {
            Save(target, prefix + message.substr(0, cut));
        }
        for (const int32_t word : {-1, 0, 0x7FFFFFFF, -0x7FFFFFFF - 1, 51, 100, 10001}) {
            for (size_t at = 0; at + 4 <= message.size(); at += 4) {
                std::string changed = message;
                changed.replace(at, 4, VARN::Host::BytesOf(word));
                Save(target, prefix + changed);
            }
        }
    }

    void Save(const std::string& target, const std::string& bytes)
    {
        const std::filesystem::path folder = folder_ / target;
        std::filesystem::create_directories(folder);
        std::ofstream(folder / std::to_string(numbers_[target]++), std::ios::binary) << bytes;
    }

private:
    const std::filesystem::path folder_;
    std::map<std::string, int> numbers_;
};

template <class Record>
std::string Message(const Record& record)
{
    return Write([&record](Parcel& parcel) { record.Marshalling(parcel); });
}

void AddRecords(Seeds& seeds)
{
    const std::vector<std::string> messages = {
        Message(MakeAppPermissionGroupInfo()), Message(MakeCheckedStateParameter()),
        Message(MakePermissionUsageRecord()),  Message(MakePermissionUsageRecordQuery()),
        Message(MakeGTokenPolicy()),           Message(MakeGTokenInfo()),
        Message(MakeGTokenResult()),           Message(MakeGTokenResultWithRet()),
    };
    for (size_t index = 0; index < messages.size(); ++index) {
        seeds.Add("record", std::string(1, static_cast<char>(index)), messages[index]);
        seeds.Add("parcel", std::string("\x05\x03\x01\x03\x03\x04", 6), messages[index]);
    }
}

// Keeps the arguments of each request, and sends the answer of a service that has one.
class Recorder : public VARN::IRemoteObject {
public:
    explicit Recorder(Seeds& seeds) : seeds_(seeds) {}
    int32_t SendRequest(uint32_t code, VARN::MessageParcel& data, VARN::MessageParcel& reply,
                        VARN::MessageOption& option) override
    {
        data.ReadInterfaceToken();
        const std::string arguments = BytesOf(data);
        seeds_.Add("stub", std::string(1, static_cast<char>(code)) + '\x01', arguments);
        seeds_.Save("stub", std::string(1, static_cast<char>(code)) + '\0' + arguments);
        FakeAnswer answer;
        answer.appPermissionGroupInfos = {MakeAppPermissionGroupInfo()};
        answer.records = {MakePermissionUsageRecord()};
        answer.gTokenResultWithRet = MakeGTokenResultWithRet();
        VARN::MessageParcel request;
        request.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor());
        for (size_t at = 0; at < arguments.size(); at += 4) {
            int32_t word = 0;
            std::memcpy(&word, arguments.data() + at, sizeof(word));
            request.WriteInt32(word);
        }
        const VARN::sptr<FakeService> service(new FakeService());
        service->SetAnswer(code, answer);
        service->SendRequest(code, request, reply, option);
        const uint32_t operation = code < 6 ? code - 1 : code - 6;
        seeds_.Add("proxy", std::string(1, static_cast<char>(operation)), BytesOf(reply));
        return 0;
    }

private:
    Seeds& seeds_;
};

void AddExchanges(Seeds& seeds)
{
    const VARN::sptr<VARN::IRemoteObject> recorder(new Recorder(seeds));
    const auto broker =
        VARN::BrokerRegistration::Get().NewInstance(SecurityPrivacyServiceIntf::GetDescriptor(), recorder);
    auto& proxy = dynamic_cast<SecurityPrivacyServiceIntf&>(*broker);
    std::vector<Permission::AppPermissionGroupInfo> infos;
    std::vector<Record::PermissionUsageRecord> records;
    bool returns = false;
    proxy.GetAppPermissionGroupInfosByApp("app", -100, {"a", "b"}, infos);
    proxy.GetAppPermissionGroupInfosByPermission("group", 101, {"app"}, infos);
    proxy.SetAppPermissionGroupCheckedState("app", 20, "group", MakeCheckedStateParameter(), returns);
    proxy.GetPermissionUsageSummary(MakePermissionUsageRecordQuery(), records);
    proxy.GetPermissionUsageTimeline(MakePermissionUsageRecordQuery(), records);
    proxy.GTokenPolicyAddPolicy({MakeGTokenInfo(), MakeGTokenInfo()});
    proxy.GTokenPolicyGetPolicy("policy", {"app", "other"});
    proxy.GTokenPolicyRemovePolicy({"app", "other"});
}

// Pieces of `size` bytes, each behind its length.
std::string Cut(const std::string& bytes, size_t size)
{
    std::string pieces;
    for (size_t at = 0; at < bytes.size(); at += size) {
        const std::string piece = bytes.substr(at, size);
        pieces += static_cast<char>(piece.size()) + piece;
    }
    return pieces;
}

void AddConnections(Seeds& seeds)
{
    const std::string body = VARN::Host::MakeBody("text");
    for (const int32_t words : {0, 1000, 0x3FFFF}) {
        const std::string frame = VARN::Host::MakeFrame(7, body + VARN::Host::BytesOf(words));
        const std::string longer = VARN::Host::MakeFrame(7, VARN::Host::MakeBody(std::string(3000, 'x')));
        for (const size_t size : {size_t{1}, size_t{7}, size_t{255}}) {
            for (const char reads : {'\0', '\1'}) {
                seeds.Save("connection", reads + Cut(frame + frame + longer + frame, size));
                seeds.Save("connection", reads + Cut(frame + longer.substr(0, 2000), size));
            }
        }
        for (size_t at = 0; at < frame.size(); at += 2) {
            std::string changed = frame;
            changed[at] = static_cast<char>(~changed[at]);
            seeds.Save("connection", '\0' + Cut(changed, 64));
        }
    }
}

}  // namespace

int main(int argc, char** argv)
try {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    // The exchanges that are recorded are not worth a line.
    VARN::Host::SetLogLevel(7);
    std::filesystem::remove_all(argv[1]);
    Seeds seeds(argv[1]);
    AddRecords(seeds);
    AddExchanges(seeds);
    AddConnections(seeds);
    return 0;
} catch (const std::exception& exception) {
    std::fprintf(stderr, "%s\n", exception.what());
    return 1;
}
