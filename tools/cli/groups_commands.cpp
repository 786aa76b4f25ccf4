// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "cli/failure.h"
#include "cli/output.h"
#include "cli/program.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::AppPermissionGroupInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::CheckedStateParameter;

constexpr size_t MAX_GROUPS = 50;
constexpr size_t MAX_BUNDLES = 10000;

struct ListOptions {
    std::string name;
    int32_t userId = DEFAULT_USER_ID;
    std::vector<std::string> interested;
};

struct SetOptions {
    std::string bundleName;
    std::string permissionGroup;
    std::string checkedState;
    int32_t userId = DEFAULT_USER_ID;
    int32_t uid = -1;  // negative: that of the app for the user
    int64_t flagsMask = 0;
    int64_t flagsValue = 0;
};

std::string FormatFlags(int64_t flags)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%" PRIx64, static_cast<uint64_t>(flags));
    return text;
}

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

nlohmann::ordered_json ToJson(const AppPermissionGroupInfo& info)
{
    std::vector<std::string> disabledStates(info.disabledStates.begin(), info.disabledStates.end());
    std::sort(disabledStates.begin(), disabledStates.end());
    return {{"bundleName", info.bundleName},           {"uid", info.uid},
            {"permissionGroup", info.permissionGroup}, {"checkedState", info.checkedState},
            {"shownStates", info.shownStates},         {"disabledStates", disabledStates},
            {"disabledReason", info.disabledReason},   {"flags", info.flags}};
}

void Print(const Program& program, std::vector<AppPermissionGroupInfo> infos)
{
    std::sort(infos.begin(), infos.end(), [](const AppPermissionGroupInfo& left, const AppPermissionGroupInfo& right) {
        return std::tie(left.bundleName, left.uid, left.permissionGroup) <
               std::tie(right.bundleName, right.uid, right.permissionGroup);
    });
    if (program.isJson) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const AppPermissionGroupInfo& info : infos) {
            list.push_back(ToJson(info));
        }
        PrintJson(list);
        return;
    }
    std::vector<TableRow> rows;
    rows.reserve(infos.size());
    for (const AppPermissionGroupInfo& info : infos) {
        rows.push_back({info.bundleName, std::to_string(info.uid), info.permissionGroup, info.checkedState,
                        FormatFlags(info.flags), FormatChoices(info), info.disabledReason});
    }
    PrintTable({"APP", "UID", "GROUP", "STATE", "FLAGS", "CHOICES (DISABLED)", "REASON"}, rows);
}

void RunByApp(const Program& program, const Connection& connection, const ListOptions& options)
{
    const std::unordered_set<std::string> groups(options.interested.begin(), options.interested.end());
    CheckLength("--group", groups.size(), MAX_GROUPS);
    std::vector<AppPermissionGroupInfo> infos;
    connection.Check(SecurityPrivacyClient::GetInstance().GetAppPermissionGroupInfosByApp(options.name, options.userId,
                                                                                          groups, infos));
    Print(program, std::move(infos));
}

void RunByPermission(const Program& program, const Connection& connection, const ListOptions& options)
{
    const std::unordered_set<std::string> bundles(options.interested.begin(), options.interested.end());
    CheckLength("--bundle", bundles.size(), MAX_BUNDLES);
    std::vector<AppPermissionGroupInfo> infos;
    connection.Check(SecurityPrivacyClient::GetInstance().GetAppPermissionGroupInfosByPermission(
        options.name, options.userId, bundles, infos));
    Print(program, std::move(infos));
}

int32_t FindUid(const Connection& connection, const SetOptions& options)
{
    std::vector<AppPermissionGroupInfo> infos;
    connection.Check(SecurityPrivacyClient::GetInstance().GetAppPermissionGroupInfosByApp(options.bundleName,
                                                                                          options.userId, {}, infos));
    if (infos.empty()) {
        throw Failure(EXIT_USAGE,
                      options.bundleName + " holds no permission group; to ask all the same, give its --uid");
    }
    return infos.front().uid;
}

void RunSet(const Program& program, const Connection& connection, const SetOptions& options)
{
    const int32_t uid = options.uid >= 0 ? options.uid : FindUid(connection, options);
    CheckedStateParameter parameter;
    parameter.checkedState = options.checkedState;
    parameter.flagsMask = options.flagsMask;
    parameter.flagsValue = options.flagsValue;
    bool isChanged = false;
    connection.Check(SecurityPrivacyClient::GetInstance().SetAppPermissionGroupCheckedState(
        options.bundleName, uid, options.permissionGroup, parameter, isChanged));
    if (program.isJson) {
        PrintJson({{"bundleName", options.bundleName},
                   {"uid", uid},
                   {"permissionGroup", options.permissionGroup},
                   {"checkedState", options.checkedState},
                   {"changed", isChanged}});
    } else {
        PrintLine(options.bundleName + " (uid " + std::to_string(uid) + ") " + options.permissionGroup + ": " +
                  options.checkedState + (isChanged ? "" : ", as it was before"));
    }
}

void AddByApp(CLI::App& groups, Program& program)
{
    CLI::App* command = groups.add_subcommand("by-app", "The permission groups of an app");
    const auto options = std::make_shared<ListOptions>();
    command->add_option("BUNDLE", options->name, "The app, as com.example.camera")->required()->option_text(" ");
    command->add_option("--user", options->userId, "For which user [100]")->option_text("N");
    AddRepeatedOption(*command, "--group", options->interested, "Only this group; may be repeated [all]")
        ->option_text("GROUP");
    command->footer("\nExample:\n  security-privacy-cli groups by-app com.example.camera --group CAMERA --user 101");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunByApp(program, connection, *options); };
    });
}

void AddByPermission(CLI::App& groups, Program& program)
{
    CLI::App* command = groups.add_subcommand("by-permission", "The apps that hold a permission group");
    const auto options = std::make_shared<ListOptions>();
    command->add_option("GROUP", options->name, "The permission group, as LOCATION")->required()->option_text(" ");
    command->add_option("--user", options->userId, "For which user [100]")->option_text("N");
    AddRepeatedOption(*command, "--bundle", options->interested, "Only this app; may be repeated [all]")
        ->option_text("BUNDLE");
    command->footer("\nExample:\n  security-privacy-cli groups by-permission LOCATION --json");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) {
            RunByPermission(program, connection, *options);
        };
    });
}

void AddSet(CLI::App& groups, Program& program)
{
    CLI::App* command = groups.add_subcommand("set", "Choose the state of an app's permission group");
    const auto options = std::make_shared<SetOptions>();
    command->add_option("BUNDLE", options->bundleName, "The app")->required()->option_text(" ");
    command->add_option("GROUP", options->permissionGroup, "The permission group")->required()->option_text(" ");
    command->add_option("STATE", options->checkedState, "One of the choices that by-app shows")
        ->required()
        ->option_text(" ");
    command->add_option("--user", options->userId, "For which user; the uid is looked up [100]")->option_text("N");
    command->add_option("--uid", options->uid, "The app's uid, in place of --user")
        ->option_text("N")
        ->check(CLI::Range(0, std::numeric_limits<int32_t>::max()));
    CLI::Option* mask =
        command->add_option("--flags-mask", options->flagsMask, "Which flag bits to set, as 0x5 or 5 [none]");
    mask->option_text("BITS");
    CLI::Option* value = command->add_option("--flags-value", options->flagsValue, "The new values of these bits [0]");
    value->option_text("BITS");
    value->needs(mask);
    command->footer(
        "\nOnly for users whom the service allows changes (exit code 4 for others).\n"
        "\nExample:\n"
        "  security-privacy-cli groups set com.example.camera LOCATION deny --flags-mask 0x1 --flags-value 0x1");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunSet(program, connection, *options); };
    });
}

}  // namespace

void AddGroupsCommands(CLI::App& app, Program& program)
{
    CLI::App* groups = app.add_subcommand("groups", "Permission groups: by-app, by-permission, set");
    groups->require_subcommand(1);
    AddByApp(*groups, program);
    AddByPermission(*groups, program);
    AddSet(*groups, program);
}

}  // namespace SecurityPrivacyExample
