// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
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

constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
constexpr int32_t HIGHEST = std::numeric_limits<int32_t>::max();

class EveryRecord : public ::testing::TestWithParam<const RecordCase*> {
protected:
    // The record's wire form, written value by value.
    static void PutSteps(Parcel& parcel, std::vector<size_t>* ends = nullptr)
    {
        for (const FieldStep& step : GetParam()->steps) {
            ASSERT_TRUE(Put(parcel, step.value));
            if (ends != nullptr) {
                ends->push_back(parcel.GetDataSize());
            }
        }
    }
};

std::vector<const RecordCase*> Pointers()
{
    std::vector<const RecordCase*> pointers;
    for (const RecordCase& record : RecordCases()) {
        pointers.push_back(&record);
    }
    return pointers;
}

INSTANTIATE_TEST_SUITE_P(Records, EveryRecord, ::testing::ValuesIn(Pointers()),
                         [](const auto& test) { return test.param->name; });

TEST_P(EveryRecord, ShowsItsFieldsInItsText)
{
    EXPECT_EQ(GetParam()->text, GetParam()->toString(*GetParam()->record));
    EXPECT_EQ(GetParam()->defaultText, GetParam()->toString(*GetParam()->defaultRecord));
}

TEST_P(EveryRecord, WritesItsFieldsInOrderAndSaysSo)
{
    LogCapture log;
    Parcel parcel;
    ASSERT_TRUE(GetParam()->record->Marshalling(parcel));
    EXPECT_EQ(Joined(GetParam()->WriteLines()), Joined(log.Lines()));
    for (const FieldStep& step : GetParam()->steps) {
        Value value;
        ASSERT_TRUE(TakeLike(parcel, step.value, value));
        EXPECT_EQ(step.value, value);
    }
    EXPECT_EQ(0U, parcel.GetReadableBytes());
    EXPECT_EQ(std::string::npos, log.Everything().find(SECRET));
}

TEST_P(EveryRecord, ReadsItsFieldsInOrderAndSaysSo)
{
    LogCapture log;
    Parcel parcel;
    PutSteps(parcel);
    Put(parcel, 4711);
    const sptr<Parcelable> record = GetParam()->unmarshal(parcel);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(Joined(GetParam()->ReadLines()), Joined(log.Lines()));
    EXPECT_EQ(GetParam()->text, GetParam()->toString(*record));
    EXPECT_EQ(4711, parcel.ReadInt32()) << "the record ends where its last field does";
    EXPECT_EQ(std::string::npos, log.Everything().find(SECRET));

    // What the text does not show must have been read as well.
    Parcel expected;
    PutSteps(expected);
    Parcel again;
    ASSERT_TRUE(record->Marshalling(again));
    EXPECT_EQ(TakeWords(expected), TakeWords(again));
}

TEST_P(EveryRecord, TruncatedAnywhereYieldsNullAndFreesThePart)
{
    Parcel whole;
    std::vector<size_t> ends;
    PutSteps(whole, &ends);
    const std::vector<int32_t> words = TakeWords(whole);
    for (size_t cut = 0; cut < words.size(); ++cut) {
        Parcel parcel;
        Put(parcel, std::vector<int32_t>(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(cut)));
        int read = 0;
        while (ends[static_cast<size_t>(read)] <= cut * sizeof(int32_t)) {
            ++read;
        }
        LogCapture log;
        EXPECT_EQ(nullptr, GetParam()->unmarshal(parcel)) << cut;
        EXPECT_TRUE(IsLastNothrowNewDeleted()) << cut;
        EXPECT_EQ(Joined(GetParam()->ReadLines(read)), Joined(log.Lines())) << cut;
    }
}

TEST_P(EveryRecord, FailedWriteStopsThereWithoutALine)
{
    Parcel whole;
    std::vector<size_t> ends;
    PutSteps(whole, &ends);
    size_t begin = 0;
    for (size_t i = 0; i < ends.size(); begin = ends[i++]) {
        for (const size_t capacity : {begin, ends[i] - 1}) {
            Parcel parcel;
            ASSERT_TRUE(parcel.SetMaxCapacity(capacity));
            LogCapture log;
            EXPECT_FALSE(GetParam()->record->Marshalling(parcel)) << capacity;
            EXPECT_EQ(begin, parcel.GetDataSize()) << "what was written before stays";
            EXPECT_EQ(Joined(GetParam()->WriteLines(static_cast<int>(i))), Joined(log.Lines())) << capacity;
        }
    }
    Parcel exact;
    ASSERT_TRUE(exact.SetMaxCapacity(ends.back()));
    EXPECT_TRUE(GetParam()->record->Marshalling(exact));
}

TEST_P(EveryRecord, WithoutMemoryYieldsNullAndNamesTheClass)
{
    Parcel parcel;
    PutSteps(parcel);
    LogCapture log;
    {
        const NothrowNewFails noMemory;
        EXPECT_EQ(nullptr, GetParam()->unmarshal(parcel));
    }
    const std::vector<std::string> line = {
        Line(ERROR, "Unmarshalling", "new " + GetParam()->name + " failed.", GetParam()->module)};
    EXPECT_EQ(GetParam()->isAllocationFailureLogged ? Joined(line) : "", Joined(log.Lines()));
    EXPECT_EQ(parcel.GetDataSize(), parcel.GetReadableBytes()) << "nothing is read";
}

TEST(AppPermissionGroupInfo, AtMostFiftyStatesAreWritten)
{
    AppPermissionGroupInfo info = MakeAppPermissionGroupInfo();
    info.shownStates = MakeNames(51, "shown");
    info.disabledStates.clear();
    for (const std::string& state : MakeNames(51, "disabled")) {
        info.disabledStates.insert(state);
    }
    std::vector<std::string> disabled(info.disabledStates.begin(), info.disabledStates.end());
    disabled.pop_back();
    Parcel expected;
    PutAll(expected, info.bundleName, info.uid, info.permissionGroup, info.checkedState, 50, MakeNames(50, "shown"), 50,
           disabled, info.disabledReason, info.flags);
    Parcel parcel;
    LogCapture log;
    ASSERT_TRUE(info.Marshalling(parcel));
    EXPECT_EQ(TakeWords(expected), TakeWords(parcel));
    EXPECT_EQ(Line(DEBUG, "Marshalling", "WriteInt32 shownStatesSize=50 succeed.", "permission"), log.Lines().at(4));
    EXPECT_EQ(Line(DEBUG, "Marshalling", "WriteInt32 disabledStatesSize=50 succeed.", "permission"),
              log.Lines().at(55));
    EXPECT_EQ(4U + 51U + 51U + 2U, log.Lines().size()) << "what is dropped is dropped silently";
}

TEST(AppPermissionGroupInfo, CountsOfStatesAreBoundedAndNegativeOnesAreNone)
{
    struct Case {
        int32_t shown;
        int32_t disabled;
        bool isAccepted;
        std::string lastLine;
    };
    const std::vector<Case> cases = {
        {50, 50, true, "ReadInt64 to flags=-7 succeed."},
        {-1, 50, true, "ReadInt64 to flags=-7 succeed."},
        {LOWEST, LOWEST, true, "ReadInt64 to flags=-7 succeed."},
        {51, 0, false, "ReadInt32 to shownStatesSizeRead=51 succeed."},
        {HIGHEST, 0, false, "ReadInt32 to shownStatesSizeRead=2147483647 succeed."},
        {0, 51, false, "ReadInt32 to disabledStatesSizeRead=51 succeed."},
    };
    for (const Case& test : cases) {
        const std::vector<std::string> shown = MakeNames(static_cast<size_t>(std::clamp(test.shown, 0, 51)), "s");
        const std::vector<std::string> disabled = MakeNames(static_cast<size_t>(std::clamp(test.disabled, 0, 51)), "d");
        Parcel parcel;
        PutAll(parcel, "bundle", 1, "group", "state", test.shown, shown);
        PutAll(parcel, test.disabled, disabled, "reason", int64_t{-7});
        LogCapture log;
        const sptr<AppPermissionGroupInfo> info(AppPermissionGroupInfo::Unmarshalling(parcel));
        EXPECT_EQ(test.isAccepted, info != nullptr) << test.shown << " " << test.disabled;
        EXPECT_EQ(Line(DEBUG, "Unmarshalling", test.lastLine, "permission"), log.Lines().back());
        if (info != nullptr) {
            EXPECT_EQ(shown, info->shownStates);
            EXPECT_EQ(std::unordered_set<std::string>(disabled.begin(), disabled.end()), info->disabledStates);
        } else {
            EXPECT_TRUE(IsLastNothrowNewDeleted());
        }
    }
}

TEST(AppPermissionGroupInfo, RepeatedDisabledStatesCollapse)
{
    Parcel parcel;
    PutAll(parcel, "bundle", 1, "group", "state", 0, 2, "never", "never", "reason", int64_t{9});
    const sptr<AppPermissionGroupInfo> info(AppPermissionGroupInfo::Unmarshalling(parcel));
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(std::unordered_set<std::string>{"never"}, info->disabledStates);
    EXPECT_EQ(9, info->flags);
}

// The six lists of a query in wire order, set to `count` elements.
void SetList(PermissionUsageRecordQuery& query, size_t list, size_t count)
{
    const std::vector<int> numbers(count, -1);
    const std::vector<std::function<void()>> setters = {[&] { query.SetBundleNames(MakeNames(count, "b")); },
                                                        [&] { query.SetUserIds(numbers); },
                                                        [&] { query.SetOperationGroups(MakeNames(count, "o")); },
                                                        [&] { query.SetOperationModes(numbers); },
                                                        [&] { query.SetAppStates(numbers); },
                                                        [&] { query.SetScreenStates(numbers); }};
    setters.at(list)();
}

TEST(PermissionUsageRecordQuery, ListsOfOneHundredAreRefusedInBothDirections)
{
    for (size_t list = 0; list < 6; ++list) {
        PermissionUsageRecordQuery query;
        SetList(query, list, 99);
        Parcel accepted;
        ASSERT_TRUE(query.Marshalling(accepted));
        const sptr<PermissionUsageRecordQuery> read(PermissionUsageRecordQuery::Unmarshalling(accepted));
        ASSERT_NE(nullptr, read);
        EXPECT_EQ(query.ToString(), read->ToString());

        SetList(query, list, 100);
        Parcel refused;
        EXPECT_FALSE(query.Marshalling(refused));
        std::vector<int32_t> counts(list, 0);
        counts.push_back(100);
        EXPECT_EQ(counts, TakeWords(refused)) << "the count is written before it is tested, and nothing after it";

        for (const int32_t count : {100, HIGHEST}) {
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
    PutAll(parcel, -5, 2, 100, 100, LOWEST, -1, 0, -1, int64_t{1}, int64_t{2}, 3, 4);
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

const std::vector<LongList>& LongLists()
{
    static const std::vector<LongList> lists = {
        {"GTokenInfo", [](Parcel& parcel) { PutAll(parcel, "bundle", "print", int64_t{1}); },
         [](Parcel& parcel) { PutAll(parcel, "policy", int64_t{2}); }, "gTokenPolicies size is too big"},
        {"GTokenResultWithRet", [](Parcel& parcel) { Put(parcel, int64_t{1}); },
         [](Parcel& parcel) { PutAll(parcel, "bundle", "print", int64_t{2}, int64_t{3}); },
         "gTokenResults size is too big"}};
    return lists;
}

TEST(LongListsOfTenThousand, AreReadAndNegativeCountsAreEmpty)
{
    const LogCapture quiet(ERROR);
    for (const LongList& list : LongLists()) {
        for (const int32_t count : {10000, 0, -1, LOWEST}) {
            Parcel parcel;
            list.putHead(parcel);
            Put(parcel, count);
            const size_t head = parcel.GetDataSize();
            for (int i = 0; i < 10000; ++i) {
                list.putElement(parcel);
            }
            const size_t elements = parcel.GetDataSize() - head;
            const sptr<Parcelable> record = CaseOf(list.name).unmarshal(parcel);
            ASSERT_NE(nullptr, record) << list.name << count;
            EXPECT_EQ(count > 0 ? 0 : elements, parcel.GetReadableBytes()) << list.name << count;
            Parcel again;
            ASSERT_TRUE(record->Marshalling(again));
            EXPECT_EQ(count > 0 ? head + elements : head, again.GetDataSize()) << list.name << count;
        }
    }
    EXPECT_TRUE(quiet.Lines().empty());
}

TEST(LongListsOfTenThousand, AreExceededWithAnErrorLineAndTheRecordIsLeft)
{
    for (const LongList& list : LongLists()) {
        for (const int32_t count : {10001, HIGHEST}) {
            Parcel parcel;
            list.putHead(parcel);
            Put(parcel, count);
            LogCapture log;
            EXPECT_EQ(nullptr, CaseOf(list.name).unmarshal(parcel));
            EXPECT_EQ(std::vector<std::string>{Line(ERROR, "Unmarshalling", list.excess, "GToken")}, log.Lines(ERROR));
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
    ASSERT_TRUE(info.Marshalling(parcel));
    ASSERT_TRUE(results.Marshalling(parcel));
    const std::vector<int32_t> words = TakeWords(parcel);
    // Empty strings take two words, as 64-bit numbers do.
    ASSERT_EQ((6 + 1 + 10001 * 4) + (2 + 1 + 10001 * 8), words.size());
    EXPECT_EQ(10001, words[6]);
    EXPECT_EQ(10001, words[6 + 1 + 10001 * 4 + 2]);
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
