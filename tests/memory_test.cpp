// SPDX-License-Identifier: Apache-2.0
// What lists cost in memory, and what becomes of a call when there is none.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/raw_client.h"
#include "support/allocation.h"
#include "support/calls.h"
#include "support/record_cases.h"
#include "varn/host/ability_manager.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

// Takes what a request brings and drops it.
class Forgetful : public FakeService {
public:
    int32_t GetAppPermissionGroupInfosByPermission(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                                   std::vector<Permission::AppPermissionGroupInfo>&) override
    {
        return 0;
    }
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>&) override { return 0; }
};

// A list: how a message begins with it, the shortest element, how many of them one count may announce, and who reads
// it.
struct List {
    std::string name;
    std::function<void(Parcel&)> putHead;
    std::function<void(Parcel&, int)> putElement;
    int32_t most;
    std::function<void(MessageParcel&)> read;
};

// Lets a proxy read the parcel as its reply.
template <class Operation>
auto AsReply(Operation operation)
{
    return [operation](MessageParcel& message) {
        const std::vector<int32_t> words = TakeWords(message);
        const auto proxy = ProxyOver(Replying(words));
        CountBytes();
        operation(*proxy);
    };
}
std::function<void(MessageParcel&)> AsRequest(uint32_t code)
{
    return [code](MessageParcel& message) {
        const sptr<FakeService> service(new Forgetful());
        MessageParcel request;
        MessageParcel reply;
        MessageOption option;
        PutAll(request, SecurityPrivacyServiceIntf::GetDescriptor(), TakeWords(message));
        CountBytes();
        service->OnRemoteRequest(code, request, reply, option);
    };
}
template <class Record>
void AsRecord(MessageParcel& message)
{
    CountBytes();
    const sptr<Record> record(Record::Unmarshalling(message));
}

// Three letters, different for each number: the shortest texts that are so many.
std::string Name(int number)
{
    return {static_cast<char>('0' + number % 64), static_cast<char>('0' + number / 64 % 64),
            static_cast<char>('0' + number / 4096)};
}

std::vector<List> Lists()
{
    const auto putOk = [](Parcel& parcel) { Put(parcel, 0); };
    const auto readGroups = AsReply([](SecurityPrivacyServiceIntf& proxy) {
        std::vector<Permission::AppPermissionGroupInfo> infos;
        proxy.GetAppPermissionGroupInfosByApp("", 0, {}, infos);
    });
    const auto putStates = [](Parcel& parcel, bool areShown) {
        std::vector<std::string> names;
        for (int number = 0; number < 50; ++number) {
            names.push_back(Name(number));
        }
        PutAll(parcel, 1, "", 0, "", "", areShown ? 50 : 0, areShown ? names : std::vector<std::string>());
        PutAll(parcel, areShown ? 0 : 50, areShown ? std::vector<std::string>() : names, "", int64_t{0});
    };
    return {
        {"groups", putOk, [](Parcel& parcel, int) { Put(parcel, Permission::AppPermissionGroupInfo()); }, 10000,
         readGroups},
        {"shown states", putOk, [=](Parcel& parcel, int) { putStates(parcel, true); }, 10000, readGroups},
        {"disabled states", putOk, [=](Parcel& parcel, int) { putStates(parcel, false); }, 10000, readGroups},
        {"usage", putOk, [](Parcel& parcel, int) { Put(parcel, Record::PermissionUsageRecord()); }, 10000,
         AsReply([](SecurityPrivacyServiceIntf& proxy) {
             std::vector<Record::PermissionUsageRecord> records;
             proxy.GetPermissionUsageSummary({}, records);
         })},
        {"rows", [](Parcel& parcel) { Put(parcel, int64_t{0}); },
         [](Parcel& parcel, int) { Put(parcel, GTokenResult()); }, INT32_MAX,
         AsReply([](SecurityPrivacyServiceIntf& proxy) { proxy.GTokenPolicyGetPolicy("", {}); })},
        {"names", [](Parcel& parcel) { PutAll(parcel, "", 0); },
         [](Parcel& parcel, int number) { Put(parcel, Name(number)); }, 10000,
         AsRequest(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION)},
        {"infos", [](Parcel&) {}, [](Parcel& parcel, int) { Put(parcel, GTokenInfo()); }, 10000,
         AsRequest(MessageCode::GTOKEN_POLICY_ADD_POLICY)},
        {"policies", [](Parcel& parcel) { PutAll(parcel, "", "", int64_t{0}); },
         [](Parcel& parcel, int) { PutAll(parcel, "", int64_t{0}); }, 10000, AsRecord<GTokenInfo>},
        {"rows of a record", [](Parcel& parcel) { Put(parcel, int64_t{0}); },
         [](Parcel& parcel, int) { PutAll(parcel, "", "", int64_t{0}, int64_t{0}); }, 10000,
         AsRecord<GTokenResultWithRet>},
    };
}

TEST(Memory, FollowsTheBytesThatArrivedAndNotTheCount)
{
    const LogCapture quiet(WARN);
    constexpr size_t FIXED = 2048;
    for (const List& list : Lists()) {
        for (const int count : {0, 1, 1000}) {
            for (const int32_t announced : {count, list.most}) {
                MessageParcel message;
                list.putHead(message);
                Put(message, announced);
                for (int number = 0; number < count; ++number) {
                    list.putElement(message, number);
                }
                const size_t bytes = message.GetDataSize();
                list.read(message);
                EXPECT_LE(MostBytes(), FIXED + 8 * bytes) << list.name << ", " << count << " of " << announced;
            }
        }
    }
}

// Runs `act` with each of its allocations failing in turn; `check` is told which, until none is left to fail.
void FailEach(const std::function<void()>& act, const std::function<void(size_t)>& check)
{
    size_t number = 0;
    for (bool hasFailed = true; hasFailed; ++number) {
        FailAllocation(number);
        EXPECT_NO_THROW(act()) << number;
        hasFailed = HasAllocationFailed();
        if (hasFailed) {
            check(number);
        }
    }
}

TEST(Memory, ThatRunsOutLeavesARecordNullAndNamesTheClass)
{
    for (const RecordCase& record : RecordCases()) {
        SCOPED_TRACE(record.name);
        LogCapture log(ERROR);
        Parcel parcel;
        sptr<Parcelable> read;
        const std::string failed = Line(ERROR, "Unmarshalling", "new " + record.name + " failed.", record.module);
        FailEach(
            [&] {
                read = nullptr;
                Put(parcel, record.values);
                read = record.unmarshal(parcel);
            },
            [&](size_t number) {
                EXPECT_EQ(nullptr, read) << number;
                EXPECT_EQ(record.module.empty() ? "" : failed, log.Lines()) << number;
                TakeWords(parcel);
                log.Clear();
            });
        EXPECT_EQ(record.toString(*record.record), record.toString(*read));
        // With every line wanted, what fails may be a line's text.
        Host::SetLogLevel(DEBUG);
        Parcel written;
        FailEach([&] { record.record->Marshalling(written); }, [](size_t) {});
    }
}

TEST(Memory, ThatRunsOutOnTheWayToAServiceFailsTheRequest)
{
    const std::string path = AbilityFolder() + "/4711.sock";
    sptr<IRemoteObject> object;
    {
        const Host::RawServer goesAway(path);
        object = Host::AbilityManager::Get()->LoadSystemAbility(4711, 8);
        ASSERT_NE(nullptr, object);
    }
    const LogCapture log;
    int32_t status = 0;
    FailEach(
        [&] {
            MessageParcel data;
            MessageParcel reply;
            MessageOption option;
            status = object->SendRequest(1, data, reply, option);
        },
        [&](size_t number) { EXPECT_NE(0, status) << number; });
    EXPECT_EQ(IPC_DEAD_OBJECT, status);
}

class MemoryOfACall : public CallTest {};

TEST_P(MemoryOfACall, ThatRunsOutEndsItWithMinusOneAndTheNextOneWorks)
{
    const auto parameter = MakeCheckedStateParameter();
    const auto query = MakePermissionUsageRecordQuery();
    const std::vector<std::string> bundles = {"a bundle whose name needs memory of its own"};
    const std::vector<GTokenInfo> infos = {MakeGTokenInfo()};
    std::vector<Permission::AppPermissionGroupInfo> groups;
    std::vector<Record::PermissionUsageRecord> records;
    bool returns = false;
    constexpr size_t ADD = 5;
    FakeAnswer answer;
    answer.appPermissionGroupInfos.assign(3, MakeAppPermissionGroupInfo());
    answer.records.assign(3, MakePermissionUsageRecord());
    answer.gTokenResultWithRet.gTokenResults.assign(2, MakeGTokenResult());
    for (const uint32_t code : CODES) {
        service->SetAnswer(code, answer);
    }
    const std::function<int64_t()> calls[] = {
        [&] { return client.GetAppPermissionGroupInfosByApp(bundles[0], 1, {}, groups); },
        [&] { return client.GetAppPermissionGroupInfosByPermission(bundles[0], 1, {}, groups); },
        [&] { return client.SetAppPermissionGroupCheckedState(bundles[0], 1, bundles[0], parameter, returns); },
        [&] { return client.GetPermissionUsageSummary(query, records); },
        [&] { return client.GetPermissionUsageTimeline(query, records); },
        [&] { return client.GTokenPolicyAddPolicy(infos); },
        [&] { return client.GTokenPolicyGetPolicy("policy", bundles).ret; },
        [&] { return client.GTokenPolicyRemovePolicy(bundles); },
    };
    for (const int level : {int{LOG_LEVEL_FATAL}, DEBUG}) {
        Host::SetLogSink([](const Host::LogLine&) {});
        Host::SetLogLevel(level);
        for (size_t index = 0; index < std::size(calls); ++index) {
            SCOPED_TRACE(index);
            EXPECT_EQ(0, calls[index]());
            int64_t result = 0;
            int zeros = 0;
            size_t before = 0;
            FailEach(
                [&] {
                    before = groups.size() + records.size();
                    result = calls[index]();
                },
                [&](size_t number) {
                    EXPECT_TRUE(result == -1 || result == 0) << result << ", allocation " << number;
                    EXPECT_TRUE(result == 0 || before == groups.size() + records.size()) << "a part of the list";
                    groups.clear();
                    records.clear();
                    zeros += result == 0 ? 1 : 0;
                    EXPECT_EQ(0, calls[index]()) << "after allocation " << number;
                });
            // Without a proxy it is 0; a line that cannot be made changes nothing; a bundle that the service has no
            // memory for is left out.
            EXPECT_TRUE(zeros == 1 || level == DEBUG || index == ADD) << zeros;
        }
        Host::SetLogLevel(INFO);
        Host::SetLogSink({});
    }
}

INSTANTIATE_TEST_SUITE_P(Roads, MemoryOfACall, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
