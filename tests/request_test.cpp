// SPDX-License-Identifier: Apache-2.0
// What holds for every request: layouts, log sequences, refusals, and services that cannot be reached.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/calls.h"
#include "support/record_cases.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

bool IsUsage(uint32_t code)
{
    return code == 4 || code == 5;
}

// The lines of a client that now has `count` usage records in its list.
std::string RecordLines(const Operation& operation, int count)
{
    const std::string line = Line(DEBUG, operation.method, MakePermissionUsageRecord().ToString());
    return !IsUsage(operation.code) ? "" : count == 1 ? line : line + line;
}

// From the proxy's first line to the handler's, with those of the record that it writes into the request.
std::string ProxyLines(const Operation& operation)
{
    const bool writesRecord = operation.code == 3 || operation.code == 11;
    return operation.Says(operation.startLevel, operation.startedByProxy) +
           (writesRecord ? CaseOf(operation.code == 3 ? "CheckedStateParameter" : "GTokenInfo").WriteLines() : "");
}

// From the client's first line to the handler's.
std::string LinesUntilSent(const Operation& operation)
{
    return operation.Says(INFO, operation.calledByClient) +
           Line(DEBUG, "WithSystemAbilityProxy", "LoadSystemAbility succeed") + ProxyLines(operation);
}

// From the failed sending to the client's last line.
std::string LinesAfterFailure(const Operation& operation, int status)
{
    const std::string message =
        "ipcResultCode: " + std::to_string(status) + ", send request failed for " + operation.codeName;
    return Line(ERROR, "SendRequest", message) + operation.Says(ERROR, operation.sendFailed) +
           RecordLines(operation, 1);
}

// Sends each request; all must have that result, leave their lists alone, and leave these lines.
template <class Target>
void ExpectFailures(Target& target, int64_t result, const std::function<std::string(const Operation&)>& lines)
{
    for (const Operation& operation : Operations()) {
        const LogCapture log;
        const Outcome outcome = CallOperation(target, operation.code);
        EXPECT_EQ(result, outcome.result) << operation.code;
        EXPECT_EQ(lines(operation), log.Lines());
        EXPECT_EQ(Texts(Outcome().groups), Texts(outcome.groups));
        EXPECT_EQ(Texts(Outcome().records), Texts(outcome.records));
        EXPECT_TRUE(outcome.returns && outcome.rows.empty());
    }
}

// One record in each answer.
FakeAnswer MakeAnswer(int32_t result = 0)
{
    FakeAnswer answer;
    answer.result = result;
    answer.returns = result != 0;
    answer.appPermissionGroupInfos = {MakeAppPermissionGroupInfo()};
    answer.records = {MakePermissionUsageRecord()};
    answer.gTokenResultWithRet.ret = 5;
    answer.gTokenResultWithRet.gTokenResults = {MakeGTokenResult()};
    return answer;
}

struct Call {
    uint32_t code;
    std::function<void(Parcel&)> putRequest;
    std::function<void(Parcel&)> putReply;
    std::string handled;   // by the stub, between dispatch and done
    std::string finished;  // by the proxy, after that
};

void PutRecord(Parcel& parcel, const std::string& name)
{
    Put(parcel, 1);
    for (const FieldStep& step : CaseOf(name).steps) {
        Put(parcel, step.value);
    }
}

// What `CallOperation` and `MakeAnswer` look like on the wire and in the log.
std::vector<Call> Calls()
{
    const RecordCase& info = CaseOf("AppPermissionGroupInfo");
    const RecordCase& row = CaseOf("GTokenResult");
    const auto putQuery = [](Parcel& parcel) { PutRecord(parcel, "PermissionUsageRecordQuery"); };
    const auto putInfos = [](Parcel& parcel) { PutAll(parcel, 0, 1), PutRecord(parcel, "AppPermissionGroupInfo"); };
    const auto putRecords = [](Parcel& parcel) { PutAll(parcel, 0, 1), PutRecord(parcel, "PermissionUsageRecord"); };
    const auto putResult = [](Parcel& parcel) { Put(parcel, 0); };
    return {
        {1, [](Parcel& parcel) { PutAll(parcel, "app", -100, 1, "it's"); }, putInfos, info.WriteLines(),
         info.ReadLines() +
             Line(DEBUG, "GetAppPermissionGroupInfosByApp", "ByApp finish, result=0, appPermissionGroupInfos=2")},
        {2, [](Parcel& parcel) { PutAll(parcel, "group", 101, 1, "app"); }, putInfos, info.WriteLines(),
         info.ReadLines() + Line(DEBUG, "GetAppPermissionGroupInfosByPermission",
                                 "ByPermission finish, result=0, size of appPermissionGroupInfos is 2")},
        {3, [](Parcel& parcel) { PutAll(parcel, "app", 20, "group"), PutRecord(parcel, "CheckedStateParameter"); },
         [](Parcel& parcel) { PutAll(parcel, 0, false); }, CaseOf("CheckedStateParameter").ReadLines(),
         Line(DEBUG, "SetAppPermissionGroupCheckedState", "Set finish, result=0, returns=false")},
        {4, putQuery, putRecords, Line(INFO, "HandleGetPermissionUsageSummary", "result: 0, size: 1"), ""},
        {5, putQuery, putRecords, Line(INFO, "HandleGetPermissionUsageTimeline", "result: 0, size: 1"), ""},
        {11, [](Parcel& parcel) { Put(parcel, 1), PutRecord(parcel, "GTokenInfo"); }, putResult,
         Line(INFO, "HandleGTokenPolicyAddPolicy", "gTokenInfosSize, value=1") + CaseOf("GTokenInfo").ReadLines(),
         Line(DEBUG, "GTokenPolicyAddPolicy", "reply=0")},
        {12, [](Parcel& parcel) { PutAll(parcel, "policy", 2, "app", "other"); },
         [](Parcel& parcel) { PutAll(parcel, int64_t{5}, 1), PutRecord(parcel, "GTokenResult"); },
         Line(ERROR, "HandleGTokenPolicyGetPolicy", "HandleGTokenPolicyGetPolicy called") +
             Line(INFO, "HandleGTokenPolicyGetPolicy", "HandleGTokenPolicyGetPolicy bundleNamesSize = 2") +
             Line(INFO, "HandleGTokenPolicyGetPolicy", "HandleGTokenPolicyGetPolicy , gTokenResultsSize=1") +
             row.WriteLines(),
         row.ReadLines()},
        // The get handler's text, at error level.
        {13, [](Parcel& parcel) { PutAll(parcel, 2, "app", "other"); }, putResult,
         Line(ERROR, "HandleGTokenPolicyRemovePolicy", "HandleGTokenPolicyGetPolicy bundleNamesSize = 2"),
         Line(DEBUG, "GTokenPolicyRemovePolicy", "reply=0")},
    };
}

// Hands the request to a service that gives this answer. Returns the status.
int32_t Dispatch(const Call& call, const FakeAnswer& answer, MessageParcel& reply)
{
    const sptr<FakeService> service(new FakeService());
    service->SetAnswer(call.code, answer);
    MessageParcel request;
    PutAll(request, SecurityPrivacyServiceIntf::GetDescriptor());
    call.putRequest(request);
    MessageOption option;
    const int32_t status = service->OnRemoteRequest(call.code, request, reply, option);
    EXPECT_EQ(0U, request.GetReadableBytes()) << call.code;
    return status;
}

TEST(Layout, OfRequestsAndRepliesIsAsOtherProcessesKnowIt)
{
    for (const Call& call : Calls()) {
        MessageParcel reply;
        EXPECT_EQ(0, Dispatch(call, MakeAnswer(), reply));
        Parcel expected;
        call.putReply(expected);
        EXPECT_EQ(TakeWords(expected), TakeWords(reply)) << call.code;

        const sptr<ScriptedObject> object(new ScriptedObject([&](uint32_t, MessageParcel& data, MessageParcel&) {
            EXPECT_EQ(SecurityPrivacyServiceIntf::GetDescriptor(), data.ReadInterfaceToken());
            Parcel arguments;
            call.putRequest(arguments);
            EXPECT_EQ(TakeWords(arguments), TakeWords(data)) << call.code;
            return 0;
        }));
        CallOperation(*ProxyOver(object), call.code);
        ASSERT_EQ(1U, object->sent.size());
        EXPECT_EQ(call.code, object->sent[0].code);
        EXPECT_EQ(0, object->sent[0].flags);
        EXPECT_EQ(8, object->sent[0].waitTime);
    }
}

TEST(Layout, OfAFailureIsItsResultAloneButForTheSetAndTheGet)
{
    for (const Call& call : Calls()) {
        MessageParcel reply;
        const bool isStatus = call.code <= 2 || IsUsage(call.code);
        EXPECT_EQ(isStatus ? 12 : 0, Dispatch(call, MakeAnswer(12), reply)) << call.code;
        if (call.code != 12) {
            EXPECT_EQ(call.code == 3 ? (std::vector{12, 1}) : std::vector{12}, TakeWords(reply)) << call.code;
        }
    }
}

class Request : public CallTest {};

INSTANTIATE_TEST_SUITE_P(Roads, Request, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(Request, LeavesThisSequenceOfLinesFromClientToServiceAndBack)
{
    for (const Call& call : Calls()) {
        const Operation& operation = OperationOf(call.code);
        service->SetAnswer(call.code, MakeAnswer());
        const LogCapture log;
        const Outcome outcome = CallOperation(client, call.code);
        EXPECT_EQ(LinesUntilSent(operation) + DispatchLines(call.code) + call.handled + DoneLine(call.code, 0) +
                      call.finished + RecordLines(operation, 2),
                  log.Lines());
        EXPECT_EQ(std::string::npos, log.Everything().find(SECRET));
        EXPECT_EQ(call.code == 12 ? 5 : 0, outcome.result);
        EXPECT_EQ(call.code <= 2 ? 2U : 1U, outcome.groups.size());
        EXPECT_EQ(Texts(outcome.records), std::vector(IsUsage(call.code) ? 2 : 1, Texts(MakeAnswer().records)[0]));
        EXPECT_EQ(call.code != 3, outcome.returns);
        const std::vector<GTokenResult> rows = MakeAnswer().gTokenResultWithRet.gTokenResults;
        EXPECT_EQ(call.code == 12 ? Texts(rows) : std::vector<std::string>(), Texts(outcome.rows));
    }
    const std::vector<FakeCall> calls = service->Calls();
    ASSERT_EQ(Operations().size(), calls.size());
    EXPECT_EQ("app", calls[0].bundleName);
    EXPECT_EQ(-100, calls[0].userId);
    EXPECT_EQ(std::unordered_set<std::string>{"it's"}, calls[0].interested);
    EXPECT_EQ("group", calls[1].permissionGroup);
    EXPECT_EQ(MakeCheckedStateParameter().ToString(), calls[2].checkedStateParameter.ToString());
    EXPECT_EQ(MakePermissionUsageRecordQuery().ToString(), calls[3].query.ToString());
    EXPECT_EQ(MakePermissionUsageRecordQuery().ToString(), calls[4].query.ToString());
    EXPECT_EQ(Texts(std::vector{MakeGTokenInfo()}), Texts(calls[5].gTokenInfos));
    EXPECT_EQ(MakeGTokenInfo().fingerprint, calls[5].gTokenInfos[0].fingerprint);
    EXPECT_EQ("policy", calls[6].policyName);
    EXPECT_EQ((std::vector<std::string>{"app", "other"}), calls[7].bundleNames);
}

TEST_P(Request, RefusedByTheAccessCheckYieldsMinusOne)
{
    service->SetRefused({1, 2, 3, 4, 5, 11, 12, 13});
    ExpectFailures(client, -1, [](const Operation& operation) {
        return LinesUntilSent(operation) + DispatchLines(operation.code) +
               Line(ERROR, "OnRemoteRequest",
                    "messageCode=" + std::to_string(operation.code) + " messageCodeStr='" + operation.codeName +
                        "' forbidden access.") +
               LinesAfterFailure(operation, 1);
    });
    EXPECT_TRUE(service->Calls().empty());
}

TEST_P(Request, FailedByTheServiceYieldsItsCodeOnlyWhereTheReplyCarriesIt)
{
    service->FailAll(12);
    for (const Operation& operation : Operations()) {
        const bool isCarried = operation.code == 3 || operation.code > 5;
        EXPECT_EQ(isCarried ? 12 : -1, CallOperation(client, operation.code).result) << operation.code;
    }
}

// Were the stub to take one request at a time, the first would wait for the second for ever.
TEST_P(Request, RunsInTheServiceAtTheSameTimeAsAnother)
{
    std::promise<void> second;
    service->SetResponder(11, [&second](const FakeCall&) { return second.get_future().wait(), FakeAnswer(); });
    service->SetResponder(13, [&second](const FakeCall&) { return second.set_value(), FakeAnswer(); });
    const sptr<SecurityPrivacyServiceIntf> proxy = ProxyOver(Load());
    std::thread first([&proxy] { EXPECT_EQ(0, CallOperation(*proxy, 11).result); });
    EXPECT_EQ(0, CallOperation(*proxy, 13).result);
    first.join();
}

void ExpectUnreachable(const std::string& line)
{
    ExpectFailures(SecurityPrivacyClient::GetInstance(), 0, [&line](const Operation& operation) {
        // The summary is reported under the timeline's name.
        const bool isSummary = operation.code == MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY;
        const std::string reporter = isSummary ? "GetPermissionUsageTimeline" : operation.method;
        return operation.Says(INFO, operation.calledByClient) + Line(ERROR, "WithSystemAbilityProxy", line) +
               Line(ERROR, reporter, "proxy is nullptr, please check.") + RecordLines(operation, 1);
    });
}

TEST(UnreachableService, YieldsZeroAndSaysWhy)
{
    const FakeServiceScope fake;
    fake.Manager().SetPresence(FakePresence::ABSENT);
    ExpectUnreachable("SA=65993 is nullptr, please check.");
    fake.Manager().SetPresence(FakePresence::DEAD);
    ExpectUnreachable("SA is IsObjectDead, why load system ability return a dead SA?");
    SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(nullptr);
    ExpectUnreachable("SAM is nullptr, please check.");
}

// In a process of its own: what makes proxies is registered once, when the library is loaded.
TEST(UnreachableService, YieldsZeroWhereNoProxyCanBeMade)
{
    const auto call = [] {
        const FakeServiceScope fake;
        BrokerRegistration::Get().Unregister(SecurityPrivacyServiceIntf::GetDescriptor());
        ExpectUnreachable("iface_cast SA=65993 is nullptr, there is nothing we can do.");
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(call(), ::testing::ExitedWithCode(0), "");
}

TEST(UnreachableService, ThatDiesAfterItWasFoundYieldsMinusOne)
{
    const FakeServiceScope fake;
    fake.Manager().SetPresence(FakePresence::DYING);
    ExpectFailures(SecurityPrivacyClient::GetInstance(), -1, [](const Operation& operation) {
        return LinesUntilSent(operation) + LinesAfterFailure(operation, IPC_DEAD_OBJECT);
    });
    fake.Manager().SetPresence(FakePresence::HERE);
    EXPECT_EQ(0, CallOperation(SecurityPrivacyClient::GetInstance(), 13).result);
}

TEST(Proxy, WithoutARemoteObjectYieldsMinusOne)
{
    ExpectFailures(*ProxyOver(nullptr), -1, [](const Operation& operation) {
        return ProxyLines(operation) + Line(ERROR, "SendRequest", "remote service null.") +
               operation.Says(ERROR, operation.sendFailed);
    });
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
