// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
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
using Words = std::vector<int32_t>;

TEST(EveryRecord, PartOfItIsNeitherReadNorTakenForWritten)
{
    for (const RecordCase& record : RecordCases()) {
        Parcel whole;
        PutText(whole, record.values);
        for (Words words = TakeWords(whole); !words.empty();) {
            Parcel full;
            ASSERT_TRUE(full.SetMaxCapacity(words.size() * sizeof(int32_t) - 1));
            words.pop_back();
            SCOPED_TRACE(record.name + std::to_string(words.size()));
            Parcel parcel;
            Put(parcel, words);
            allocations = {};
            EXPECT_EQ(nullptr, record.unmarshal(parcel));
            EXPECT_EQ(0, allocations.bytes) << "it keeps what it has read";

            EXPECT_FALSE(record.record->Marshalling(full));
            const Words written = TakeWords(full);
            ASSERT_LE(written.size(), words.size());
            EXPECT_EQ(Words(words.data(), words.data() + written.size()), written) << "it goes on after a failure";
        }
    }
}

TEST(AppPermissionGroupInfo, AtMostFiftyStatesAreWritten)
{
    AppPermissionGroupInfo info;
    for (int state = 0; state < 51; ++state) {
        info.shownStates.push_back(std::to_string(state));
        info.disabledStates.insert(std::to_string(state));
    }
    Parcel parcel;
    ASSERT_TRUE(info.Marshalling(parcel));
    const sptr<AppPermissionGroupInfo> read(AppPermissionGroupInfo::Unmarshalling(parcel));
    ASSERT_NE(nullptr, read);
    info.shownStates.pop_back();
    EXPECT_EQ(info.shownStates, read->shownStates);
    EXPECT_THAT(read->disabledStates,
                ::testing::AllOf(::testing::SizeIs(50), ::testing::IsSubsetOf(info.disabledStates)));
}

TEST(PermissionUsageRecordQuery, ListsOfOneHundredAreRefusedAfterTheirCount)
{
    PermissionUsageRecordQuery query;
    const std::vector<int> numbers(100);
    const std::vector<std::string> names(100);
    // Against the wire order: the first list that is too long ends it.
    const std::function<void()> lengthen[] = {
        [&] { query.SetScreenStates(numbers); },   [&] { query.SetAppStates(numbers); },
        [&] { query.SetOperationModes(numbers); }, [&] { query.SetOperationGroups(names); },
        [&] { query.SetUserIds(numbers); },        [&] { query.SetBundleNames(names); },
    };
    Words counts = {0, 0, 0, 0, 0, 0};
    for (const auto& act : lengthen) {
        act();
        counts.back() = 100;
        Parcel refused;
        EXPECT_FALSE(query.Marshalling(refused));
        EXPECT_EQ(counts, TakeWords(refused));
        counts.pop_back();
    }
}

TEST(PermissionUsageRecordQuery, InnerReadingAppendsAndOwnsWhatItIsGiven)
{
    allocations = {};
    {
        const PermissionUsageRecordQuery query = Sample<PermissionUsageRecordQuery>();
        Parcel parcel;
        ASSERT_TRUE(query.Marshalling(parcel) && query.Marshalling(parcel));
        EXPECT_EQ(nullptr, PermissionUsageRecordQuery::UnmarshallingInner(parcel, nullptr));
        const sptr<PermissionUsageRecordQuery> given(new PermissionUsageRecordQuery());
        given->SetUserIds({7});
        given->SetLimit(7);
        EXPECT_EQ(given.Get(), PermissionUsageRecordQuery::UnmarshallingInner(parcel, given.Get()));
        EXPECT_EQ((std::vector<int>{7, 100, 100, 0}), given->GetUserIds());
        EXPECT_EQ(query.GetLimit(), given->GetLimit());
        EXPECT_EQ(1, given->StrongCount());
    }
    Parcel empty;
    EXPECT_EQ(nullptr, PermissionUsageRecordQuery::UnmarshallingInner(empty, new PermissionUsageRecordQuery()));
    EXPECT_EQ(0, allocations.bytes);
}

TEST(LongListsOfTenThousand, AreExceededWithTheRecordLeftUndestroyed)
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

TEST(LongListsOfTenThousand, AreNotALimitForWriting)
{
    GTokenInfo info;
    info.policies.resize(10001);
    GTokenResultWithRet results;
    results.gTokenResults.resize(10001);
    Parcel parcel;
    EXPECT_TRUE(info.Marshalling(parcel) && results.Marshalling(parcel));
    Parcel expected;
    PutText(expected, "'' '' 0L 10001 10001*'',0L 0L 10001 10001*'','',0L,0L");
    EXPECT_EQ(TakeWords(expected), TakeWords(parcel));
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
