// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <unordered_set>

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
    auto infos = AskForRecords<AppPermissionGroupInfo>(program.service, REQUEST, options.name, options.userId,
                                                       options.interested);
    std::sort(infos.begin(), infos.end(), [](const auto& left, const auto& right) {
        return std::tie(left.bundleName, left.uid, left.permissionGroup) <
               std::tie(right.bundleName, right.uid, right.permissionGroup);
    });
    const Columns columns = {{"APP", "bundleName"},        {"UID", "uid"},
                             {"GROUP", "permissionGroup"}, {"STATE", "checkedState"},
                             {"FLAGS", "", FormatFlags},   {"CHOICES (DISABLED)", "", FormatChoices},
                             {"REASON", "disabledReason"}};
    PrintRecords(program.output, infos.size(), columns, [&](size_t index) { return GroupToJson(infos[index]); });
}

void RunSet(const Program& program, const SetOptions& options)
{
    int32_t uid = options.uid;
    if (uid < 0) {
        const std::unordered_set<std::string> all;
        const auto infos = AskForRecords<AppPermissionGroupInfo>(
            program.service, &Service::GetAppPermissionGroupInfosByApp, options.bundleName, options.userId, all);
        if (infos.empty()) {
            throw Failure(EXIT_USAGE,
                          options.bundleName + " holds no permission group; to ask all the same, give its --uid");
        }
        uid = infos.front().uid;
    }
    bool isChanged = false;
    Check(Ask(program.service, [&](Service& service) {
        return service.SetAppPermissionGroupCheckedState(options.bundleName, uid, options.permissionGroup,
                                                         options.parameter, isChanged);
    }));
    PrintResult(program.output,
                {{"bundleName", options.bundleName},
                 {"uid", uid},
                 {"permissionGroup", options.permissionGroup},
                 {"checkedState", options.parameter.checkedState},
                 {"changed", isChanged}},
                options.bundleName + " (uid " + std::to_string(uid) + ") " + options.permissionGroup + ": " +
                    options.parameter.checkedState + (isChanged ? "" : ", as it was before"));
}

}  // namespace

void AddGroupsCommands(CLI::App& app, const Program& program)
{
    CLI::App* groups = app.add_subcommand("groups", "Permission groups: by-app, by-permission, set");
    groups->require_subcommand(1);

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

}  // namespace SecurityPrivacyTools
