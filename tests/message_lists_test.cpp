// SPDX-License-Identifier: Apache-2.0
// What the requests do with the lists in them: limits, gaps, and replies that are not as they should be.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "support/calls.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Permission::AppPermissionGroupInfo;
using Record::PermissionUsageRecord;
using Record::PermissionUsageRecordQuery;

constexpr uint32_t BY_APP = MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP;
constexpr uint32_t BY_PERMISSION = MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION;
constexpr uint32_t SET = MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE;
constexpr uint32_t SUMMARY = MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY;
constexpr uint32_t TIMELINE = MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE;
constexpr uint32_t ADD = MessageCode::GTOKEN_POLICY_ADD_POLICY;
constexpr uint32_t GET = MessageCode::GTOKEN_POLICY_GET_POLICY;
constexpr uint32_t REMOVE = MessageCode::GTOKEN_POLICY_REMOVE_POLICY;

// The two requests for lists: how much each may ask for, and how each names itself in the log.
struct ListRequest {
    uint32_t code;
    int32_t limit;
    std::string limited;
    std::string name;
};
const std::vector<ListRequest> listRequests = {{BY_APP, 50, "interestedPermissionGroupsSize", "ByApp"},
                                               {BY_PERMISSION, 10000, "interestedBundleNamesSize", "ByPermission"}};

int32_t Ask(SecurityPrivacyClient& target, uint32_t code, const std::vector<std::string>& interested,
            std::vector<AppPermissionGroupInfo>& infos)
{
    const std::unordered_set<std::string> set(interested.begin(), interested.end());
    return code == BY_APP ? target.GetAppPermissionGroupInfosByApp("x", 1, set, infos)
                          : target.GetAppPermissionGroupInfosByPermission("x", 1, set, infos);
}

class PermissionGroups : public CallTest {};
INSTANTIATE_TEST_SUITE_P(Roads, PermissionGroups, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(PermissionGroups, OnlyAsManyInterestsAsTheServiceAcceptsAreSent)
{
    const LogCapture quiet(ERROR);
    for (const ListRequest& request : listRequests) {
        for (const int32_t count : {0, request.limit, request.limit + 1}) {
            const std::vector<std::string> names = MakeNames(static_cast<size_t>(count), "name");
            std::vector<AppPermissionGroupInfo> infos;
            EXPECT_EQ(0, Ask(client, request.code, names, infos));
            const std::unordered_set<std::string> sent(names.begin(), names.end());
            const std::unordered_set<std::string> received = LastCall().interested;
            EXPECT_EQ(static_cast<size_t>(std::min(count, request.limit)), received.size());
            for (const std::string& name : received) {
                EXPECT_EQ(1U, sent.count(name));
            }
        }
    }
    EXPECT_EQ("", quiet.Lines());
}

TEST_P(PermissionGroups, AnnouncedInterestsAreBoundedAndNegativeCountsAreNone)
{
    for (const ListRequest& request : listRequests) {
        LogCapture log(ERROR);
        const std::vector<std::string> names = MakeNames(static_cast<size_t>(request.limit), "name");
        EXPECT_EQ(0, Send(request.code, "x", 1, request.limit, names));
        EXPECT_EQ(names.size(), LastCall().interested.size());
        EXPECT_EQ(0, Send(request.code, "x", 1, -1, names));
        EXPECT_TRUE(LastCall().interested.empty());
        EXPECT_EQ(0, Send(request.code, "x", 1, 3, "same", "same", "other"));
        EXPECT_EQ((std::unordered_set<std::string>{"same", "other"}), LastCall().interested);
        EXPECT_EQ(0, Send(request.code, "x", 1, 3, "only"));
        EXPECT_EQ((std::unordered_set<std::string>{"only", ""}), LastCall().interested);
        EXPECT_EQ(0, Send(request.code)) << "what is missing reads as empty";
        EXPECT_EQ("", log.Lines());
        const size_t calls = service->Calls().size();
        for (const int32_t count : {request.limit + 1, INT32_MAX}) {
            log.Clear();
            EXPECT_EQ(5, Send(request.code, "x", 1, count, names, "excess"));
            EXPECT_EQ(0U, reply->GetDataSize());
            EXPECT_EQ(Line(ERROR, "Handle" + OperationOf(request.code).method,
                           request.limited + "=" + std::to_string(count) +
                               " too big, greater than MAX_INTERESTED_BUNDLE_NAMES_SIZE=" +
                               std::to_string(request.limit) + "."),
                      log.Lines());
        }
        EXPECT_EQ(calls, service->Calls().size());
    }
}

TEST_P(PermissionGroups, AtMostTenThousandRecordsAreAnswered)
{
    for (const ListRequest& request : listRequests) {
        for (const size_t count : {size_t{0}, size_t{10000}, size_t{10002}}) {
            FakeAnswer answer;
            answer.appPermissionGroupInfos.resize(count);
            for (size_t i = 0; i < count; ++i) {
                answer.appPermissionGroupInfos[i].uid = static_cast<int32_t>(i);
            }
            service->SetAnswer(request.code, answer);
            const LogCapture log(ERROR);
            std::vector<AppPermissionGroupInfo> infos(1);
            EXPECT_EQ(0, Ask(client, request.code, {}, infos));
            ASSERT_EQ(1 + std::min<size_t>(count, 10000), infos.size());
            for (size_t i = 1; i < infos.size(); ++i) {
                ASSERT_EQ(static_cast<int32_t>(i - 1), infos[i].uid);
            }
            const std::string excess =
                request.name +
                ": index=10000 is greater or equals than MAX_APP_PERMISSION_GROUP_INFO_SIZE=10000, "
                "please check.";
            EXPECT_EQ(count > 10000 ? Line(ERROR, "Handle" + OperationOf(request.code).method, excess) : "",
                      log.Lines());
        }
    }
}

TEST_P(PermissionGroups, SetWithoutAWholeParameterIsRefused)
{
    LogCapture log;
    const std::string refused =
        DispatchLines(SET) +
        Line(ERROR, "HandleSetAppPermissionGroupCheckedState", "newCheckedStatePtr is nullptr, please check.") +
        DoneLine(SET, 5);
    EXPECT_EQ(5, Send(SET, "app", 1, "group", 0, "state", int64_t{1}, int64_t{2}));
    EXPECT_EQ(refused, log.Lines());
    log.Clear();
    EXPECT_EQ(5, Send(SET, "app", 1, "group", 1, "state", int64_t{1}, 2));
    EXPECT_NE(std::string::npos, log.Lines().find("newCheckedStatePtr is nullptr"));
    EXPECT_EQ(0U, reply->GetDataSize());
    EXPECT_TRUE(service->Calls().empty());
    EXPECT_EQ(0, Send(SET, "app", 1, "group", -1, "state", int64_t{1}, int64_t{2})) << "any flag but 0 is presence";
}

int32_t Ask(SecurityPrivacyClient& target, uint32_t code, std::vector<PermissionUsageRecord>& records,
            const PermissionUsageRecordQuery& query = {})
{
    return code == SUMMARY ? target.GetPermissionUsageSummary(query, records)
                           : target.GetPermissionUsageTimeline(query, records);
}

std::vector<PermissionUsageRecord> MakeRecords(size_t count)
{
    std::vector<PermissionUsageRecord> records(count);
    for (size_t i = 0; i < count; ++i) {
        records[i].SetTimes(static_cast<int32_t>(i));
    }
    return records;
}

class Usage : public CallTest {};
INSTANTIATE_TEST_SUITE_P(Roads, Usage, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(Usage, TooLongQueriesAreNotSent)
{
    PermissionUsageRecordQuery query;
    query.SetScreenStates(std::vector<int>(99, 1));
    std::vector<PermissionUsageRecord> records(2);
    for (const uint32_t code : {SUMMARY, TIMELINE}) {
        EXPECT_EQ(0, Ask(client, code, records, query));
        EXPECT_EQ(query.ToString(), LastCall().query.ToString());
    }
    query.SetScreenStates(std::vector<int>(100, 1));
    const LogCapture log(ERROR);
    EXPECT_EQ(401, Ask(client, SUMMARY, records, query));
    EXPECT_EQ(401, Ask(client, TIMELINE, records, query));
    EXPECT_EQ(2U, records.size());
    EXPECT_EQ(2U, service->AccessChecks().size());
    EXPECT_EQ(Line(ERROR, "GetPermissionUsageSummary", "permissionUsageRecordQuery is invalid.") +
                  // With a blank of its own in front.
                  Line(ERROR, "GetPermissionUsageTimeline", " permissionUsageRecordQuery is invalid."),
              log.Lines());
}

TEST_P(Usage, MissingQueriesAreRefusedInTheReplyOfTheTimelineOnly)
{
    // Absent; announcing too long a list; ending early.
    const std::vector<std::vector<int32_t>> queries = {{0, 0, 0}, {1, 100, 0, 0}, {1, 0, 0, 0, 0, 0, 0, 1}};
    for (const std::vector<int32_t>& query : queries) {
        const LogCapture log(ERROR);
        EXPECT_EQ(5, Send(SUMMARY, query));
        EXPECT_EQ(std::vector<int32_t>(), TakeWords(*reply));
        EXPECT_EQ(5, Send(TIMELINE, query));
        EXPECT_EQ(std::vector<int32_t>{5}, TakeWords(*reply));
        EXPECT_EQ(Line(ERROR, "HandleGetPermissionUsageSummary", "permissionUsageRecordQuery is nullptr.") +
                      Line(ERROR, "HandleGetPermissionUsageTimeline", "permissionUsageRecordTimelineQuery is nullptr."),
                  log.Lines());
    }
    EXPECT_TRUE(service->Calls().empty());
}

TEST_P(Usage, AnswersOfManyRecordsAreBoundedByTheTimelineAndByTheClient)
{
    for (const uint32_t code : {SUMMARY, TIMELINE}) {
        for (const size_t count : {size_t{0}, size_t{1}, size_t{10000}, size_t{10001}}) {
            FakeAnswer answer;
            answer.records = MakeRecords(count);
            service->SetAnswer(code, answer);
            const bool isRefused = code == TIMELINE && count > 10000;
            LogCapture log(INFO);
            EXPECT_EQ(isRefused ? 5 : 0, Send(code, PermissionUsageRecordQuery()));
            const std::string sent = "result: 0, size: " + std::to_string(count);
            EXPECT_EQ(isRefused ? "" : Line(INFO, "Handle" + OperationOf(code).method, sent), log.Lines());
            const std::vector<int32_t> words = TakeWords(*reply);
            if (isRefused) {
                EXPECT_EQ(std::vector<int32_t>{5}, words);
            } else {
                // Each record: presence, two empty strings of two words, five numbers of one and two of two.
                ASSERT_EQ(2 + count * 14, words.size());
                EXPECT_EQ(static_cast<int32_t>(count), words[1]);
            }

            log.Clear();
            std::vector<PermissionUsageRecord> records = MakeRecords(2);
            EXPECT_EQ(isRefused ? -1 : 0, Ask(client, code, records));
            const bool isAccepted = count >= 1 && count <= 10000;
            ASSERT_EQ(isAccepted ? 2 + count : 2, records.size());
            EXPECT_EQ(isAccepted ? static_cast<int32_t>(count) - 1 : 1, records.back().GetTimes());
            if (!isRefused) {
                EXPECT_EQ(OperationOf(code).Says(WARN, isAccepted ? "" : "record size is abnormal."), log.Lines(WARN));
            }
        }
    }
}

// A reply to a request for a list, the texts of what is read from it, and the line that is logged.
struct ListReply {
    sptr<ScriptedObject> object;
    int32_t result;
    std::vector<std::string> read;
    int level;
    std::string message;
};

void ExpectRead(uint32_t code, const std::vector<ListReply>& replies)
{
    for (const ListReply& reply : replies) {
        const LogCapture log(WARN);
        const Outcome outcome = CallOperation(*ProxyOver(reply.object), code);
        EXPECT_EQ(reply.result, outcome.result);
        EXPECT_EQ(Texts(Outcome().groups) + (code <= BY_PERMISSION ? reply.read : std::vector<std::string>()),
                  Texts(outcome.groups));
        EXPECT_EQ(Texts(Outcome().records) + (code <= BY_PERMISSION ? std::vector<std::string>() : reply.read),
                  Texts(outcome.records));
        EXPECT_EQ(OperationOf(code).Says(reply.level, reply.message), log.Lines());
    }
}

TEST(ListReplies, WithPermissionGroupsAreReadWithinTheirLimits)
{
    const AppPermissionGroupInfo info = MakeAppPermissionGroupInfo();
    const AppPermissionGroupInfo other;
    const std::string first = info.ToString();
    const std::string last = other.ToString();
    // Ends where its reader gives up: at the count of states.
    Parcel broken;
    PutAll(broken, 1, "bundle", 1, "group", "state", 51);
    const std::vector<int32_t> brokenWords = TakeWords(broken);
    for (const ListRequest& request : listRequests) {
        const std::string tooBig = request.name + " return size too big.";
        ExpectRead(request.code, {{Replying(7, 1, info), 7, {}, ERROR, "result is 7."},
                                  {Replying(-1), -1, {}, ERROR, "result is -1."},
                                  {Replying(0, 10001, info), 0, {}, ERROR, tooBig},
                                  {Replying(0, INT32_MAX, info), 0, {}, ERROR, tooBig},
                                  {Replying(0, INT32_MIN, info), 0, {}, 0, ""},
                                  {Replying(), 0, {}, 0, ""},
                                  {Replying(0, 10000, info), 0, {first}, 0, ""},
                                  {Replying(0, 3, info, 0, other), 0, {first, last}, 0, ""},
                                  {Replying(0, 3, info, brokenWords, other), 0, {first, last}, 0, ""}});
    }
}

TEST(ListReplies, WithUsageRecordsAreReadWithinTheirLimits)
{
    const std::vector<PermissionUsageRecord> records = MakeRecords(3);
    const std::vector<std::string> texts = Texts(records);
    const std::string abnormal = "record size is abnormal.";
    for (const uint32_t code : {SUMMARY, TIMELINE}) {
        ExpectRead(code, {{Replying(7, 1, records[0]), 7, {}, ERROR, "result is 7."},
                          {Replying(0, 0, records[0]), 0, {}, WARN, abnormal},
                          {Replying(0, 10001, records[0]), 0, {}, WARN, abnormal},
                          {Replying(0, INT32_MAX, records[0]), 0, {}, WARN, abnormal},
                          {Replying(0, -1, records[0]), 0, {}, 0, ""},
                          {Replying(0, INT32_MIN, records[0]), 0, {}, 0, ""},
                          {Replying(), 0, {}, WARN, abnormal},
                          {Replying(0, 3, records[0], 0, records[2]), 0, {texts[0], texts[2]}, 0, ""},
                          {Replying(0, 2, records[0], records[1], records[2]), 0, {texts[0], texts[1]}, 0, ""},
                          {Replying(0, 10000, records[1], 1, "cut short"), 0, {texts[1]}, 0, ""}});
    }
}

TEST(SetReply, IsReadWhateverTheResult)
{
    bool returns = false;
    const Permission::CheckedStateParameter parameter;
    EXPECT_EQ(-8, ProxyOver(Replying(-8, true))->SetAppPermissionGroupCheckedState("x", 1, "x", parameter, returns));
    EXPECT_TRUE(returns);
    EXPECT_EQ(0, ProxyOver(Replying())->SetAppPermissionGroupCheckedState("x", 1, "x", parameter, returns));
    EXPECT_FALSE(returns);
}

constexpr const char* HANDLE_ADD = "HandleGTokenPolicyAddPolicy";
constexpr const char* HANDLE_GET = "HandleGTokenPolicyGetPolicy";
constexpr const char* HANDLE_REMOVE = "HandleGTokenPolicyRemovePolicy";

class GToken : public CallTest {
protected:
    // Expects that a hand-made request is refused with these lines, unanswered and unseen by the service.
    template <class... T>
    void ExpectRefused(const std::string& lines, uint32_t code, const T&... values)
    {
        const LogCapture log(INFO);
        const size_t calls = service->Calls().size();
        EXPECT_EQ(401, Send(code, values...));
        EXPECT_EQ(0U, reply->GetDataSize());
        EXPECT_EQ(lines, log.Lines());
        EXPECT_EQ(calls, service->Calls().size());
    }

    const std::string getCalled = Line(ERROR, HANDLE_GET, "HandleGTokenPolicyGetPolicy called");
};
INSTANTIATE_TEST_SUITE_P(Roads, GToken, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(GToken, RequestsOfFourBytesOrLessAreRefusedBeforeTheCountIsRead)
{
    ExpectRefused(Line(ERROR, HANDLE_ADD, "actual length error, value=0"), ADD);
    ExpectRefused(Line(ERROR, HANDLE_ADD, "actual length error, value=4"), ADD, 0);
    ExpectRefused(Line(ERROR, HANDLE_REMOVE, "actual length error, value=0"), REMOVE);
    ExpectRefused(Line(ERROR, HANDLE_REMOVE, "actual length error, value=4"), REMOVE, 1);
    ExpectRefused(getCalled + Line(ERROR, HANDLE_GET, "actual length error, value=0"), GET);
    ExpectRefused(getCalled + Line(ERROR, HANDLE_GET, "actual length error, value=4"), GET, 0);

    EXPECT_EQ(-1, client.GTokenPolicyAddPolicy({}));
    EXPECT_EQ(-1, client.GTokenPolicyRemovePolicy({}));
    EXPECT_TRUE(service->Calls().empty());
    EXPECT_EQ(0, client.GTokenPolicyGetPolicy("", {}).ret);
    EXPECT_TRUE(LastCall().bundleNames.empty());
}

TEST_P(GToken, CountsOutsideTheirLimitsAreRefused)
{
    for (const int32_t count : {0, -1, INT32_MIN}) {
        const std::string number = std::to_string(count);
        ExpectRefused(
            Line(INFO, HANDLE_ADD, "gTokenInfosSize, value=" + number) + Line(ERROR, HANDLE_ADD, "gTokenInfos is null"),
            ADD, count, 0);
        ExpectRefused(Line(ERROR, HANDLE_REMOVE, "bundleNames is null"), REMOVE, count, 0);
        const LogCapture log(INFO);
        EXPECT_EQ(0, Send(GET, "policy", count, "unread")) << "get has no lower limit";
        EXPECT_EQ("policy", LastCall().policyName);
        EXPECT_TRUE(LastCall().bundleNames.empty());
        EXPECT_NE(std::string::npos, log.Lines().find("GetPolicy bundleNamesSize = " + number + "\n"));
    }
    for (const int32_t count : {10001, INT32_MAX}) {
        ExpectRefused(Line(INFO, HANDLE_ADD, "gTokenInfosSize, value=" + std::to_string(count)) +
                          Line(ERROR, HANDLE_ADD, "gTokenInfos size is too big"),
                      ADD, count, 0);
        ExpectRefused(Line(ERROR, HANDLE_REMOVE, "bundleNames size is too big"), REMOVE, count, 0);
        ExpectRefused(getCalled + Line(ERROR, HANDLE_GET, "bundleNames size is too big"), GET, "policy", count);
    }
}

TEST_P(GToken, TenThousandEntriesGoThroughAndOneMoreDoesNot)
{
    const LogCapture quiet(WARN);
    std::vector<GTokenInfo> infos(10000, MakeGTokenInfo());
    infos.back().bundleName = "last";
    const std::vector<std::string> names = MakeNames(10001, "bundle");
    const std::vector<std::string> allowed(names.begin(), names.end() - 1);
    FakeAnswer answer;
    answer.gTokenResultWithRet.ret = INT64_MIN;
    answer.gTokenResultWithRet.gTokenResults.resize(10001, MakeGTokenResult());
    service->SetAnswer(GET, answer);

    EXPECT_EQ(0, client.GTokenPolicyAddPolicy(infos));
    ASSERT_EQ(10000U, LastCall().gTokenInfos.size());
    EXPECT_EQ("last", LastCall().gTokenInfos.back().bundleName);
    EXPECT_EQ(3U, LastCall().gTokenInfos.back().policies.size());
    const GTokenResultWithRet results = client.GTokenPolicyGetPolicy("policy", allowed);
    EXPECT_EQ(answer.gTokenResultWithRet.ToString(), results.ToString()) << "rows have no limit";
    EXPECT_EQ(MakeGTokenResult().fingerprint, results.gTokenResults.back().fingerprint);
    EXPECT_EQ(allowed, LastCall().bundleNames);
    EXPECT_EQ(0, client.GTokenPolicyRemovePolicy(allowed));
    EXPECT_EQ(allowed, LastCall().bundleNames);

    infos.emplace_back();
    EXPECT_EQ(-1, client.GTokenPolicyAddPolicy(infos));
    EXPECT_EQ(-1, client.GTokenPolicyGetPolicy("policy", names).ret);
    EXPECT_EQ(-1, client.GTokenPolicyRemovePolicy(names));
    EXPECT_EQ(3U, service->Calls().size());
}

TEST_P(GToken, EntriesThatCannotBeReadAreLeftOut)
{
    GTokenInfo first;
    first.bundleName = "first";
    GTokenInfo last = MakeGTokenInfo();
    EXPECT_EQ(0, Send(ADD, 3, first, 0, last));
    EXPECT_EQ(Texts(std::vector{first, last}), Texts(LastCall().gTokenInfos));

    const LogCapture log(ERROR);
    EXPECT_EQ(0, Send(ADD, 3, first, 1, "broken", "", int64_t{1}, 10001, last));
    EXPECT_EQ(Texts(std::vector{first, last}), Texts(LastCall().gTokenInfos));
    EXPECT_EQ(Line(ERROR, "Unmarshalling", "gTokenPolicies size is too big", "GToken"), log.Lines());

    EXPECT_EQ(0, Send(ADD, 10000, 0));
    EXPECT_TRUE(LastCall().gTokenInfos.empty()) << "the service is called even so";
    EXPECT_EQ(std::vector<int32_t>{0}, TakeWords(*reply));

    EXPECT_EQ(0, Send(REMOVE, 3, "first"));
    EXPECT_EQ((std::vector<std::string>{"first", "", ""}), LastCall().bundleNames) << "missing names read as empty";
    EXPECT_EQ(0, Send(GET, "policy", 2));
    EXPECT_EQ(std::vector<std::string>(2), LastCall().bundleNames);
}

TEST(GTokenReplies, AreReadAsFarAsTheyGo)
{
    const GTokenResult row = MakeGTokenResult();
    struct Case {
        sptr<ScriptedObject> object;
        int64_t ret;
        size_t rows;
    };
    const std::vector<Case> cases = {
        {Replying(int64_t{5}, 3, row, row, row), 5, 3},
        {Replying(int64_t{5}, 3, row, 0, row), 5, 2},
        {Replying(int64_t{5}, 3, row, 1, "cut"), 5, 1},
        {Replying(int64_t{5}, 1, row, row), 5, 1},
        {Replying(int64_t{5}, -1, row), 5, 0},
        {Replying(int64_t{5}, INT32_MIN, row), 5, 0},
        {Replying(int64_t{5}, INT32_MAX), 5, 0},
        {Replying(int64_t{5}, INT32_MAX, row, row), 5, 2},
        {Replying(INT64_MIN), INT64_MIN, 0},
        {Replying(7), 0, 0},
        {Replying(), 0, 0},
    };
    for (const Case& test : cases) {
        const LogCapture log(ERROR);
        const GTokenResultWithRet results = ProxyOver(test.object)->GTokenPolicyGetPolicy("policy", {});
        EXPECT_EQ(test.ret, results.ret);
        EXPECT_EQ(std::vector(test.rows, row.ToString()), Texts(results.gTokenResults));
        EXPECT_EQ("", log.Lines());
    }
    EXPECT_EQ(0, ProxyOver(Replying())->GTokenPolicyAddPolicy({}));
    EXPECT_EQ(-9, ProxyOver(Replying(-9))->GTokenPolicyRemovePolicy({}));
}

// Proxies, unlike the client, let requests run at the same time; each must get its own answer.
TEST_P(GToken, RequestsAtTheSameTimeDoNotMix)
{
    const LogCapture quiet(WARN);
    service->SetResponder(GET, [](const FakeCall& call) {
        FakeAnswer answer;
        for (const std::string& bundleName : call.bundleNames) {
            answer.gTokenResultWithRet.gTokenResults.emplace_back();
            answer.gTokenResultWithRet.gTokenResults.back().bundleName = call.policyName + bundleName;
        }
        return answer;
    });
    const sptr<SecurityPrivacyServiceIntf> proxy = ProxyOver(Load());
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&proxy, name = "thread" + std::to_string(i)] {
            for (size_t request = 0; request < 50; ++request) {
                const std::vector<std::string> bundles = MakeNames(request, "bundle");
                const GTokenResultWithRet results = proxy->GTokenPolicyGetPolicy(name, bundles);
                ASSERT_EQ(request, results.gTokenResults.size());
                for (size_t row = 0; row < request; ++row) {
                    ASSERT_EQ(name + bundles[row], results.gTokenResults[row].bundleName);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
