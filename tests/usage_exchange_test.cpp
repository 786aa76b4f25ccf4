// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/exchange.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Record::PermissionUsageRecordQuery;
using Records = std::vector<Record::PermissionUsageRecord>;

constexpr uint32_t SUMMARY = MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY;
constexpr uint32_t TIMELINE = MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE;

template <class Target>
int32_t Ask(Target& target, uint32_t code, Records& records, const PermissionUsageRecordQuery& query = {})
{
    return code == SUMMARY ? target.GetPermissionUsageSummary(query, records)
                           : target.GetPermissionUsageTimeline(query, records);
}

Records MakeRecords(size_t count)
{
    Records records(count);
    for (size_t i = 0; i < count; ++i) {
        records[i].SetTimes(static_cast<int32_t>(i));
    }
    return records;
}

class Usage : public ExchangeTest {};
INSTANTIATE_TEST_SUITE_P(Roads, Usage, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(Usage, TooLongQueriesAreNotSent)
{
    PermissionUsageRecordQuery query;
    query.SetScreenStates(std::vector<int>(99, 1));
    Records records(2);
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
            Records records = MakeRecords(2);
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

TEST(UsageReplies, AreReadWithinTheirLimits)
{
    const Records records = MakeRecords(3);
    struct Case {
        sptr<ScriptedObject> object;
        int32_t result;
        std::vector<int32_t> times;
        int level;
        std::string line;
    };
    const std::vector<Case> cases = {
        {Replying(7, 1, records[0]), 7, {}, ERROR, "result is 7."},
        {Replying(0, 0, records[0]), 0, {}, WARN, "record size is abnormal."},
        {Replying(0, 10001, records[0]), 0, {}, WARN, "record size is abnormal."},
        {Replying(0, INT32_MAX, records[0]), 0, {}, WARN, "record size is abnormal."},
        {Replying(0, -1, records[0]), 0, {}, 0, ""},
        {Replying(0, INT32_MIN, records[0]), 0, {}, 0, ""},
        {Replying(), 0, {}, WARN, "record size is abnormal."},
        {Replying(0, 3, records[0], 0, records[2]), 0, {0, 2}, 0, ""},
        {Replying(0, 2, records[0], records[1], records[2]), 0, {0, 1}, 0, ""},
        {Replying(0, 10000, records[1], 1, "cut short"), 0, {1}, 0, ""},
    };
    for (const uint32_t code : {SUMMARY, TIMELINE}) {
        for (const Case& test : cases) {
            const LogCapture log;
            Records read = MakeRecords(1);
            EXPECT_EQ(test.result, Ask(*ProxyOver(test.object), code, read));
            ASSERT_EQ(1 + test.times.size(), read.size()) << test.line;
            for (size_t i = 0; i < test.times.size(); ++i) {
                EXPECT_EQ(test.times[i], read[i + 1].GetTimes());
            }
            EXPECT_EQ(OperationOf(code).Says(INFO, OperationOf(code).startedByProxy) +
                          OperationOf(code).Says(test.level, test.line),
                      log.Lines());
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
