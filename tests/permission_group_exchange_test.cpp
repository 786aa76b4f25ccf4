// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "support/exchange.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Infos = std::vector<Permission::AppPermissionGroupInfo>;

constexpr uint32_t BY_APP = MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP;
constexpr uint32_t BY_PERMISSION = MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION;
constexpr uint32_t SET = MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE;

// The two requests for lists: how much each may ask for, and how each names itself in the log.
struct ListRequest {
    uint32_t code;
    int32_t limit;
    std::string limited;
    std::string name;
};
const std::vector<ListRequest> listRequests = {{BY_APP, 50, "interestedPermissionGroupsSize", "ByApp"},
                                               {BY_PERMISSION, 10000, "interestedBundleNamesSize", "ByPermission"}};

template <class Target>
int32_t Ask(Target& target, uint32_t code, const std::vector<std::string>& interested, Infos& infos)
{
    const std::unordered_set<std::string> set(interested.begin(), interested.end());
    return code == BY_APP ? target.GetAppPermissionGroupInfosByApp("x", 1, set, infos)
                          : target.GetAppPermissionGroupInfosByPermission("x", 1, set, infos);
}

class PermissionGroups : public ExchangeTest {};
INSTANTIATE_TEST_SUITE_P(Roads, PermissionGroups, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(PermissionGroups, OnlyAsManyInterestsAsTheServiceAcceptsAreSent)
{
    const LogCapture quiet(ERROR);
    for (const ListRequest& request : listRequests) {
        for (const int32_t count : {0, request.limit, request.limit + 1}) {
            const std::vector<std::string> names = MakeNames(static_cast<size_t>(count), "name");
            Infos infos;
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
            Infos infos(1);
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

TEST(PermissionGroupReplies, AreReadWithinTheirLimits)
{
    const Permission::AppPermissionGroupInfo info = MakeAppPermissionGroupInfo();
    Permission::AppPermissionGroupInfo other = info;
    other.bundleName = "other";
    // Ends where its reader gives up: at the count of states.
    Parcel broken;
    PutAll(broken, 1, "bundle", 1, "group", "state", 51);
    const std::vector<int32_t> brokenWords = TakeWords(broken);
    for (const ListRequest& request : listRequests) {
        const std::string tooBig = request.name + " return size too big.";
        struct Case {
            sptr<ScriptedObject> object;
            int32_t result;
            std::vector<std::string> bundles;
            std::string line;
        };
        const std::vector<Case> cases = {
            {Replying(7, 1, info), 7, {}, "result is 7."},
            {Replying(-1), -1, {}, "result is -1."},
            {Replying(0, 10001, info), 0, {}, tooBig},
            {Replying(0, INT32_MAX, info), 0, {}, tooBig},
            {Replying(0, INT32_MIN, info), 0, {}, ""},
            {Replying(), 0, {}, ""},
            {Replying(0, 10000, info), 0, {info.bundleName}, ""},
            {Replying(0, 3, info, 0, other), 0, {info.bundleName, "other"}, ""},
            {Replying(0, 3, info, brokenWords, other), 0, {info.bundleName, "other"}, ""},
        };
        for (const Case& test : cases) {
            const LogCapture log(ERROR);
            Infos infos(1);
            EXPECT_EQ(test.result, Ask(*ProxyOver(test.object), request.code, {}, infos));
            ASSERT_EQ(1 + test.bundles.size(), infos.size());
            for (size_t i = 0; i < test.bundles.size(); ++i) {
                EXPECT_EQ(test.bundles[i], infos[i + 1].bundleName);
            }
            EXPECT_EQ(OperationOf(request.code).Says(ERROR, test.line), log.Lines());
        }
    }
}

TEST(PermissionGroupReplies, OfASetAreReadWhateverTheResult)
{
    bool returns = false;
    const Permission::CheckedStateParameter parameter;
    EXPECT_EQ(-8, ProxyOver(Replying(-8, true))->SetAppPermissionGroupCheckedState("x", 1, "x", parameter, returns));
    EXPECT_TRUE(returns);
    EXPECT_EQ(0, ProxyOver(Replying())->SetAppPermissionGroupCheckedState("x", 1, "x", parameter, returns));
    EXPECT_FALSE(returns);
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
