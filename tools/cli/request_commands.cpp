// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "cli/value_text.h"
#include "common/json_input.h"
#include "common/usage_codes.h"
#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/contract.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"

namespace SecurityPrivacyTools {
namespace {

namespace Contract = VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using Contract::GTokenInfo;
using Contract::GTokenPolicy;
using Contract::GTokenResult;
using Contract::GTokenResultWithRet;
using Contract::Permission::AppPermissionGroupInfo;
using Contract::Permission::CheckedStateParameter;
using Contract::Record::PermissionUsageRecord;
using Contract::Record::PermissionUsageRecordQuery;

// The user whose apps are meant when none is named: the first one of a device.
constexpr int32_t DEFAULT_USER_ID = 100;

struct ListOptions {
    std::string name;
    int32_t userId = DEFAULT_USER_ID;
    std::unordered_set<std::string> interested;
};

struct SetOptions {
    std::string bundleName;
    std::string permissionGroup;
    CheckedStateParameter parameter;
    int32_t userId = DEFAULT_USER_ID;
    int32_t uid = -1;  // negative: that of the app for the user
};

// "allow (ask) deny": a state in parentheses is shown but disabled.
std::string FormatChoices(const Json& info)
{
    const Json& disabled = info["disabledStates"];
    std::string choices;
    for (const std::string state : info["shownStates"]) {
        const bool isDisabled = std::find(disabled.begin(), disabled.end(), state) != disabled.end();
        choices += (choices.empty() ? "" : " ") + (isDisabled ? "(" + state + ")" : state);
    }
    return choices;
}

std::string FormatFlags(const Json& info)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%" PRIx64, info["flags"].get<uint64_t>());
    return text;
}

Json GroupToJson(const AppPermissionGroupInfo& info)
{
    const std::set<std::string> disabledStates(info.disabledStates.begin(), info.disabledStates.end());
    return {{"bundleName", info.bundleName},           {"uid", info.uid},
            {"permissionGroup", info.permissionGroup}, {"checkedState", info.checkedState},
            {"shownStates", info.shownStates},         {"disabledStates", disabledStates},
            {"disabledReason", info.disabledReason},   {"flags", info.flags}};
}

template <auto REQUEST>
void RunList(const Program& program, const ListOptions& options)
{
    auto infos =
        AskForRecords<AppPermissionGroupInfo>(program, REQUEST, options.name, options.userId, options.interested);
    std::sort(infos.begin(), infos.end(), [](const auto& left, const auto& right) {
        return std::tie(left.bundleName, left.uid, left.permissionGroup) <
               std::tie(right.bundleName, right.uid, right.permissionGroup);
    });
    const Columns columns = {{"APP", "bundleName"},        {"UID", "uid"},
                             {"GROUP", "permissionGroup"}, {"STATE", "checkedState"},
                             {"FLAGS", "", FormatFlags},   {"CHOICES (DISABLED)", "", FormatChoices},
                             {"REASON", "disabledReason"}};
    PrintRecords(program, infos.size(), columns, [&](size_t index) { return GroupToJson(infos[index]); });
}

void RunSet(const Program& program, const SetOptions& options)
{
    int32_t uid = options.uid;
    if (uid < 0) {
        const auto infos = AskForRecords<AppPermissionGroupInfo>(program, &Service::GetAppPermissionGroupInfosByApp,
                                                                 options.bundleName, options.userId,
                                                                 std::unordered_set<std::string>());
        if (infos.empty()) {
            throw Failure(EXIT_USAGE,
                          options.bundleName + " holds no permission group; to ask all the same, give its --uid");
        }
        uid = infos.front().uid;
    }
    bool isChanged = false;
    Check(Ask(program, [&](Service& service) {
        return service.SetAppPermissionGroupCheckedState(options.bundleName, uid, options.permissionGroup,
                                                         options.parameter, isChanged);
    }));
    PrintResult(program,
                {{"bundleName", options.bundleName},
                 {"uid", uid},
                 {"permissionGroup", options.permissionGroup},
                 {"checkedState", options.parameter.checkedState},
                 {"changed", isChanged}},
                options.bundleName + " (uid " + std::to_string(uid) + ") " + options.permissionGroup + ": " +
                    options.parameter.checkedState + (isChanged ? "" : ", as it was before"));
}

struct UsageOptions {
    bool isSummary = false;  // else a timeline
    PermissionUsageRecordQuery query;
    bool isChart = false;
};

Json UsageToJson(const PermissionUsageRecord& record)
{
    return {{"bundleName", record.GetBundleName()},         {"uid", record.GetUid()},
            {"operationGroup", record.GetOperationGroup()}, {"times", record.GetTimes()},
            {"operationMode", record.GetOperationMode()},   {"appState", record.GetAppState()},
            {"screenState", record.GetScreenState()},       {"beginTimestamp", record.GetBeginTimestamp()},
            {"endTimestamp", record.GetEndTimestamp()}};
}

void RunUsage(const Program& program, const UsageOptions& options)
{
    const PermissionUsageRecordQuery& query = options.query;
    if (options.isChart && program.isJson) {
        throw Failure(EXIT_USAGE, "--chart and --json: choose one");
    }
    if (query.GetEndTimestamp() != 0 && query.GetBeginTimestamp() >= query.GetEndTimestamp()) {
        throw Failure(EXIT_USAGE, "--since (" + FormatTime(query.GetBeginTimestamp()) + ") is not before --until (" +
                                      FormatTime(query.GetEndTimestamp()) + ")");
    }
    const auto request = options.isSummary ? &Service::GetPermissionUsageSummary : &Service::GetPermissionUsageTimeline;
    auto records = AskForRecords<PermissionUsageRecord>(program, request, query);
    if (options.isChart && !records.empty()) {
        PrintChart(records, query.GetBeginTimestamp(), query.GetEndTimestamp());
        return;
    }
    // A timeline shows all but the last two, a summary all but the first two.
    Columns columns = {
        {"BEGIN", "", [](const Json& use) { return FormatTime(use["beginTimestamp"]); }},
        {"FOR", "", [](const Json& use) { return FormatSpan(use["beginTimestamp"], use["endTimestamp"]); }},
        {"APP", "bundleName"},
        {"UID", "uid"},
        {"GROUP", "operationGroup"},
        {"TIMES", "times"},
        {"MODE", "", [](const Json& use) { return UsageCodeName(OPERATION_MODES, use["operationMode"]); }},
        {"APP STATE", "", [](const Json& use) { return UsageCodeName(APP_STATES, use["appState"]); }},
        {"SCREEN", "", [](const Json& use) { return UsageCodeName(SCREEN_STATES, use["screenState"]); }},
        {"FIRST", "", [](const Json& use) { return FormatTime(use["beginTimestamp"]); }},
        {"LAST", "", [](const Json& use) { return FormatTime(use["endTimestamp"]); }}};
    const auto others = options.isSummary ? columns.begin() : columns.end() - 2;
    columns.erase(others, others + 2);
    if (options.isSummary && query.GetOrder() == 0) {
        // Stable: what is equal here stays in the service's order, oldest first.
        std::stable_sort(records.begin(), records.end(), [](const auto& left, const auto& right) {
            return std::forward_as_tuple(left.GetBundleName(), left.GetUid(), left.GetOperationGroup()) <
                   std::forward_as_tuple(right.GetBundleName(), right.GetUid(), right.GetOperationGroup());
        });
    }
    PrintRecords(program, records.size(), columns, [&](size_t index) { return UsageToJson(records[index]); });
}

// An option that is a field of the query.
template <class T>
CLI::Option* AddField(CLI::App& command, const char* name, PermissionUsageRecordQuery& query,
                      void (PermissionUsageRecordQuery::*set)(T), const char* text, const char* description)
{
    using Value = std::decay_t<T>;
    const auto take = [&query, set](const Value& value) { (query.*set)(value); };
    return AddReader<Value>(command, name, take, text, description, Contract::MAX_QUERY_LIST_SIZE)
        ->group(std::is_class_v<Value> ? "Filters (each may be repeated; all have to be met)" : "Time and amount");
}

// Lets a user write a number as `parse` reads it; any other text is, as the message says, `mistake`.
template <class Parse>
void ReadWith(CLI::Option* option, Parse parse, const std::string& mistake)
{
    option->transform([option, parse, mistake](const std::string& text) {
        const auto number = parse(text);
        if (!number) {
            throw Failure(EXIT_USAGE, option->get_name() + ": \"" + VisibleText(text) + "\" is " + mistake);
        }
        return std::to_string(*number);
    });
}

void AddFilters(CLI::App& command, PermissionUsageRecordQuery& query)
{
    using Query = PermissionUsageRecordQuery;
    AddField(command, "--bundle", query, &Query::SetBundleNames, "BUNDLE", "Only this app");
    AddField(command, "--user", query, &Query::SetUserIds, "N", "Only this user");
    AddField(command, "--group", query, &Query::SetOperationGroups, "GROUP", "Only this operation group");
    const auto addCodes = [&](const char* name, auto set, const UsageCodes& codes, const char* text, const char* help) {
        const auto parse = [&codes](const std::string& word) {
            const std::optional<int> code = FindUsageCode(codes, word);
            return code ? code : ParseWhole<int>(word);
        };
        ReadWith(AddField(command, name, query, set, text, help), parse,
                 "none of " + UsageCodeNames(codes) + ", nor a number");
    };
    addCodes("--mode", &Query::SetOperationModes, OPERATION_MODES, "allowed|denied", "How the use ended");
    addCodes("--app-state", &Query::SetAppStates, APP_STATES, "foreground|background", "Where the app was");
    addCodes("--screen", &Query::SetScreenStates, SCREEN_STATES, "on|off|locked", "How the screen was");
    const auto addTime = [&](const char* name, auto set, const char* help) {
        const auto parse = [](const std::string& text) { return text.empty() ? 0 : ParseTime(text); };
        ReadWith(AddField(command, name, query, set, "TIME", help), parse,
                 "no time; write 2026-11-20, 2026-11-20T10:00, today, 10:00, 2h, 7d, or @SECONDS since 1970");
    };
    addTime("--since", &Query::SetBeginTimestamp, "What begins then or later: a date, today, 10:00, 2h, 7d [all]");
    addTime("--until", &Query::SetEndTimestamp, "What begins before that [all]");
    AddField(command, "--limit", query, &Query::SetLimit, "N", "At most so many records, 0 for all [0]");
    const auto setNewestFirst = [&query] { query.SetOrder(1); };
    command.add_flag_callback("--newest-first", setNewestFirst, "Start with the latest")->group("Time and amount");
}

constexpr size_t MAX_FINGERPRINT_BYTES = 4096;

struct AddPolicyOptions {
    GTokenInfo info;
    std::string fingerprintPath;
    std::string path;
};

struct BundlesOptions {
    std::string policyName;
    std::vector<std::string> bundleNames;
};

GTokenPolicy ParsePolicy(const std::string& text)
{
    GTokenPolicy policy;
    const size_t equals = text.rfind('=');
    const std::optional<int64_t> value = ParseWhole<int64_t>(text.substr(equals + 1));
    if (!value || equals == 0 || equals == std::string::npos) {
        throw Failure(EXIT_USAGE,
                      "--policy: \"" + VisibleText(text) + "\" is not NAME=VALUE with a whole number as the value");
    }
    policy.policyName = text.substr(0, equals);
    policy.policyValue = *value;
    return policy;
}

std::vector<GTokenInfo> ReadInfos(const std::string& path)
{
    const JsonNode root = ReadJson(path);
    root.AllowOnly({"gTokens"});
    std::vector<GTokenInfo> infos;
    for (const JsonNode& item : root["gTokens"].Items()) {
        infos.push_back(ReadGTokenInfo(item));
        if (infos.back().policies.size() > Contract::MAX_POLICIES_SIZE) {
            item.Fail("more than " + std::to_string(Contract::MAX_POLICIES_SIZE) + " policies");
        }
    }
    if (infos.empty()) {
        throw InputError(path + ": there is nothing to add");
    }
    CheckLength(path, infos.size(), Contract::MAX_GTOKEN_REQUEST_SIZE);
    return infos;
}

GTokenInfo MakeInfo(const AddPolicyOptions& options)
{
    GTokenInfo info = options.info;
    if (!options.fingerprintPath.empty()) {
        const std::string path = options.fingerprintPath == "-" ? "/dev/stdin" : options.fingerprintPath;
        info.fingerprint = ReadFile(path, MAX_FINGERPRINT_BYTES);
        info.fingerprint.erase(info.fingerprint.find_last_not_of(" \t\r\n") + 1);
    }
    if (info.bundleName.empty() || info.fingerprint.empty()) {
        throw Failure(EXIT_USAGE,
                      "add needs --bundle and a --fingerprint-file (or --fingerprint) that is not empty, "
                      "or else --from; see 'gtoken add --help'");
    }
    return info;
}

// Sends a request without records, and tells how many bundles it was for.
void Change(const Program& program, const std::string& done, size_t count,
            const std::function<int64_t(Service&)>& request)
{
    Check(Ask(program, request));
    PrintResult(program, {{done, count}}, done + ": " + std::to_string(count) + (count == 1 ? " bundle" : " bundles"));
}

void RunAdd(const Program& program, const AddPolicyOptions& options)
{
    const std::vector<GTokenInfo> infos =
        options.path.empty() ? std::vector<GTokenInfo>{MakeInfo(options)} : ReadInfos(options.path);
    Change(program, "added", infos.size(), [&](Service& service) { return service.GTokenPolicyAddPolicy(infos); });
}

void RunGet(const Program& program, const BundlesOptions& options)
{
    GTokenResultWithRet result;
    const Call call = Ask(program, [&](Service& service) {
        result = service.GTokenPolicyGetPolicy(options.policyName, options.bundleNames);
        return result.ret;
    });
    Check(call, result.gTokenResults.size());
    // The rows carry the bundles' fingerprints; they are not to be shown.
    const auto toJson = [&](size_t index) {
        const GTokenResult& row = result.gTokenResults[index];
        return Json{{"bundleName", row.bundleName},
                    {"versionCode", row.versionCode},
                    {"policyName", options.policyName},
                    {"policyValue", row.policyValue}};
    };
    PrintRecords(
        program, result.gTokenResults.size(),
        {{"BUNDLE", "bundleName"}, {"VERSION", "versionCode"}, {"POLICY", "policyName"}, {"VALUE", "policyValue"}},
        toJson);
}

void RunRemove(const Program& program, const BundlesOptions& options)
{
    const std::vector<std::string>& names = options.bundleNames;
    Change(program, "removed", names.size(), [&](Service& service) { return service.GTokenPolicyRemovePolicy(names); });
}

}  // namespace

void AddGroupsCommands(CLI::App& app, const Program& program)
{
    CLI::App* groups =
        app.add_subcommand("groups", "Permission groups: by-app, by-permission, set")->require_subcommand(1);

    auto [byApp, appOptions] =
        AddCommand(*groups, program, "by-app", "The permission groups of an app",
                   RunList<&Service::GetAppPermissionGroupInfosByApp>,
                   "\nExample:\n  security-privacy-cli groups by-app com.example.camera --group CAMERA --user 101");
    AddOption(byApp, "BUNDLE", appOptions.name, " ", "The app, as com.example.camera");
    AddOption(byApp, "--user", appOptions.userId, "N", "For which user [100]");
    AddOption(byApp, "--group", appOptions.interested, "GROUP", "Only this group; may be repeated [all]",
              Contract::MAX_INTERESTED_PERMISSION_GROUPS_SIZE);

    auto [byPermission, permissionOptions] =
        AddCommand(*groups, program, "by-permission", "The apps that hold a permission group",
                   RunList<&Service::GetAppPermissionGroupInfosByPermission>,
                   "\nExample:\n  security-privacy-cli groups by-permission LOCATION --json");
    AddOption(byPermission, "GROUP", permissionOptions.name, " ", "The permission group, as LOCATION");
    AddOption(byPermission, "--user", permissionOptions.userId, "N", "For which user [100]");
    AddOption(byPermission, "--bundle", permissionOptions.interested, "BUNDLE", "Only this app; may be repeated [all]",
              Contract::MAX_INTERESTED_BUNDLE_NAMES_SIZE);

    auto [set, options] = AddCommand(
        *groups, program, "set", "Choose the state of an app's permission group", RunSet,
        "\nOnly for users whom the service allows changes (exit code 4 for others).\n"
        "\nExample:\n"
        "  security-privacy-cli groups set com.example.camera LOCATION deny --flags-mask 0x1 --flags-value 0x1");
    AddOption(set, "BUNDLE", options.bundleName, " ", "The app");
    AddOption(set, "GROUP", options.permissionGroup, " ", "The permission group");
    AddOption(set, "STATE", options.parameter.checkedState, " ", "One of the choices that by-app shows");
    AddOption(set, "--user", options.userId, "N", "For which user; the uid is looked up [100]");
    AddOption(set, "--uid", options.uid, "N", "The app's uid, in place of --user")
        ->check(CLI::Range(0, std::numeric_limits<int32_t>::max()));
    CLI::Option* mask = AddOption(set, "--flags-mask", options.parameter.flagsMask, "BITS",
                                  "Which flag bits to set, as 0x5 or 5 [none]");
    AddOption(set, "--flags-value", options.parameter.flagsValue, "BITS", "The new values of these bits [0]")
        ->needs(mask);
}

void AddUsageCommands(CLI::App& app, const Program& program)
{
    CLI::App* usage = app.add_subcommand("usage", "What was used when: summary, timeline")->require_subcommand(1);

    auto [summary, summaryOptions] = AddCommand(
        *usage, program, "summary", "Uses added up by app, group, mode and states", RunUsage,
        "\nSorted by app, or by time with --newest-first.\n"
        "\nExample:\n  security-privacy-cli usage summary --since 2026-11-18 --until 2026-11-20 --group LOCATION");
    summaryOptions.isSummary = true;
    AddFilters(summary, summaryOptions.query);

    auto [timeline, timelineOptions] = AddCommand(
        *usage, program, "timeline", "Single uses, or their picture", RunUsage,
        "\nExamples:\n"
        "  security-privacy-cli usage timeline --since 7d --chart\n"
        "  security-privacy-cli usage timeline --bundle com.example.recorder --mode denied --newest-first --limit 5");
    AddFilters(timeline, timelineOptions.query);
    timeline.add_flag("--chart", timelineOptions.isChart,
                      "Draw a row for each app and the time across, as wide as the terminal (or $COLUMNS)");
}

void AddGTokenCommands(CLI::App& app, const Program& program)
{
    CLI::App* gtoken =
        app.add_subcommand("gtoken", "GToken policies of bundles: add, get, remove")->require_subcommand(1);

    auto [add, addOptions] = AddCommand(
        *gtoken, program, "add", "Set policies of one bundle, or of many from a file", RunAdd,
        "\nA bundle that is stored already has to have the same fingerprint; its version is replaced, and so are\n"
        "policies of the same name. Either all bundles of one call are stored or none. Fingerprints are never "
        "printed.\n"
        "\nThe file for --from:\n"
        "  {\"gTokens\": [{\"bundleName\": \"com.example.bank\", \"fingerprint\": \"4F21...\", \"versionCode\": 7,\n"
        "                \"policies\": {\"screen_capture\": 0}}]}\n"
        "\nExample:\n"
        "  security-privacy-cli gtoken add --bundle com.example.bank --version-code 7 \\\n"
        "      --fingerprint-file bank.fingerprint --policy screen_capture=0 --policy attestation=2");
    GTokenInfo& info = addOptions.info;
    CLI::Option* bundle = AddOption(add, "--bundle", info.bundleName, "BUNDLE", "The bundle");
    AddOption(add, "--version-code", info.versionCode, "N", "The bundle's version [0]");
    CLI::Option* file = AddOption(add, "--fingerprint-file", addOptions.fingerprintPath, "FILE",
                                  "File with the bundle's fingerprint; - for standard input");
    CLI::Option* fingerprint = AddOption(add, "--fingerprint", info.fingerprint, "TEXT",
                                         "The fingerprint itself: other users of the machine can see it");
    const auto takePolicies = [&info](const std::vector<std::string>& texts) {
        std::transform(texts.begin(), texts.end(), std::back_inserter(info.policies), ParsePolicy);
    };
    AddReader<std::vector<std::string>>(add, "--policy", takePolicies, "NAME=VALUE",
                                        "A policy and its value, a whole number; may be repeated",
                                        Contract::MAX_POLICIES_SIZE);
    AddOption(add, "--from", addOptions.path, "FILE",
              "JSON file of many bundles, see below; in place of the other options")
        ->excludes(bundle)
        ->excludes(file)
        ->excludes(fingerprint);
    fingerprint->excludes(file);

    auto [get, getOptions] =
        AddCommand(*gtoken, program, "get", "The value of a policy for bundles", RunGet,
                   "\nExample:\n  security-privacy-cli gtoken get screen_capture com.example.bank com.example.mail");
    AddOption(get, "POLICY", getOptions.policyName, " ", "Name of the policy");
    AddOption(get, "BUNDLE", getOptions.bundleNames, "...", "The bundles; one without the policy gives no row",
              Contract::MAX_GTOKEN_REQUEST_SIZE);

    auto [remove, removeOptions] =
        AddCommand(*gtoken, program, "remove", "Forget bundles and all their policies", RunRemove,
                   "\nExample:\n  security-privacy-cli gtoken remove com.example.bank");
    AddOption(remove, "BUNDLE", removeOptions.bundleNames, "...", "The bundles; either all are removed or none",
              Contract::MAX_GTOKEN_REQUEST_SIZE);
}

}  // namespace SecurityPrivacyTools
