// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "common/json_input.h"
#include "common/result_codes.h"
#include "service/feed.h"
#include "service/security_privacy_service.h"
#include "support/log_capture.h"

namespace SecurityPrivacyTools {
namespace {

using nlohmann::json;
using VARN::sptr;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing::LogCapture;
using Names = std::unordered_set<std::string>;
using Texts = std::vector<std::string>;

constexpr auto BY_APP = &SecurityPrivacyService::GetAppPermissionGroupInfosByApp;
constexpr auto BY_GROUP = &SecurityPrivacyService::GetAppPermissionGroupInfosByPermission;

PermissionUsageRecordQuery Query(const std::string& text)
{
    const json fields = json::parse(text);
    PermissionUsageRecordQuery query;
    query.SetBundleNames(fields.value("apps", Texts()));
    query.SetUserIds(fields.value("users", std::vector<int>()));
    query.SetOperationGroups(fields.value("groups", Texts()));
    query.SetOperationModes(fields.value("modes", std::vector<int>()));
    query.SetAppStates(fields.value("states", std::vector<int>()));
    query.SetScreenStates(fields.value("screens", std::vector<int>()));
    query.SetBeginTimestamp(fields.value("begin", int64_t{0}));
    query.SetEndTimestamp(fields.value("end", int64_t{0}));
    query.SetLimit(fields.value("limit", 0));
    query.SetOrder(fields.value("order", 0));
    return query;
}

GTokenInfo Bundle(const std::string& name, const std::string& fingerprint, const std::string& policy, int64_t value = 1)
{
    GTokenInfo info;
    info.bundleName = name;
    info.fingerprint = fingerprint;
    info.versionCode = 9;
    info.policies.resize(1);
    info.policies[0].policyName = policy;
    info.policies[0].policyValue = value;
    return info;
}

// "bundle,fingerprint,version,value " of each row; the result alone when it is another than 0.
std::string Policies(const sptr<SecurityPrivacyService>& service, const std::string& policy, const Texts& names)
{
    const GTokenResultWithRet result = service->GTokenPolicyGetPolicy(policy, names);
    std::string text = result.ret == RESULT_OK ? "" : std::to_string(result.ret);
    for (const auto& row : result.gTokenResults) {
        text += row.bundleName + "," + row.fingerprint + "," + std::to_string(row.versionCode) + "," +
                std::to_string(row.policyValue) + " ";
    }
    return text;
}

class ServiceTest : public testing::Test {
protected:
    ServiceTest() { Import(database_, device_); }
    ~ServiceTest() override { std::filesystem::remove_all(folder_); }

    ImportCounts Import(Database& database, const json& device)
    {
        std::ofstream(folder_ + "/device") << device;
        return ImportDevice(database, folder_ + "/device", 0);
    }

    // The times of each record; the result alone when it is another than 0.
    std::vector<int32_t> Timeline(const std::string& query)
    {
        std::vector<PermissionUsageRecord> records;
        const int32_t result = service_->GetPermissionUsageTimeline(Query(query), records);
        std::vector<int32_t> times(result == RESULT_OK ? 0 : 1, result);
        for (const PermissionUsageRecord& record : records) {
            times.push_back(record.GetTimes());
        }
        return times;
    }
    // "bundle uid group state flags: shown states, a star behind disabled ones; reason|" of each; the result alone when
    // it is another than 0.
    template <class Lister>
    std::string List(Lister lister, const std::string& name, int32_t user, const Names& wanted = {})
    {
        std::vector<AppPermissionGroupInfo> infos;
        const int32_t result = (*service_.*lister)(name, user, wanted, infos);
        std::string text = result == RESULT_OK ? "" : std::to_string(result);
        for (const AppPermissionGroupInfo& info : infos) {
            text += info.bundleName + " " + std::to_string(info.uid) + " " + info.permissionGroup + " " +
                    info.checkedState + " " + std::to_string(info.flags) + ":";
            for (const std::string& state : info.shownStates) {
                text += " " + state + (info.disabledStates.count(state) != 0 ? "*" : "");
            }
            text += info.disabledReason + "|";
        }
        return text;
    }
    int32_t Set(const std::string& app, int32_t uid, const char* group, const char* state, int64_t mask, int64_t value)
    {
        CheckedStateParameter parameter;
        parameter.checkedState = state;
        parameter.flagsMask = mask;
        parameter.flagsValue = value;
        return service_->SetAppPermissionGroupCheckedState(app, uid, group, parameter, isChanged_);
    }

    char template_[32] = "/tmp/service_testXXXXXX";
    const std::string folder_ = ::mkdtemp(template_);
    // The times of its usage events are powers of two, so that they tell one from the others, in sums as well.
    const json device_ = json::parse(ReadFile(DEVICE_PATH, 100000));
    Database database_{""};
    const sptr<SecurityPrivacyService> service_{new SecurityPrivacyService(database_, {::getuid()})};
    const sptr<SecurityPrivacyService> foreign_{new SecurityPrivacyService(database_, {::getuid() + 1})};
    bool isChanged_ = false;
};

TEST_F(ServiceTest, QueryAdmitsWhatMeetsAllItsFilters)
{
    const std::pair<const char*, std::vector<int32_t>> cases[] = {
        {R"({})", {1, 8, 32, 16, 4, 2, 64}},
        {R"({"order": 1})", {64, 2, 8, 32, 16, 4, 1}},
        {R"({"apps": ["maps"]})", {1, 32, 16, 4, 2}},
        {R"({"apps": ["chat"], "order": 1})", {64, 8}},
        {R"({"apps": ["chat", "maps", "chat"], "limit": 2})", {1, 8}},
        {R"({"apps": ["nobody"]})", {}},
        {R"({"apps": ["no'\u0000body", "chat"]})", {8, 64}},
        {R"({"users": [101]})", {4}},
        {R"({"apps": ["maps"], "users": [100]})", {1, 32, 16, 2}},
        {R"({"apps": ["chat"], "users": [101]})", {}},
        {R"({"groups": ["LOCATION"]})", {16}},
        {R"({"groups": ["LOCATION", "CAMERA"], "limit": 3})", {1, 8, 32}},
        {R"({"modes": [1]})", {8, 4, 64}},
        {R"({"states": [1]})", {8, 16, 64}},
        {R"({"screens": [2, 1]})", {8, 32, 16, 4}},
        {R"({"apps": ["maps"], "users": [100, 101], "groups": ["CAMERA"], "modes": [0], "states": [0], "screens": [1],
             "begin": 2000, "end": 2001})",
         {32}},
        {R"({"begin": 3000})", {2, 64}},
        {R"({"begin": 3001})", {64}},
        {R"({"end": 2000})", {1}},
        {R"({"end": 2001, "limit": 2, "order": 1})", {8, 32}},
        {R"({"begin": 2000, "end": 2000})", {}},
        {R"({"limit": 1})", {1}},
        {R"({"limit": 2147483647})", {1, 8, 32, 16, 4, 2, 64}},
        // Times take more than 32 bits.
        {R"({"begin": 4294967296})", {}},
        {R"({"end": 4294967297, "limit": 1})", {1}},
        {R"({"order": 2})", {RESULT_BAD_ORDER}},
        {R"({"order": -1})", {RESULT_BAD_ORDER}},
        {R"({"limit": -1})", {RESULT_BAD_LIMIT}},
    };
    for (const auto& [query, expected] : cases) {
        EXPECT_EQ(expected, Timeline(query)) << query;
    }
}

TEST_F(ServiceTest, SummaryAddsUpTimesAloneAndSaturates)
{
    json device = device_;
    device["usageEvents"].push_back(device["usageEvents"].back());
    device["usageEvents"].back().update({{"times", std::numeric_limits<int32_t>::max()}, {"end", 4294967296}});
    EXPECT_EQ(1, Import(database_, device).usageEvents) << "the others are there already";
    std::vector<PermissionUsageRecord> sums(1);  // what is there already stays as it is
    EXPECT_EQ(RESULT_OK, service_->GetPermissionUsageSummary(Query(R"({"order": 1})"), sums));
    std::ostringstream text;
    for (const PermissionUsageRecord& sum : sums) {
        text << sum.GetUid() << ' ' << sum.GetOperationMode() << ' ' << sum.GetAppState() << ' ' << sum.GetScreenState()
             << ' ' << sum.GetTimes() << ' ' << sum.GetBeginTimestamp() << ' ' << sum.GetEndTimestamp() << ' '
             << sum.GetBundleName() << ' ' << sum.GetOperationGroup() << '\n';
    }
    EXPECT_EQ(
        "-1 0 0 0 0 0 0  \n12 1 1 0 2147483647 4000 4294967296 chat CAMERA\n12 1 1 2 8 2000 2100 chat CAMERA\n"
        "11 0 0 1 32 2000 2001 maps CAMERA\n11 0 1 1 16 2000 2200 maps LOCATION\n"
        "21 1 0 1 4 2000 2500 maps CAMERA\n11 0 0 0 3 1000 3001 maps CAMERA\n",
        text.str());
    EXPECT_EQ(RESULT_OK, service_->GetPermissionUsageSummary(Query(R"({"order": 1, "limit": 2})"), sums));
    ASSERT_EQ(9U, sums.size()) << "two more";
    EXPECT_EQ(4000, sums[7].GetBeginTimestamp()) << "the newest of all, not of the first that were found";
}

TEST_F(ServiceTest, TimelineStopsReadingOnePastAnAnswer)
{
    database_.Write([](Connection& connection) {
        connection.exec(
            "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 12000) INSERT INTO usage "
            "SELECT NULL, i + 9000, i + 9000, app.id, permission_group.id, 0, 0, 0, 1 FROM n, app, permission_group "
            "WHERE uid = 12 AND name = 'CAMERA'");
    });
    EXPECT_EQ(10001U, Timeline("{}").size());
    EXPECT_EQ(10001U, Timeline(R"({"limit": 11000})").size());
    EXPECT_EQ(10000U, Timeline(R"({"limit": 10000, "apps": ["chat"]})").size());
    EXPECT_EQ(1000, DropUsageBefore(database_, 10000)) << "a bounded number at a time";
    EXPECT_EQ(6, DropUsageBefore(database_, 10000)) << "what began before, not at the time";
    EXPECT_EQ(0, DropUsageBefore(database_, 10000));
}

TEST_F(ServiceTest, GroupsComeInTheOrderOfTheDeviceWithWhatWasChosen)
{
    const std::string location = "maps 11 LOCATION ask 6: allow* ask deny!|";
    const std::string camera = "maps 11 CAMERA deny 0: allow deny|";
    const std::string chat = "chat 12 CAMERA allow 2: allow|";
    EXPECT_EQ(location + camera, List(BY_APP, "maps", 100));
    EXPECT_EQ(camera, List(BY_APP, "maps", 100, {"CAMERA", "SMS"}));
    EXPECT_EQ("", List(BY_APP, "maps", 100, {"SMS"}));
    EXPECT_EQ("1001", List(BY_APP, "maps", 102));
    EXPECT_EQ("1002", List(BY_APP, "chat", 101));
    EXPECT_EQ(camera + chat, List(BY_GROUP, "CAMERA", 100));
    EXPECT_EQ(chat, List(BY_GROUP, "CAMERA", 100, {"chat", "nobody"}));
    EXPECT_EQ("", List(BY_GROUP, "SMS", 100));
    EXPECT_EQ("1001", List(BY_GROUP, "CAMERA", 102));
    EXPECT_EQ("1003", List(BY_GROUP, "NFC", 100));

    const struct {
        const char *app, *group, *state;
        int32_t uid;
        int64_t mask, value;
        int32_t expected;
        bool isChanged;
        std::string then;
    } changes[] = {
        {"maps", "LOCATION", "ask", 12, 0, 0, RESULT_UNKNOWN_APP, false, location},
        {"nobody", "LOCATION", "ask", 11, 0, 0, RESULT_UNKNOWN_APP, false, location},
        {"maps", "SMS", "ask", 11, 0, 0, RESULT_UNKNOWN_PERMISSION_GROUP, false, location},
        {"maps", "LOCATION", "never", 11, 0, 0, RESULT_STATE_NOT_SHOWN, false, location},
        {"maps", "LOCATION", "allow", 11, 0, 0, RESULT_STATE_DISABLED, false, location},
        {"maps", "LOCATION", "ask", 11, 0, -1, RESULT_OK, false, location},
        {"maps", "LOCATION", "ask", 11, 3, 5, RESULT_OK, true, "maps 11 LOCATION ask 5: allow* ask deny!|"},
        {"maps", "LOCATION", "deny", 11, 0, 0, RESULT_OK, true, "maps 11 LOCATION deny 5: allow* ask deny!|"},
        {"maps", "LOCATION", "deny", 11, 4, 4, RESULT_OK, false, "maps 11 LOCATION deny 5: allow* ask deny!|"},
    };
    for (const auto& row : changes) {
        SCOPED_TRACE(std::string(row.app) + row.group + row.state + std::to_string(row.value));
        isChanged_ = !row.isChanged;
        EXPECT_EQ(row.expected, Set(row.app, row.uid, row.group, row.state, row.mask, row.value));
        EXPECT_EQ(row.isChanged, isChanged_);
        EXPECT_EQ(row.then + camera, List(BY_APP, "maps", 100));
    }

    // Another device file: choices stay where they are still offered, and what the file does not name is gone.
    EXPECT_EQ(RESULT_OK, Set("maps", 11, "CAMERA", "allow", 0, 0));
    json device = device_;
    device["users"] = {100};
    device["apps"].erase(1);
    device["apps"][0]["installations"].erase(1);
    device["apps"][0]["installations"][0]["uid"] = 21;
    device["apps"][0]["installations"][0]["groups"][0]["disabledStates"].push_back("deny");
    device["usageEvents"].clear();
    EXPECT_EQ(1, Import(database_, device).droppedChoices);
    EXPECT_EQ("maps 21 LOCATION ask 6: allow* ask deny*!|maps 21 CAMERA allow 0: allow deny|",
              List(BY_APP, "maps", 100));
    EXPECT_EQ("1001", List(BY_APP, "maps", 101));
    EXPECT_EQ((std::vector<int32_t>{1, 32, 16, 2}), Timeline("{}"));
}

TEST_F(ServiceTest, PoliciesOfABatchAreStoredTogetherOrNotAtAll)
{
    const std::string name255(255, 'n');
    const std::string print1024(1024, 'f');
    const std::pair<GTokenInfo, int32_t> additions[] = {
        {Bundle("maps", "F2", "p"), RESULT_FINGERPRINT_MISMATCH},
        {Bundle("b", "", "p"), RESULT_BAD_NAME},
        {Bundle("a b", "F", "p"), RESULT_BAD_NAME},
        {Bundle("b", "F", "\u00e4"), RESULT_BAD_NAME},
        {Bundle(name255 + "n", "F", "p"), RESULT_TOO_LONG},
        {Bundle("b", print1024 + "f", "p"), RESULT_TOO_LONG},
        {Bundle("b", "F", name255 + "n"), RESULT_TOO_LONG},
        {Bundle(name255, print1024, name255), RESULT_OK},
    };
    for (const auto& [last, expected] : additions) {
        SCOPED_TRACE(last.bundleName + " " + last.fingerprint + " " + last.policies[0].policyName);
        EXPECT_EQ(expected, service_->GTokenPolicyAddPolicy({Bundle("first", "F", "p"), last}));
        EXPECT_EQ(expected == RESULT_OK ? "first,F,9,1 " : "", Policies(service_, "p", {"first"}));
    }
    EXPECT_EQ(name255 + "," + print1024 + ",9,1 ", Policies(service_, name255, {name255}));
    EXPECT_EQ("maps,F1,3,7 ", Policies(service_, "p", {"maps"}));
    EXPECT_EQ(RESULT_OK, service_->GTokenPolicyAddPolicy({Bundle("maps", "F1", "q")}));
    EXPECT_EQ("maps,F1,9,7 first,F,9,1 maps,F1,9,7 ", Policies(service_, "p", {"maps", "nobody", "first", "maps"}));
    EXPECT_EQ("maps,,9,7 ", Policies(foreign_, "p", {"maps"})) << "fingerprints are for those who may change";
    EXPECT_EQ("", Policies(service_, "none", {"maps"}));

    EXPECT_EQ("1013", Policies(service_, name255, Texts(3500, name255))) << "more than an answer may have";
    EXPECT_EQ(3500U, foreign_->GTokenPolicyGetPolicy(name255, Texts(3500, name255)).gTokenResults.size());

    EXPECT_EQ(RESULT_UNKNOWN_BUNDLE, service_->GTokenPolicyRemovePolicy({"maps", "nobody"}));
    EXPECT_EQ(RESULT_OK, service_->GTokenPolicyRemovePolicy({"maps", "maps", "first"}));
    EXPECT_EQ("", Policies(service_, "p", {"maps", "first"}));
    database_.Read([](Connection& connection) {
        EXPECT_EQ(1, connection.execAndGet("SELECT count(*) FROM policy").getInt()) << "they go with their bundles";
    });
}

TEST_F(ServiceTest, ChangesAreForTheChangersAndReadingForAll)
{
    SecurityPrivacyService readOnly(database_, {::getuid()}, true);
    for (uint32_t code = 0; code < 16; ++code) {
        const bool isChange = code == 3 || code == 11 || code == 13;
        EXPECT_TRUE(service_->IsMessageCodeAllowed(code)) << code;
        EXPECT_EQ(!isChange, foreign_->IsMessageCodeAllowed(code)) << code;
        EXPECT_EQ(!isChange, readOnly.IsMessageCodeAllowed(code)) << code;
    }
}

void ExpectWhole(Database& database)
{
    database.Read([](Connection& connection) {
        EXPECT_EQ("ok", connection.execAndGet("PRAGMA integrity_check").getString());
        EXPECT_EQ(0, connection.execAndGet("SELECT count(*) FROM pragma_foreign_key_check").getInt());
        EXPECT_EQ(2, connection.execAndGet("PRAGMA synchronous").getInt()) << "an answer waits for the disk";
    });
}

// The service is killed while it makes one change after the other; whatever it had answered is there.
TEST_F(ServiceTest, AcknowledgedChangesOutliveTheProcess)
{
    const std::string path = folder_ + "/device.db";
    int64_t acknowledged = 0;
    for (int round = 1; round <= 12; ++round) {
        int answers[2];
        ASSERT_EQ(0, ::pipe(answers));
        const pid_t child = ::fork();
        if (child == 0) {
            Database database(path);
            SecurityPrivacyService service(database, {::getuid()});
            for (int64_t next = acknowledged + 1;; ++next) {
                const auto batch = {Bundle("b", "F", "q", next), Bundle("b", "F", "p", next)};
                if (service.GTokenPolicyAddPolicy(batch) != RESULT_OK || ::write(answers[1], &next, 8) != 8) {
                    ::_exit(1);
                }
            }
        }
        ::close(answers[1]);
        for (int answer = 0; answer < round; ++answer) {
            ASSERT_EQ(8, ::read(answers[0], &acknowledged, 8));
        }
        ::kill(child, SIGKILL);
        ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
        while (::read(answers[0], &acknowledged, 8) == 8) {
        }
        ::close(answers[0]);

        Database database(path);
        ExpectWhole(database);
        const sptr<SecurityPrivacyService> service(new SecurityPrivacyService(database, {::getuid()}));
        const int64_t stored = service->GTokenPolicyGetPolicy("p", {"b"}).gTokenResults.at(0).policyValue;
        EXPECT_THAT(stored, testing::AnyOf(acknowledged, acknowledged + 1)) << "at most one was under way";
        EXPECT_EQ("b,F,9," + std::to_string(stored) + " ", Policies(service, "q", {"b"})) << "both or neither";
        acknowledged = stored;
    }
}

TEST_F(ServiceTest, ChangeOnAFullDiskIsRefusedWhole)
{
    Database database(folder_ + "/device.db");
    Import(database, device_);
    const sptr<SecurityPrivacyService> service(new SecurityPrivacyService(database, {::getuid()}));
    std::vector<GTokenInfo> batch{Bundle("b", "F", "p")};
    json device = device_;
    for (int number = 0; number < 600; ++number) {
        batch.push_back(Bundle("b" + std::to_string(number), std::string(1000, 'f'), "p"));
        device["permissionGroups"].push_back(std::to_string(number) + std::string(250, 'g'));
    }
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit most = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &most));
    for (const rlim_t bytes : {0U, 50000U, 150000U}) {
        SCOPED_TRACE(bytes);
        const LogCapture said;
        const rlimit little = {bytes, most.rlim_max};
        std::ofstream(folder_ + "/device") << device;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &little)) << "no file may grow beyond it";
        EXPECT_EQ(RESULT_NOT_SAVED, service->GTokenPolicyAddPolicy(batch));
        EXPECT_THROW(ImportDevice(database, folder_ + "/device", 0), DatabaseError);
        EXPECT_EQ("maps,F1,3,7 ", Policies(service, "p", {"maps", "b"})) << "reading goes on";
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &most));
        EXPECT_THAT(said.Everything(), testing::HasSubstr("the database could not be written; nothing was changed: "));
        ExpectWhole(database);
    }
    EXPECT_EQ(RESULT_OK, service->GTokenPolicyAddPolicy(batch)) << "there is room again";
    EXPECT_EQ("b,F,9,1 ", Policies(service, "p", {"b"}));
    ExpectWhole(database);
}

TEST(ReadFile, TakesAsManyBytesAsAreAllowedAndNotOneMore)
{
    const size_t size = std::filesystem::file_size(DEVICE_PATH);
    EXPECT_EQ(size, ReadFile(DEVICE_PATH, size).size());
    EXPECT_THROW(ReadFile(DEVICE_PATH, size - 1), InputError);
}

}  // namespace
}  // namespace SecurityPrivacyTools
