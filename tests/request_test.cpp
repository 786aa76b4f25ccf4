// SPDX-License-Identifier: Apache-2.0
// What holds for every request: layouts, log sequences, refusals, and services that cannot be reached.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ipc/security_privacy_service_proxy.h"
#include "support/exchange.h"
#include "support/record_cases.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Lines = std::vector<std::string>;

const Lines foundLines = {Line(DEBUG, "WithSystemAbilityProxy", "LoadSystemAbility succeed")};

bool IsUsage(uint32_t code)
{
    return code == 4 || code == 5;
}

// The lines of the record that the proxy writes into the request, and those of the stub that reads it.
Lines RequestRecordLines(uint32_t code, Lines (RecordCase::*lines)(int) const)
{
    if (code == 3 || code == 11) {
        return (CaseOf(code == 3 ? "CheckedStateParameter" : "GTokenInfo").*lines)(-1);
    }
    return {};
}

// The lines of a client that now has `count` usage records in its list.
Lines RecordLines(const Operation& operation, size_t count)
{
    return IsUsage(operation.code) ? Lines(count, Line(DEBUG, operation.method, MakePermissionUsageRecord().ToString()))
                                   : Lines();
}

// From the client's first line to the handler's.
Lines LinesUntilSent(const Operation& operation)
{
    return operation.ClientLines() + foundLines + operation.ProxyLines() +
           RequestRecordLines(operation.code, &RecordCase::WriteLines);
}

// From the failed sending to the client's last line.
Lines LinesAfterFailure(const Operation& operation, int status)
{
    const std::string message =
        "ipcResultCode: " + std::to_string(status) + ", send request failed for " + operation.codeName;
    return Lines{Line(ERROR, "SendRequest", message)} + operation.SendFailedLines() + RecordLines(operation, 1);
}

void ExpectUntouched(const Outcome& outcome)
{
    EXPECT_EQ(Texts(Outcome().groups), Texts(outcome.groups));
    EXPECT_EQ(Texts(Outcome().records), Texts(outcome.records));
    EXPECT_TRUE(outcome.returns);
    EXPECT_TRUE(outcome.rows.empty());
}

// One record in each answer.
FakeAnswer MakeAnswer()
{
    FakeAnswer answer;
    answer.appPermissionGroupInfos = {MakeAppPermissionGroupInfo()};
    answer.records = {MakePermissionUsageRecord()};
    answer.gTokenResultWithRet.ret = 5;
    answer.gTokenResultWithRet.gTokenResults = {MakeGTokenResult()};
    return answer;
}

struct Exchange {
    uint32_t code;
    std::function<void(Parcel&)> putRequest;
    std::function<void(Parcel&)> putReply;
    Lines handled;   // by the stub, between dispatch and done
    Lines finished;  // by the proxy, after that
};

void PutRecord(Parcel& parcel, const std::string& name)
{
    Put(parcel, 1);
    for (const FieldStep& step : CaseOf(name).steps) {
        Put(parcel, step.value);
    }
}

// What `CallOperation` and `MakeAnswer` look like on the wire and in the log.
std::vector<Exchange> Exchanges()
{
    const RecordCase& info = CaseOf("AppPermissionGroupInfo");
    const RecordCase& row = CaseOf("GTokenResult");
    const auto putQuery = [](Parcel& parcel) { PutRecord(parcel, "PermissionUsageRecordQuery"); };
    const auto putInfos = [](Parcel& parcel) { PutAll(parcel, 0, 1), PutRecord(parcel, "AppPermissionGroupInfo"); };
    const auto putRecords = [](Parcel& parcel) { PutAll(parcel, 0, 1), PutRecord(parcel, "PermissionUsageRecord"); };
    const auto putResult = [](Parcel& parcel) { Put(parcel, 0); };
    return {
        {1, [](Parcel& parcel) { PutAll(parcel, "app", -100, 1, "it's"); }, putInfos, info.WriteLines(),
         info.ReadLines() + Lines{Line(DEBUG, "GetAppPermissionGroupInfosByApp",
                                       "ByApp finish, result=0, appPermissionGroupInfos=2")}},
        {2, [](Parcel& parcel) { PutAll(parcel, "group", 101, 1, "app"); }, putInfos, info.WriteLines(),
         info.ReadLines() + Lines{Line(DEBUG, "GetAppPermissionGroupInfosByPermission",
                                       "ByPermission finish, result=0, size of appPermissionGroupInfos is 2")}},
        {3,
         [](Parcel& parcel) { PutAll(parcel, "app", 20, "group"), PutRecord(parcel, "CheckedStateParameter"); },
         [](Parcel& parcel) { PutAll(parcel, 0, false); },
         CaseOf("CheckedStateParameter").ReadLines(),
         {Line(DEBUG, "SetAppPermissionGroupCheckedState", "Set finish, result=0, returns=false")}},
        {4, putQuery, putRecords, {Line(INFO, "HandleGetPermissionUsageSummary", "result: 0, size: 1")}, {}},
        {5, putQuery, putRecords, {Line(INFO, "HandleGetPermissionUsageTimeline", "result: 0, size: 1")}, {}},
        {11,
         [](Parcel& parcel) { Put(parcel, 1), PutRecord(parcel, "GTokenInfo"); },
         putResult,
         Lines{Line(INFO, "HandleGTokenPolicyAddPolicy", "gTokenInfosSize, value=1")} +
             CaseOf("GTokenInfo").ReadLines(),
         {Line(DEBUG, "GTokenPolicyAddPolicy", "reply=0")}},
        {12, [](Parcel& parcel) { PutAll(parcel, "policy", 2, "app", "other"); },
         [](Parcel& parcel) { PutAll(parcel, int64_t{5}, 1), PutRecord(parcel, "GTokenResult"); },
         Lines{Line(ERROR, "HandleGTokenPolicyGetPolicy", "HandleGTokenPolicyGetPolicy called"),
               Line(INFO, "HandleGTokenPolicyGetPolicy", "HandleGTokenPolicyGetPolicy bundleNamesSize = 2"),
               Line(INFO, "HandleGTokenPolicyGetPolicy", "HandleGTokenPolicyGetPolicy , gTokenResultsSize=1")} +
             row.WriteLines(),
         row.ReadLines()},
        // The get handler's text, at error level.
        {13,
         [](Parcel& parcel) { PutAll(parcel, 2, "app", "other"); },
         putResult,
         {Line(ERROR, "HandleGTokenPolicyRemovePolicy", "HandleGTokenPolicyGetPolicy bundleNamesSize = 2")},
         {Line(DEBUG, "GTokenPolicyRemovePolicy", "reply=0")}},
    };
}

TEST(Layout, OfRequestsAndRepliesIsAsOtherProcessesKnowIt)
{
    const sptr<FakeService> service(new FakeService());
    for (const Exchange& exchange : Exchanges()) {
        service->SetAnswer(exchange.code, MakeAnswer());
        MessageParcel request;
        ASSERT_TRUE(request.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor()));
        exchange.putRequest(request);
        MessageParcel reply;
        MessageOption option;
        EXPECT_EQ(0, service->OnRemoteRequest(exchange.code, request, reply, option));
        EXPECT_EQ(0U, request.GetReadableBytes()) << exchange.code;
        Parcel expected;
        exchange.putReply(expected);
        EXPECT_EQ(TakeWords(expected), TakeWords(reply)) << exchange.code;

        const sptr<ScriptedObject> object(new ScriptedObject([&](uint32_t, MessageParcel& data, MessageParcel&) {
            EXPECT_EQ(SecurityPrivacyServiceIntf::GetDescriptor(), data.ReadInterfaceToken());
            Parcel arguments;
            exchange.putRequest(arguments);
            EXPECT_EQ(TakeWords(arguments), TakeWords(data)) << exchange.code;
            return 0;
        }));
        CallOperation(*ProxyOver(object), exchange.code);
        ASSERT_EQ(1U, object->sent.size());
        EXPECT_EQ(exchange.code, object->sent[0].code);
        EXPECT_EQ(0, object->sent[0].flags);
        EXPECT_EQ(8, object->sent[0].waitTime);
    }
}

class Request : public ExchangeTest {};

INSTANTIATE_TEST_SUITE_P(Roads, Request, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(Request, LeavesThisSequenceOfLinesFromClientToServiceAndBack)
{
    for (const Exchange& exchange : Exchanges()) {
        const Operation& operation = OperationOf(exchange.code);
        service->SetAnswer(exchange.code, MakeAnswer());
        LogCapture log;
        const Outcome outcome = CallOperation(client, exchange.code);
        EXPECT_EQ(Joined(LinesUntilSent(operation) + DispatchLines(exchange.code) + exchange.handled +
                         Lines{DoneLine(exchange.code, 0)} + exchange.finished + RecordLines(operation, 2)),
                  Joined(log.Lines()));
        EXPECT_EQ(std::string::npos, log.Everything().find(SECRET));
        EXPECT_EQ(exchange.code == 12 ? 5 : 0, outcome.result);
        EXPECT_EQ(exchange.code <= 2 ? 2U : 1U, outcome.groups.size());
        EXPECT_EQ(Texts(outcome.records), Lines(IsUsage(exchange.code) ? 2 : 1, Texts(MakeAnswer().records)[0]));
        EXPECT_EQ(exchange.code != 3, outcome.returns);
        EXPECT_EQ(exchange.code == 12 ? Texts(MakeAnswer().gTokenResultWithRet.gTokenResults) : Lines(),
                  Texts(outcome.rows));
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
    EXPECT_EQ((Lines{"app", "other"}), calls[7].bundleNames);
}

TEST_P(Request, RefusedByTheAccessCheckYieldsMinusOne)
{
    for (const Operation& operation : Operations()) {
        service->SetRefused({operation.code});
        LogCapture log;
        const Outcome outcome = CallOperation(client, operation.code);
        EXPECT_EQ(-1, outcome.result);
        ExpectUntouched(outcome);
        const std::string forbidden = "messageCode=" + std::to_string(operation.code) + " messageCodeStr='" +
                                      operation.codeName + "' forbidden access.";
        EXPECT_EQ(Joined(LinesUntilSent(operation) + DispatchLines(operation.code) +
                         Lines{Line(ERROR, "OnRemoteRequest", forbidden)} + LinesAfterFailure(operation, 1)),
                  Joined(log.Lines()));
    }
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

TEST_P(Request, UnknownOrForeignIsAnsweredByItsStatusAlone)
{
    EXPECT_EQ(4, Send(7));
    EXPECT_EQ(0U, reply->GetDataSize());
    MessageParcel foreign;
    MessageOption option;
    ASSERT_TRUE(foreign.WriteInterfaceToken(u"another interface"));
    EXPECT_EQ(1, Load()->SendRequest(1, foreign, *reply, option));
    EXPECT_EQ(0U, reply->GetDataSize());
}

TEST_P(Request, WhoseOperationThrowsYieldsMinusOneAndTheServiceLives)
{
    service->SetResponder(13, [](const FakeCall&) -> FakeAnswer { throw std::runtime_error("broken"); });
    EXPECT_EQ(-1, CallOperation(client, 13).result);
    service->FailAll(6);
    EXPECT_EQ(6, CallOperation(client, 13).result);
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

TEST_P(Request, FindsARestartedService)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(5, (service->FailAll(5), CallOperation(client, 13).result));
        TearDown();
        SetUp();
    }
}

TEST(UnreachableService, YieldsZeroAndSaysWhy)
{
    struct Situation {
        std::string line;
        FakePresence presence = FakePresence::HERE;
        bool hasManager = true;
        bool hasCreator = true;
    };
    const std::vector<Situation> situations = {
        {"SAM is nullptr, please check.", FakePresence::HERE, false},
        {"SA=65993 is nullptr, please check.", FakePresence::ABSENT},
        {"SA is IsObjectDead, why load system ability return a dead SA?", FakePresence::DEAD},
        {"iface_cast SA=65993 is nullptr, there is nothing we can do.", FakePresence::HERE, true, false}};
    for (const Situation& situation : situations) {
        const FakeServiceScope fake;
        fake.Manager().SetPresence(situation.presence);
        if (!situation.hasManager) {
            SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(nullptr);
        }
        if (!situation.hasCreator) {
            BrokerRegistration::Get().Unregister(SecurityPrivacyServiceIntf::GetDescriptor());
        }
        for (const Operation& operation : Operations()) {
            LogCapture log;
            const Outcome outcome = CallOperation(SecurityPrivacyClient::GetInstance(), operation.code);
            EXPECT_EQ(0, outcome.result) << operation.code;
            ExpectUntouched(outcome);
            const std::string& reporter =
                operation.nullProxyMethod.empty() ? operation.method : operation.nullProxyMethod;
            EXPECT_EQ(Joined(operation.ClientLines() +
                             Lines{Line(ERROR, "WithSystemAbilityProxy", situation.line),
                                   Line(ERROR, reporter, "proxy is nullptr, please check.")} +
                             RecordLines(operation, 1)),
                      Joined(log.Lines()));
        }
    }
    BrokerRegistration::Get().Register(
        SecurityPrivacyServiceIntf::GetDescriptor(),
        [](const auto& object) { return sptr<IRemoteBroker>(new SecurityPrivacyServiceProxy(object)); }, nullptr);
}

TEST(UnreachableService, ThatDiesAfterItWasFoundYieldsMinusOne)
{
    const FakeServiceScope fake;
    fake.Manager().SetPresence(FakePresence::DYING);
    for (const Operation& operation : Operations()) {
        LogCapture log;
        const Outcome outcome = CallOperation(SecurityPrivacyClient::GetInstance(), operation.code);
        EXPECT_EQ(-1, outcome.result) << operation.code;
        ExpectUntouched(outcome);
        EXPECT_EQ(Joined(LinesUntilSent(operation) + LinesAfterFailure(operation, IPC_DEAD_OBJECT)),
                  Joined(log.Lines()));
    }
    fake.Manager().SetPresence(FakePresence::HERE);
    EXPECT_EQ(0, CallOperation(SecurityPrivacyClient::GetInstance(), 13).result);
}

TEST(Proxy, WithoutARemoteObjectYieldsMinusOne)
{
    SecurityPrivacyServiceProxy proxy(nullptr);
    for (const Operation& operation : Operations()) {
        LogCapture log;
        const Outcome outcome = CallOperation(proxy, operation.code);
        EXPECT_EQ(-1, outcome.result);
        ExpectUntouched(outcome);
        EXPECT_EQ(Joined(Lines{Line(ERROR, "SendRequest", "remote service null.")} + operation.SendFailedLines()),
                  Joined(log.Lines(ERROR)));
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
