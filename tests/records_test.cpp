// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

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

TEST(PermissionUsageRecordQuery, InnerReadingAppendsAndListsOfOneHundredAreRefusedAfterTheirCount)
{
    for (int list = 0; list < 6; ++list) {
        const std::string before = std::to_string(list) + "*0 ";
        const std::string half = before + "50 50*" + (list == 0 || list == 2 ? "''" : "7") + ' ' +
                                 std::to_string(5 - list) + "*0 0L 0L 0 0 ";
        Parcel parcel;
        PutText(parcel, half + half);
        const sptr<PermissionUsageRecordQuery> query(new PermissionUsageRecordQuery());
        EXPECT_EQ(query.Get(), PermissionUsageRecordQuery::UnmarshallingInner(parcel, query.Get()));
        EXPECT_EQ(query.Get(), PermissionUsageRecordQuery::UnmarshallingInner(parcel, query.Get()));
        Parcel refused;
        EXPECT_FALSE(query->Marshalling(refused));
        Parcel expected;
        PutText(expected, before + "100");
        EXPECT_EQ(TakeWords(expected), TakeWords(refused)) << list;
    }
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
