// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/allocation.h"
#include "support/log_capture.h"
#include "support/parcels.h"
#include "support/record_cases.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Permission::AppPermissionGroupInfo;
using Record::PermissionUsageRecordQuery;

// Reads and writes each record where only a part of it is there: its values one by one, and the words within them.
TEST(EveryRecord, TruncatedAnywhereYieldsNullAndFreesThePart)
{
    for (const RecordCase& record : RecordCases()) {
        Parcel whole;
        Put(whole, record.values);
        const std::vector<int32_t> words = TakeWords(whole);
        for (size_t cut = 0; cut < words.size(); ++cut) {
            Parcel parcel;
            Put(parcel, std::vector<int32_t>(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(cut)));
            EXPECT_EQ(nullptr, record.unmarshal(parcel)) << record.name << cut;
            EXPECT_TRUE(IsLastNothrowNewDeleted()) << record.name << cut;
        }
    }
}

TEST(EveryRecord, FailedWriteStopsThere)
{
    for (const RecordCase& record : RecordCases()) {
        Parcel whole;
        for (const Value& value : record.values) {
            const size_t begin = whole.GetDataSize();
            Put(whole, value);
            for (const size_t capacity : {begin, whole.GetDataSize() - 1}) {
                Parcel parcel;
                ASSERT_TRUE(parcel.SetMaxCapacity(capacity));
                EXPECT_FALSE(record.record->Marshalling(parcel)) << record.name << capacity;
                EXPECT_EQ(begin, parcel.GetDataSize()) << "what was written before stays";
            }
        }
    }
}

TEST(AppPermissionGroupInfo, AtMostFiftyStatesAreWritten)
{
    AppPermissionGroupInfo info;
    info.shownStates = MakeNames(51, "shown");
    const std::vector<std::string> states = MakeNames(51, "disabled");
    info.disabledStates = {states.begin(), states.end()};
    const std::vector<std::string> disabled(info.disabledStates.begin(), std::next(info.disabledStates.begin(), 50));
    Parcel expected;
    PutAll(expected, "", 0, "", "", 50, MakeNames(50, "shown"), 50, disabled, "", int64_t{0});
    Parcel parcel;
    ASSERT_TRUE(info.Marshalling(parcel));
    EXPECT_EQ(TakeWords(expected), TakeWords(parcel));
}

TEST(PermissionUsageRecordQuery, ListsOfOneHundredAreRefusedAfterTheirCount)
{
    PermissionUsageRecordQuery query;
    const auto expectRefusal = [&query](size_t listsBefore) {
        Parcel refused;
        EXPECT_FALSE(query.Marshalling(refused));
        std::vector<int32_t> counts(listsBefore);
        counts.push_back(100);
        EXPECT_EQ(counts, TakeWords(refused));
    };
    // Against the wire order: the first list that is too long ends it.
    query.SetScreenStates(std::vector<int>(100, -1));
    expectRefusal(5);
    query.SetAppStates(std::vector<int>(100, -1));
    expectRefusal(4);
    query.SetOperationModes(std::vector<int>(100, -1));
    expectRefusal(3);
    query.SetOperationGroups(MakeNames(100, "o"));
    expectRefusal(2);
    query.SetUserIds(std::vector<int>(100, -1));
    expectRefusal(1);
    query.SetBundleNames(MakeNames(100, "b"));
    expectRefusal(0);
}

TEST(PermissionUsageRecordQuery, InnerReadingAppendsAndOwnsWhatItIsGiven)
{
    struct Watched : PermissionUsageRecordQuery {
        explicit Watched(int& counter) : destroyed(counter) {}
        ~Watched() override { ++destroyed; }
        int& destroyed;
    };
    int destroyed = 0;
    const PermissionUsageRecordQuery query = Sample<Record::PermissionUsageRecordQuery>();
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

TEST(LongListsOfTenThousand, AreExceededWithTheRecordLeftUndestroyed)
{
    for (const char* name : {"GTokenInfo", "GTokenResultWithRet"}) {
        const LogCapture quiet(ERROR);
        Parcel parcel;
        name[6] == 'I' ? PutAll(parcel, "", "", int64_t{1}, 10001) : PutAll(parcel, int64_t{1}, 10001);
        EXPECT_EQ(nullptr, CaseOf(name).unmarshal(parcel));
        EXPECT_FALSE(IsLastNothrowNewDeleted()) << name;
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
