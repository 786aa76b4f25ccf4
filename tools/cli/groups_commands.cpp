// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "cli/failure.h"
#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/contract.h"

namespace SecurityPrivacyTools {
namespace {

namespace Contract = VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using Contract::Permission::AppPermissionGroupInfo;
using Contract::Permission::CheckedStateParameter;

struct ListOptions {
    std::string name;
    int32_t userId = DEFAULT_USER_ID;
    std::vector<std::string> interested;
};

struct SetOptions {
    std::string bundleName;
    std::string permissionGroup;
    CheckedStateParameter parameter;
    int32_t userId = DEFAULT_USER_ID;
    int32_t uid = -1;  // negative: that of the app for the user
};

// "allow (ask) deny": a state in parentheses is shown but disabled.
std::string FormatChoices(const AppPermissionGroupInfo& info)
{
    std::string choices;
    for (const std::string& state : info.shownStates) {
        const bool isDisabled = info.disabledStates.count(state) != 0;
        choices += (choices.empty() ? "" : " ") + (isDisabled ? "(" + state + ")" : state);
    }
    return choices;
}

TableRow ToRow(const AppPermissionGroupInfo& info)
{
    char flags[24];
    std::snprintf(flags, sizeof(flags), "0x%" PRIx64, static_cast<uint64_t>(info.flags));
    return {info.bundleName, std::to_string(info.uid), info.permissionGroup, info.checkedState,
            flags,           FormatChoices(info),      info.disabledReason};
}

nlohmann::ordered_json GroupToJson(const AppPermissionGroupInfo& info)
{
    std::vector<std::string> disabledStates(info.disabledStates.begin(), info.disabledStates.end());
    std::sort(disabledStates.begin(), disabledStates.end());
    return {{"bundleName", info.bundleName},           {"uid", info.uid},
            {"permissionGroup", info.permissionGroup}, {"checkedState", info.checkedState},
            {"shownStates", info.shownStates},         {"disabledStates", disabledStates},
            {"disabledReason", info.disabledReason},   {"flags", info.flags}};
}

void Print(const Program& program, std::vector<AppPermissionGroupInfo>& infos)
{
    std::sort(infos.begin(), infos.end(), [](const AppPermissionGroupInfo& left, const AppPermissionGroupInfo& right) {
        return std::tie(left.bundleName, left.uid, left.permissionGroup) <
               std::tie(right.bundleName, right.uid, right.permissionGroup);
    });
    PrintRecords(program.output, infos, {"APP", "UID", "GROUP", "STATE", "FLAGS", "CHOICES (DISABLED)", "REASON"},
                 ToRow, GroupToJson);
}

void RunByApp(const Program& program, const ListOptions& options)
{
    const std::unordered_set<std::string> groups(options.interested.begin(), options.interested.end());
    CheckLength("--group", groups.size(), Contract::MAX_INTERESTED_PERMISSION_GROUPS_SIZE);
    const RemoteService service(program.service);
    std::vector<AppPermissionGroupInfo> infos;
    service.Check(service->GetAppPermissionGroupInfosByApp(options.name, options.userId, groups, infos), infos);
    Print(program, infos);
}

void RunByPermission(const Program& program, const ListOptions& options)
{
    const std::unordered_set<std::string> bundles(options.interested.begin(), options.interested.end());
    CheckLength("--bundle", bundles.size(), Contract::MAX_INTERESTED_BUNDLE_NAMES_SIZE);
    const RemoteService service(program.service);
    std::vector<AppPermissionGroupInfo> infos;
    service.Check(service->GetAppPermissionGroupInfosByPermission(options.name, options.userId, bundles, infos), infos);
    Print(program, infos);
}

int32_t FindUid(const RemoteService& service, const SetOptions& options)
{
    std::vector<AppPermissionGroupInfo> infos;
    service.Check(service->GetAppPermissionGroupInfosByApp(options.bundleName, options.userId, {}, infos), infos);
    if (infos.empty()) {
        throw Failure(EXIT_USAGE,
                      options.bundleName + " holds no permission group; to ask all the same, give its --uid");
    }
    return infos.front().uid;
}

void RunSet(const Program& program, const SetOptions& options)
{
    const RemoteService service(program.service);
    const int32_t uid = options.uid >= 0 ? options.uid : FindUid(service, options);
    bool isChanged = false;
    service.Check(service->SetAppPermissionGroupCheckedState(options.bundleName, uid, options.permissionGroup,
                                                             options.parameter, isChanged));
    if (program.output.isJson) {
        PrintJson(program.output, {{"bundleName", options.bundleName},
                                   {"uid", uid},
                                   {"permissionGroup", options.permissionGroup},
                                   {"checkedState", options.parameter.checkedState},
                                   {"changed", isChanged}});
    } else {
        PrintLine(VisibleText(options.bundleName + " (uid " + std::to_string(uid) + ") " + options.permissionGroup +
                              ": " + options.parameter.checkedState + (isChanged ? "" : ", as it was before")));
    }
}

}  // namespace

void AddGroupsCommands(CLI::App& app, const Program& program)
{
    CLI::App* groups = app.add_subcommand("groups", "Permission groups: by-app, by-permission, set");
    groups->require_subcommand(1);

    const auto [byApp, appOptions] =
        AddCommand(*groups, program, "by-app", "The permission groups of an app", RunByApp);
    AddOption(*byApp, "BUNDLE", appOptions->name, " ", "The app, as com.example.camera");
    AddOption(*byApp, "--user", appOptions->userId, "N", "For which user [100]");
    AddOption(*byApp, "--group", appOptions->interested, "GROUP", "Only this group; may be repeated [all]");
    byApp->footer("\nExample:\n  security-privacy-cli groups by-app com.example.camera --group CAMERA --user 101");

    const auto [byPermission, permissionOptions] =
        AddCommand(*groups, program, "by-permission", "The apps that hold a permission group", RunByPermission);
    AddOption(*byPermission, "GROUP", permissionOptions->name, " ", "The permission group, as LOCATION");
    AddOption(*byPermission, "--user", permissionOptions->userId, "N", "For which user [100]");
    AddOption(*byPermission, "--bundle", permissionOptions->interested, "BUNDLE",
              "Only this app; may be repeated [all]");
    byPermission->footer("\nExample:\n  security-privacy-cli groups by-permission LOCATION --json");

    const auto [set, options] =
        AddCommand(*groups, program, "set", "Choose the state of an app's permission group", RunSet);
    AddOption(*set, "BUNDLE", options->bundleName, " ", "The app");
    AddOption(*set, "GROUP", options->permissionGroup, " ", "The permission group");
    AddOption(*set, "STATE", options->parameter.checkedState, " ", "One of the choices that by-app shows");
    AddOption(*set, "--user", options->userId, "N", "For which user; the uid is looked up [100]");
    AddOption(*set, "--uid", options->uid, "N", "The app's uid, in place of --user")
        ->check(CLI::Range(0, std::numeric_limits<int32_t>::max()));
    CLI::Option* mask = AddOption(*set, "--flags-mask", options->parameter.flagsMask, "BITS",
                                  "Which flag bits to set, as 0x5 or 5 [none]");
    AddOption(*set, "--flags-value", options->parameter.flagsValue, "BITS", "The new values of these bits [0]")
        ->needs(mask);
    set->footer(
        "\nOnly for users whom the service allows changes (exit code 4 for others).\n"
        "\nExample:\n"
        "  security-privacy-cli groups set com.example.camera LOCATION deny --flags-mask 0x1 --flags-value 0x1");
}

}  // namespace SecurityPrivacyTools
