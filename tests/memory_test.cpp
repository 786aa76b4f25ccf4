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

// A list: how a message begins with it, its shortest element (both as PutText has them), how many of them one count may
// announce, and who reads it.
struct List {
    std::string name;
    std::string head;
    std::string element;
    int32_t most;
    std::function<void(MessageParcel&)> read;
};

// Lets a proxy read the parcel as its reply.
std::function<void(MessageParcel&)> AsReply(uint32_t code)
{
    return [code](MessageParcel& message) {
        const auto answer = [words = TakeWords(message)](uint32_t, MessageParcel&, MessageParcel& reply) {
            return Put(reply, words) ? 0 : -1;
        };
        const auto proxy = ProxyOver(sptr<IRemoteObject>(new ScriptedObject(answer)));
        const Arguments arguments;
        Outcome outcome{0, {}, false, {}, {}};
        CountBytes();
        CallOperation(*proxy, code, arguments, outcome);
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
std::function<void(MessageParcel&)> AsRecord(const std::string& name)
{
    return [name](MessageParcel& message) {
        CountBytes();
        CaseOf(name).unmarshal(message);
    };
}

const List lists[] = {
    {"groups", "0", "1 '' 0 '' '' 0 0 '' 0L", 10000, AsReply(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP)},
    {"shown states", "0", "1 '' 0 '' '' 50 50*'#' 0 '' 0L", 10000,
     AsReply(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP)},
    {"disabled states", "0", "1 '' 0 '' '' 0 50 50*'#' '' 0L", 10000,
     AsReply(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP)},
    {"usage", "0", "1 '' 0 '' 0 0 0 0 0L 0L", 10000, AsReply(MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY)},
    {"rows", "0L", "1 '' '' 0L 0L", INT32_MAX, AsReply(MessageCode::GTOKEN_POLICY_GET_POLICY)},
    {"names", "'' 0", "'#'", 10000, AsRequest(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION)},
    {"infos", "", "1 '' '' 0L 0", 10000, AsRequest(MessageCode::GTOKEN_POLICY_ADD_POLICY)},
    {"policies", "'' '' 0L", "'' 0L", 10000, AsRecord("GTokenInfo")},
    {"rows of a record", "0L", "'' '' 0L 0L", 10000, AsRecord("GTokenResultWithRet")},
};

TEST(Memory, FollowsTheBytesThatArrivedAndNotTheCount)
{
    const LogCapture quiet(WARN);
    constexpr size_t FIXED = 2048;
    for (const List& list : lists) {
        for (const int count : {0, 1, 1000}) {
            for (const int32_t announced : {count, list.most}) {
                MessageParcel message;
                PutText(message, list.head);
                Put(message, announced);
                for (int number = 0; number < count; ++number) {
                    PutText(message, list.element, static_cast<size_t>(number));
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
    Arguments arguments;
    arguments.bundleNames = {"a bundle whose name needs memory of its own"};
    Outcome outcome;
    FakeAnswer answer;
    answer.appPermissionGroupInfos.assign(3, Sample<Permission::AppPermissionGroupInfo>());
    answer.records.assign(3, Sample<Record::PermissionUsageRecord>());
    answer.gTokenResultWithRet.gTokenResults.assign(2, Sample<GTokenResult>());
    for (const uint32_t code : CODES) {
        service->SetAnswer(code, answer);
    }
    for (const int level : {int{LOG_LEVEL_FATAL}, DEBUG}) {
        Host::SetLogSink([](const Host::LogLine&) {});
        Host::SetLogLevel(level);
        for (const uint32_t code : CODES) {
            SCOPED_TRACE(code);
            const auto call = [&] {
                CallOperation(client, code, arguments, outcome);
                return outcome.result;
            };
            EXPECT_EQ(0, call());
            int zeros = 0;
            size_t before = 0;
            FailEach(
                [&] {
                    before = outcome.groups.size() + outcome.records.size();
                    call();
                },
                [&](size_t number) {
                    EXPECT_TRUE(outcome.result == -1 || outcome.result == 0) << outcome.result << ", " << number;
                    const size_t after = outcome.groups.size() + outcome.records.size();
                    EXPECT_TRUE(outcome.result == 0 || before == after) << "a part of the list";
                    outcome.groups.clear();
                    outcome.records.clear();
                    zeros += outcome.result == 0 ? 1 : 0;
                    EXPECT_EQ(0, call()) << "after allocation " << number;
                });
            // Without a proxy it is 0; a line that cannot be made changes nothing; a bundle that the service has no
            // memory for is left out.
            EXPECT_TRUE(zeros == 1 || level == DEBUG || code == MessageCode::GTOKEN_POLICY_ADD_POLICY) << zeros;
        }
        Host::SetLogLevel(INFO);
        Host::SetLogSink({});
    }
}

INSTANTIATE_TEST_SUITE_P(Roads, MemoryOfACall, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
