// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "support/allocation.h"
#include "support/log_capture.h"
#include "support/parcels.h"
#include "support/record_cases.h"
#include "support/records.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Permission::AppPermissionGroupInfo;
using Record::PermissionUsageRecordQuery;

class EveryRecord : public ::testing::TestWithParam<RecordCase> {
protected:
    // The record's wire form, written value by value; and where each value ends.
    static std::vector<size_t> PutSteps(Parcel& parcel)
    {
        std::vector<size_t> ends;
        for (const FieldStep& step : GetParam().steps) {
            EXPECT_TRUE(Put(parcel, step.value));
            ends.push_back(parcel.GetDataSize());
        }
        return ends;
    }
    static std::vector<int32_t> StepWords()
    {
        Parcel parcel;
        PutSteps(parcel);
        return TakeWords(parcel);
    }
};

INSTANTIATE_TEST_SUITE_P(Records, EveryRecord, ::testing::ValuesIn(RecordCases()),
                         [](const auto& test) { return test.param.name; });

TEST_P(EveryRecord, WritesItsFieldsInOrderAndSaysSo)
{
    const LogCapture log;
    Parcel parcel;
    ASSERT_TRUE(GetParam().record->Marshalling(parcel));
    EXPECT_EQ(GetParam().WriteLines(), log.Lines());
    EXPECT_EQ(StepWords(), TakeWords(parcel));
    EXPECT_EQ(std::string::npos, log.Everything().find(SECRET));
    EXPECT_EQ(GetParam().text, GetParam().toString(*GetParam().record));
    EXPECT_EQ(GetParam().defaultText, GetParam().toString(*GetParam().defaultRecord));
}

TEST_P(EveryRecord, ReadsItsFieldsInOrderAndSaysSo)
{
    const LogCapture log;
    Parcel parcel;
    PutSteps(parcel);
    Put(parcel, 4711);
    const sptr<Parcelable> record = GetParam().unmarshal(parcel);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(GetParam().ReadLines(), log.Lines());
    EXPECT_EQ(GetParam().text, GetParam().toString(*record));
    EXPECT_EQ(4711, parcel.ReadInt32()) << "the record ends where its last field does";
    EXPECT_EQ(std::string::npos, log.Everything().find(SECRET));

    // What the text does not show must have been read as well.
    Parcel again;
    ASSERT_TRUE(record->Marshalling(again));
    EXPECT_EQ(StepWords(), TakeWords(again));
}

TEST_P(EveryRecord, TruncatedAnywhereYieldsNullAndFreesThePart)
{
    const std::vector<int32_t> words = StepWords();
    Parcel whole;
    const std::vector<size_t> ends = PutSteps(whole);
    for (size_t cut = 0; cut < words.size(); ++cut) {
        Parcel parcel;
        Put(parcel, std::vector<int32_t>(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(cut)));
        const auto firstCut = std::upper_bound(ends.begin(), ends.end(), cut * sizeof(int32_t));
        const LogCapture log;
        EXPECT_EQ(nullptr, GetParam().unmarshal(parcel)) << cut;
        EXPECT_TRUE(IsLastNothrowNewDeleted()) << cut;
        EXPECT_EQ(GetParam().ReadLines(static_cast<size_t>(firstCut - ends.begin())), log.Lines()) << cut;
    }
}

TEST_P(EveryRecord, FailedWriteStopsThereWithoutALine)
{
    Parcel whole;
    const std::vector<size_t> ends = PutSteps(whole);
    size_t begin = 0;
    for (size_t i = 0; i < ends.size(); begin = ends[i++]) {
        for (const size_t capacity : {begin, ends[i] - 1}) {
            Parcel parcel;
            ASSERT_TRUE(parcel.SetMaxCapacity(capacity));
            const LogCapture log;
            EXPECT_FALSE(GetParam().record->Marshalling(parcel)) << capacity;
            EXPECT_EQ(begin, parcel.GetDataSize()) << "what was written before stays";
            EXPECT_EQ(GetParam().WriteLines(i), log.Lines()) << capacity;
        }
    }
}

TEST(AppPermissionGroupInfo, AtMostFiftyStatesAreWritten)
{
    AppPermissionGroupInfo info = MakeAppPermissionGroupInfo();
    info.shownStates = MakeNames(51, "shown");
    const std::vector<std::string> states = MakeNames(51, "disabled");
    info.disabledStates = {states.begin(), states.end()};
    const std::vector<std::string> disabled(info.disabledStates.begin(), std::next(info.disabledStates.begin(), 50));
    Parcel expected;
    PutAll(expected, info.bundleName, info.uid, info.permissionGroup, info.checkedState, 50, MakeNames(50, "shown"), 50,
           disabled, info.disabledReason, info.flags);
    Parcel parcel;
    const LogCapture log;
    ASSERT_TRUE(info.Marshalling(parcel));
    EXPECT_EQ(TakeWords(expected), TakeWords(parcel));
    const std::string lines = log.Lines();
    EXPECT_NE(std::string::npos, lines.find("WriteInt32 shownStatesSize=50 succeed.\n"));
    EXPECT_NE(std::string::npos, lines.find("WriteInt32 disabledStatesSize=50 succeed.\n"));
    EXPECT_EQ(4 + 51 + 51 + 2, std::count(lines.begin(), lines.end(), '\n')) << "what is dropped is dropped silently";
}

TEST(AppPermissionGroupInfo, CountsOfStatesAreBoundedAndRepeatedStatesCollapse)
{
    struct Case {
        int32_t shown;
        int32_t disabled;
        std::string lastMessage;
    };
    const std::vector<Case> cases = {
        {50, 50, "flags=-7"},
        {-1, 50, "flags=-7"},
        {INT32_MIN, INT32_MIN, "flags=-7"},
        {51, 0, "shownStatesSizeRead=51"},
        {INT32_MAX, 0, "shownStatesSizeRead=2147483647"},
        {0, 51, "disabledStatesSizeRead=51"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.lastMessage);
        const std::vector<std::string> shown = MakeNames(static_cast<size_t>(std::clamp(test.shown, 0, 51)), "s");
        std::vector<std::string> disabled(static_cast<size_t>(std::clamp(test.disabled, 0, 51)), "repeated");
        std::fill_n(disabled.begin(), disabled.size() / 2, "other");
        Parcel parcel;
        PutAll(parcel, "bundle", 1, "group", "state", test.shown, shown);
        PutAll(parcel, test.disabled, disabled, "reason", int64_t{-7});
        const LogCapture log;
        const sptr<AppPermissionGroupInfo> info(AppPermissionGroupInfo::Unmarshalling(parcel));
        const std::string end = " to " + test.lastMessage + " succeed.\n";
        EXPECT_EQ(end, log.Lines().substr(log.Lines().size() - end.size())) << "nothing is read or said after it";
        ASSERT_EQ(test.lastMessage == "flags=-7", info != nullptr);
        if (info != nullptr) {
            EXPECT_EQ(shown, info->shownStates);
            EXPECT_EQ(std::unordered_set<std::string>(disabled.begin(), disabled.end()), info->disabledStates);
        } else {
            EXPECT_TRUE(IsLastNothrowNewDeleted());
        }
    }
}

// The six lists of a query in wire order, set to that many elements.
const std::vector<std::function<void(PermissionUsageRecordQuery&, size_t)>> setLists = {
    [](auto& query, size_t count) { query.SetBundleNames(MakeNames(count, "b")); },
    [](auto& query, size_t count) { query.SetUserIds(std::vector<int>(count, -1)); },
    [](auto& query, size_t count) { query.SetOperationGroups(MakeNames(count, "o")); },
    [](auto& query, size_t count) { query.SetOperationModes(std::vector<int>(count, -1)); },
    [](auto& query, size_t count) { query.SetAppStates(std::vector<int>(count, -1)); },
    [](auto& query, size_t count) { query.SetScreenStates(std::vector<int>(count, -1)); }};

TEST(PermissionUsageRecordQuery, ListsOfOneHundredAreRefusedInBothDirections)
{
    for (size_t list = 0; list < setLists.size(); ++list) {
        PermissionUsageRecordQuery query;
        setLists[list](query, 99);
        Parcel accepted;
        ASSERT_TRUE(query.Marshalling(accepted));
        const sptr<PermissionUsageRecordQuery> read(PermissionUsageRecordQuery::Unmarshalling(accepted));
        ASSERT_NE(nullptr, read);
        EXPECT_EQ(query.ToString(), read->ToString());

        setLists[list](query, 100);
        Parcel refused;
        EXPECT_FALSE(query.Marshalling(refused));
        std::vector<int32_t> counts(list, 0);
        counts.push_back(100);
        EXPECT_EQ(counts, TakeWords(refused)) << "the count is written before it is tested, and nothing after it";

        for (const int32_t count : {100, INT32_MAX}) {
            counts.back() = count;
            Parcel announced;
            Put(announced, counts);
            Put(announced, std::vector<int32_t>(1000, 0));
            EXPECT_EQ(nullptr, PermissionUsageRecordQuery::Unmarshalling(announced)) << list;
            EXPECT_TRUE(IsLastNothrowNewDeleted());
        }
    }
}

TEST(PermissionUsageRecordQuery, NegativeCountsReadAsEmptyLists)
{
    Parcel parcel;
    PutAll(parcel, -5, 2, 100, 100, INT32_MIN, -1, 0, -1, int64_t{1}, int64_t{2}, 3, 4);
    const sptr<PermissionUsageRecordQuery> query(PermissionUsageRecordQuery::Unmarshalling(parcel));
    ASSERT_NE(nullptr, query);
    EXPECT_EQ(
        "PermissionUsageRecordQuery{bundleNames=[], userIds=[100, 100], operationGroups=[], operationModes=[], "
        "appStates=[], screenStates=[], beginTimestamp=1, endTimestamp=2, limit=3, order=4}",
        query->ToString());
}

TEST(PermissionUsageRecordQuery, InnerReadingAppendsAndOwnsWhatItIsGiven)
{
    struct Watched : PermissionUsageRecordQuery {
        explicit Watched(int& counter) : destroyed(counter) {}
        ~Watched() override { ++destroyed; }
        int& destroyed;
    };
    int destroyed = 0;
    const PermissionUsageRecordQuery query = MakePermissionUsageRecordQuery();
    {
        Parcel parcel;
        ASSERT_TRUE(query.Marshalling(parcel));
        const sptr<PermissionUsageRecordQuery> given(new Watched(destroyed));
        given->SetUserIds({7});
        given->SetLimit(7);
        EXPECT_EQ(given.Get(), PermissionUsageRecordQuery::UnmarshallingInner(parcel, given.Get()));
        EXPECT_EQ((std::vector<int>{7, 100, 100, 0}), given->GetUserIds());
        EXPECT_EQ(query.GetLimit(), given->GetLimit());
    }
    EXPECT_EQ(1, destroyed);
    Parcel empty;
    EXPECT_EQ(nullptr, PermissionUsageRecordQuery::UnmarshallingInner(empty, new Watched(destroyed)));
    EXPECT_EQ(2, destroyed);
    Parcel whole;
    ASSERT_TRUE(query.Marshalling(whole));
    EXPECT_EQ(nullptr, PermissionUsageRecordQuery::UnmarshallingInner(whole, nullptr));
}

// The two records with a list of up to 10000: how each begins, what an element is, and what an excess is called.
struct LongList {
    std::string name;
    std::function<void(Parcel&)> putHead;
    std::function<void(Parcel&)> putElement;
    std::string excess;
};
const std::vector<LongList> longLists = {
    {"GTokenInfo", [](Parcel& parcel) { PutAll(parcel, "bundle", "print", int64_t{1}); },
     [](Parcel& parcel) { PutAll(parcel, "policy", int64_t{2}); }, "gTokenPolicies size is too big"},
    {"GTokenResultWithRet", [](Parcel& parcel) { Put(parcel, int64_t{1}); },
     [](Parcel& parcel) { PutAll(parcel, "bundle", "print", int64_t{2}, int64_t{3}); },
     "gTokenResults size is too big"}};

TEST(LongListsOfTenThousand, AreReadAndNegativeCountsAreEmpty)
{
    const LogCapture quiet(ERROR);
    for (const LongList& list : longLists) {
        for (const int32_t count : {10000, 0, -1, INT32_MIN}) {
            SCOPED_TRACE(list.name + std::to_string(count));
            Parcel parcel;
            list.putHead(parcel);
            Put(parcel, count);
            const size_t head = parcel.GetDataSize();
            for (int i = 0; i < 10000; ++i) {
                list.putElement(parcel);
            }
            const size_t read = count > 0 ? parcel.GetDataSize() : head;
            const sptr<Parcelable> record = CaseOf(list.name).unmarshal(parcel);
            ASSERT_NE(nullptr, record);
            EXPECT_EQ(parcel.GetDataSize() - read, parcel.GetReadableBytes());
            Parcel again;
            ASSERT_TRUE(record->Marshalling(again));
            EXPECT_EQ(read, again.GetDataSize());
        }
    }
    EXPECT_EQ("", quiet.Lines());
}

TEST(LongListsOfTenThousand, AreExceededWithAnErrorLineAndTheRecordIsLeft)
{
    for (const LongList& list : longLists) {
        for (const int32_t count : {10001, INT32_MAX}) {
            Parcel parcel;
            list.putHead(parcel);
            Put(parcel, count);
            const LogCapture log(ERROR);
            EXPECT_EQ(nullptr, CaseOf(list.name).unmarshal(parcel));
            EXPECT_EQ(Line(ERROR, "Unmarshalling", list.excess, "GToken"), log.Lines());
            EXPECT_FALSE(IsLastNothrowNewDeleted()) << list.name;
        }
    }
}

TEST(LongListsOfTenThousand, AreNotALimitForWriting)
{
    const LogCapture quiet(ERROR);
    GTokenInfo info;
    info.policies.resize(10001);
    GTokenResultWithRet results;
    results.gTokenResults.resize(10001);
    Parcel parcel;
    ASSERT_TRUE(info.Marshalling(parcel) && results.Marshalling(parcel));
    const std::vector<int32_t> words = TakeWords(parcel);
    // Empty strings take two words, as 64-bit numbers do.
    ASSERT_EQ((6 + 1 + 10001 * 4) + (2 + 1 + 10001 * 8), words.size());
    EXPECT_EQ(10001, words[6]);
    EXPECT_EQ(10001, words[6 + 1 + 10001 * 4 + 2]);
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
