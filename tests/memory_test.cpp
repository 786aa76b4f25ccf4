// SPDX-License-Identifier: Apache-2.0
// What lists cost in memory, and what becomes of a call when there is none.
#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/host_fixture.h"
#include "support/calls.h"
#include "support/record_cases.h"

namespace {

// Watches and fails the allocations of `new` on this thread, by replacing the global operators. What malloc gives to
// parcels is left alone.
struct Allocations {
    static constexpr size_t NEVER = SIZE_MAX;

    size_t untilFailure = NEVER;  // after so many, one fails, and only that one; then this is NEVER again
    int64_t bytes = 0;            // that are allocated, and not yet deleted, since this was reset
    int64_t mostBytes = 0;        // at a time
};
thread_local Allocations allocations;

}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    // Counted down past 0 it is NEVER.
    if (allocations.untilFailure != Allocations::NEVER && allocations.untilFailure-- == 0) {
        return nullptr;
    }
    void* memory = std::malloc(size);
    allocations.bytes += static_cast<int64_t>(malloc_usable_size(memory));
    allocations.mostBytes = std::max(allocations.mostBytes, allocations.bytes);
    return memory;
}
void* operator new(size_t size)
{
    void* memory = ::operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept
{
    allocations.bytes -= static_cast<int64_t>(malloc_usable_size(memory));
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    ::operator delete(memory);
}

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

// Who reads a message, what is allocated from then on counts: a proxy, a stub, or a record.
template <uint32_t Code>
void ReadReply(const std::vector<int32_t>& words)
{
    const auto answer = [&words](uint32_t, auto&, auto& reply, auto&) {
        PutWords(reply, words);
        allocations = {};
        return 0;
    };
    CallOperation(*ProxyOver(sptr<IRemoteObject>(new ScriptedStub(answer))), Code);
}
template <uint32_t Code>
void ReadRequest(const std::vector<int32_t>& words)
{
    const sptr<FakeService> service(new Forgetful());
    MessageParcel request;
    MessageParcel reply;
    MessageOption option;
    request.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor());
    PutWords(request, words);
    allocations = {};
    service->OnRemoteRequest(Code, request, reply, option);
}
template <class Record>
void ReadRecord(const std::vector<int32_t>& words)
{
    Parcel parcel;
    PutWords(parcel, words);
    allocations = {};
    const sptr<Record> read(Record::Unmarshalling(parcel));
}

// A list: how a message begins with it, its shortest element (both as PutText has them), and how many of them one count
// may announce.
const struct {
    std::string name;
    std::string head;
    std::string element;
    int32_t most;
    void (*read)(const std::vector<int32_t>& words);
} lists[] = {
    {"groups", "0", "1 '' 0 '' '' 0 0 '' 0L", 10000, ReadReply<1>},
    {"shown states", "0", "1 '' 0 '' '' 50 50*'#' 0 '' 0L", 10000, ReadReply<1>},
    {"disabled states", "0", "1 '' 0 '' '' 0 50 50*'#' '' 0L", 10000, ReadReply<1>},
    {"usage", "0", "1 '' 0 '' 0 0 0 0 0L 0L", 10000, ReadReply<4>},
    {"rows", "0L", "1 '' '' 0L 0L", INT32_MAX, ReadReply<12>},
    {"names", "'' 0", "'#'", 10000, ReadRequest<2>},
    {"infos", "", "1 '' '' 0L 0", 10000, ReadRequest<11>},
    {"policies", "'' '' 0L", "'' 0L", 10000, ReadRecord<GTokenInfo>},
    {"rows of a record", "0L", "'' '' 0L 0L", 10000, ReadRecord<GTokenResultWithRet>},
};

TEST(Memory, FollowsTheBytesThatArrivedAndNotTheCount)
{
    const LogCapture quiet(LOG_LEVEL_WARN);
    constexpr size_t FIXED = 2048;
    for (const auto& list : lists) {
        for (const int count : {0, 1, 1000}) {
            for (const int32_t announced : {count, list.most}) {
                Parcel message;
                PutText(message, list.head);
                message.WriteInt32(announced);
                for (int number = 0; number < count; ++number) {
                    PutText(message, list.element, static_cast<size_t>(number));
                }
                const size_t most = FIXED + 8 * message.GetDataSize();
                list.read(TakeWords(message));
                EXPECT_GE(most, static_cast<size_t>(allocations.mostBytes))
                    << list.name << ", " << count << " of " << announced;
            }
        }
    }
}

TEST(Memory, OfAPartOfARecordIsGivenBackAndNothingGoesOnBehindIt)
{
    for (const RecordCase& record : RecordCases()) {
        Parcel whole;
        PutText(whole, record.values);
        for (std::vector<int32_t> words = TakeWords(whole); !words.empty();) {
            Parcel full;
            ASSERT_TRUE(full.SetMaxCapacity(words.size() * sizeof(int32_t) - 1));
            words.pop_back();
            SCOPED_TRACE(record.name + std::to_string(words.size()));
            Parcel parcel;
            PutWords(parcel, words);
            allocations = {};
            EXPECT_EQ(nullptr, record.unmarshal(parcel));
            EXPECT_EQ(0, allocations.bytes) << "it keeps what it has read";

            EXPECT_FALSE(record.record->Marshalling(full));
            const std::vector<int32_t> written = TakeWords(full);
            ASSERT_LE(written.size(), words.size());
            EXPECT_TRUE(std::equal(written.begin(), written.end(), words.begin())) << "it goes on after a failure";
        }
    }
}

TEST(Memory, OfARecordWithMoreThanTenThousandIsKept)
{
    const LogCapture quiet(LOG_LEVEL_FATAL);
    for (const auto& [name, values] :
         {std::pair("GTokenInfo", "'' '' 1L 10001"), {"GTokenResultWithRet", "1L 10001"}}) {
        Parcel parcel;
        PutText(parcel, values);
        allocations = {};
        EXPECT_EQ(nullptr, CaseOf(name).unmarshal(parcel));
        EXPECT_LT(0, allocations.bytes) << name;
    }
}

// Runs `act` with each of its allocations failing in turn; `check` is told which, until none is left to fail.
void FailEach(const std::function<void()>& act, const std::function<void(size_t)>& check)
{
    for (size_t number = 0;; ++number) {
        allocations.untilFailure = number;
        EXPECT_NO_THROW(act()) << number;
        if (std::exchange(allocations.untilFailure, Allocations::NEVER) != Allocations::NEVER) {
            return;
        }
        check(number);
    }
}

TEST(Memory, ThatRunsOutLeavesARecordNullAndNamesTheClass)
{
    for (const RecordCase& record : RecordCases()) {
        SCOPED_TRACE(record.name);
        LogCapture log(LOG_LEVEL_ERROR);
        Parcel whole;
        PutText(whole, record.values);
        const std::vector<int32_t> words = TakeWords(whole);
        sptr<Parcelable> read;
        const std::string failed =
            "6 [ASP] [SPS][" + record.module + "]Unmarshalling: new " + record.name + " failed.\n";
        FailEach(
            [&] {
                Parcel parcel;
                PutWords(parcel, words);
                log.Clear();
                read = record.unmarshal(parcel);
            },
            [&](size_t number) {
                EXPECT_EQ(nullptr, read) << number;
                EXPECT_EQ(record.module.empty() ? "" : failed, log.Lines()) << number;
            });
        EXPECT_EQ(record.toString(*record.record), record.toString(*read));
        // With every line wanted, what fails may be a line's text.
        Host::SetLogLevel(LOG_LEVEL_DEBUG);
        Parcel written;
        FailEach([&] { record.record->Marshalling(written); }, [](size_t) {});
    }
}

TEST(Memory, ThatRunsOutForALogLineIsToldWithTheNext)
{
    const std::string text(100, 'x');
    int logged = 0;
    ::testing::internal::CaptureStderr();
    FailEach([&] { logged += VoLogPrint(0, LOG_LEVEL_ERROR, 0, "TAG", "%s", text.c_str()) >= 0 ? 1 : 0; },
             [](size_t) {});
    std::istringstream lines(::testing::internal::GetCapturedStderr());
    int arrived = 0;
    int lost = 0;
    for (std::string line; std::getline(lines, line);) {
        arrived += line.find(text) != std::string::npos ? 1 : 0;
        const size_t number = line.find("VARN: ");
        lost += number != std::string::npos ? std::stoi(line.substr(number + 6)) : 0;
    }
    EXPECT_LT(0, lost);
    EXPECT_EQ(logged, arrived + lost);
}

TEST(Memory, ThatRunsOutOnTheWayToAServiceFailsTheRequest)
{
    const Host::SocketFolder folder;
    sptr<IRemoteObject> object;
    {
        const Host::RawServer goesAway(folder.SocketPath());
        object = Host::Load(8);
        ASSERT_NE(nullptr, object);
    }
    const LogCapture log;
    int32_t status = 0;
    FailEach([&] { status = Host::Ask(object, 1, "").first; }, [&](size_t number) { EXPECT_NE(0, status) << number; });
    EXPECT_EQ(IPC_DEAD_OBJECT, status);
}

TEST(Memory, ThatRunsOutEndsACallWithMinusOneAndTheNextOneWorks)
{
    Arguments arguments;
    arguments.bundleNames = {"a bundle whose name needs memory of its own"};
    Outcome outcome;
    FakeAnswer answer;
    answer.appPermissionGroupInfos.assign(3, Sample<Permission::AppPermissionGroupInfo>());
    answer.records.assign(3, Sample<Record::PermissionUsageRecord>());
    answer.gTokenResultWithRet.gTokenResults.assign(2, Sample<GTokenResult>());
    for (const auto& [isBehindSocket, level] : {std::pair(false, LOG_LEVEL_FATAL),
                                                {false, LOG_LEVEL_DEBUG},
                                                {true, LOG_LEVEL_FATAL},
                                                {true, LOG_LEVEL_DEBUG}}) {
        const ServedFake served(isBehindSocket);
        const LogCapture restoring(level);
        Host::SetLogSink([](const Host::LogLine&) {});
        for (const uint32_t code : CODES) {
            SCOPED_TRACE(std::to_string(code) + (isBehindSocket ? " over a socket" : " in one process"));
            served.service->SetAnswer(code, answer);
            const auto call = [&] {
                outcome.groups.clear();
                outcome.records.clear();
                outcome = CallOperation(SecurityPrivacyClient::GetInstance(), code, arguments, std::move(outcome));
            };
            const auto expectSuccess = [&](size_t number) {
                call();
                EXPECT_EQ(0, outcome.result) << "after allocation " << number;
            };
            expectSuccess(0);
            int zeros = 0;
            FailEach(call, [&](size_t number) {
                EXPECT_THAT(outcome.result, ::testing::AnyOf(0, -1)) << number;
                EXPECT_TRUE(outcome.result == 0 || outcome.groups.size() + outcome.records.size() == 0) << "a part";
                zeros += outcome.result == 0 ? 1 : 0;
                expectSuccess(number);
            });
            // Without a proxy it is 0; a line that cannot be made changes nothing; a bundle that the service has no
            // memory for is left out.
            EXPECT_TRUE(zeros == 1 || level != LOG_LEVEL_FATAL || code == MessageCode::GTOKEN_POLICY_ADD_POLICY)
                << zeros;
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
