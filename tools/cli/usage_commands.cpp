// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "cli/chart.h"
#include "cli/failure.h"
#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "cli/time_text.h"
#include "cli/whole_number.h"
#include "common/usage_codes.h"
#include "security_privacy/contract.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::MAX_QUERY_LIST_SIZE;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

struct UsageOptions {
    std::vector<std::string> bundleNames;
    std::vector<int> userIds;
    std::vector<std::string> operationGroups;
    std::vector<std::string> operationModes;
    std::vector<std::string> appStates;
    std::vector<std::string> screenStates;
    std::string since;
    std::string until;
    int32_t limit = 0;
    bool isNewestFirst = false;
    bool isChart = false;
};

std::vector<int> ParseUsageCodes(const char* option, const UsageCodes& codes, const std::vector<std::string>& texts)
{
    CheckLength(option, texts.size(), MAX_QUERY_LIST_SIZE);
    std::vector<int> numbers;
    for (const std::string& text : texts) {
        const std::optional<int> code = FindUsageCode(codes, text);
        const std::optional<int> number = code ? code : ParseWhole<int>(text);
        if (!number) {
            throw Failure(EXIT_USAGE, std::string(option) + ": \"" + VisibleText(text) + "\" is none of " +
                                          UsageCodeNames(codes) + ", nor a number");
        }
        numbers.push_back(*number);
    }
    return numbers;
}

int64_t ParseTimeOption(const char* option, const std::string& text, int64_t now)
{
    if (text.empty()) {
        return 0;
    }
    const std::optional<int64_t> time = ParseTime(text, now);
    if (!time) {
        throw Failure(EXIT_USAGE, std::string(option) + ": \"" + VisibleText(text) +
                                      "\" is no time; write 2026-11-20, 2026-11-20T10:00, today, 10:00, 2h, 7d, or "
                                      "@SECONDS since 1970");
    }
    return *time;
}

PermissionUsageRecordQuery MakeQuery(const UsageOptions& options)
{
    CheckLength("--bundle", options.bundleNames.size(), MAX_QUERY_LIST_SIZE);
    CheckLength("--user", options.userIds.size(), MAX_QUERY_LIST_SIZE);
    CheckLength("--group", options.operationGroups.size(), MAX_QUERY_LIST_SIZE);
    const int64_t now = Now();
    PermissionUsageRecordQuery query;
    query.SetBundleNames(options.bundleNames);
    query.SetUserIds(options.userIds);
    query.SetOperationGroups(options.operationGroups);
    query.SetOperationModes(ParseUsageCodes("--mode", OPERATION_MODES, options.operationModes));
    query.SetAppStates(ParseUsageCodes("--app-state", APP_STATES, options.appStates));
    query.SetScreenStates(ParseUsageCodes("--screen", SCREEN_STATES, options.screenStates));
    query.SetBeginTimestamp(ParseTimeOption("--since", options.since, now));
    query.SetEndTimestamp(ParseTimeOption("--until", options.until, now));
    query.SetLimit(options.limit);
    query.SetOrder(options.isNewestFirst ? 1 : 0);
    if (query.GetEndTimestamp() != 0 && query.GetBeginTimestamp() >= query.GetEndTimestamp()) {
        throw Failure(EXIT_USAGE, "--since (" + FormatTime(query.GetBeginTimestamp()) + ") is not before --until (" +
                                      FormatTime(query.GetEndTimestamp()) + ")");
    }
    return query;
}

Json UsageToJson(const PermissionUsageRecord& record)
{
    return {{"bundleName", record.GetBundleName()},         {"uid", record.GetUid()},
            {"operationGroup", record.GetOperationGroup()}, {"times", record.GetTimes()},
            {"operationMode", record.GetOperationMode()},   {"appState", record.GetAppState()},
            {"screenState", record.GetScreenState()},       {"beginTimestamp", record.GetBeginTimestamp()},
            {"endTimestamp", record.GetEndTimestamp()}};
}

std::string TimeText(const Json& time)
{
    return FormatTime(time);
}

// A timeline shows all but the last two, a summary all but the first two.
Columns UsageColumns()
{
    return {{"BEGIN", "beginTimestamp", TimeText},
            {"FOR", "", [](const Json& use) { return FormatSpan(use["beginTimestamp"], use["endTimestamp"]); }},
            {"APP", "bundleName"},
            {"UID", "uid"},
            {"GROUP", "operationGroup"},
            {"TIMES", "times"},
            {"MODE", "operationMode", [](const Json& mode) { return UsageCodeName(OPERATION_MODES, mode); }},
            {"APP STATE", "appState", [](const Json& state) { return UsageCodeName(APP_STATES, state); }},
            {"SCREEN", "screenState", [](const Json& state) { return UsageCodeName(SCREEN_STATES, state); }},
            {"FIRST", "beginTimestamp", TimeText},
            {"LAST", "endTimestamp", TimeText}};
}

void RunSummary(const Program& program, const UsageOptions& options)
{
    const PermissionUsageRecordQuery query = MakeQuery(options);
    const RemoteService service(program.service);
    auto records = service.List<PermissionUsageRecord>(&RemoteService::Interface::GetPermissionUsageSummary, query);
    if (!options.isNewestFirst) {
        // Stable: what is equal here stays in the service's order, oldest first.
        std::stable_sort(records.begin(), records.end(), [](const auto& left, const auto& right) {
            return std::forward_as_tuple(left.GetBundleName(), left.GetUid(), left.GetOperationGroup()) <
                   std::forward_as_tuple(right.GetBundleName(), right.GetUid(), right.GetOperationGroup());
        });
    }
    const Columns columns = UsageColumns();
    PrintRecords(program.output, records, Columns(columns.begin() + 2, columns.end()), UsageToJson);
}

void RunTimeline(const Program& program, const UsageOptions& options)
{
    if (options.isChart && program.output.isJson) {
        throw Failure(EXIT_USAGE, "--chart and --json: choose one");
    }
    const PermissionUsageRecordQuery query = MakeQuery(options);
    const RemoteService service(program.service);
    const auto records =
        service.List<PermissionUsageRecord>(&RemoteService::Interface::GetPermissionUsageTimeline, query);
    if (options.isChart && !records.empty()) {
        PrintChart(records, query.GetBeginTimestamp(), query.GetEndTimestamp());
        return;
    }
    const Columns columns = UsageColumns();
    PrintRecords(program.output, records, Columns(columns.begin(), columns.end() - 2), UsageToJson);
}

void AddFilters(CLI::App& command, UsageOptions& options)
{
    const char* filters = "Filters (each may be repeated; all have to be met)";
    AddOption(command, "--bundle", options.bundleNames, "BUNDLE", "Only this app")->group(filters);
    AddOption(command, "--user", options.userIds, "N", "Only this user")->group(filters);
    AddOption(command, "--group", options.operationGroups, "GROUP", "Only this operation group")->group(filters);
    AddOption(command, "--mode", options.operationModes, "allowed|denied", "How the use ended")->group(filters);
    AddOption(command, "--app-state", options.appStates, "foreground|background", "Where the app was")->group(filters);
    AddOption(command, "--screen", options.screenStates, "on|off|locked", "How the screen was")->group(filters);
    const char* span = "Time and amount";
    AddOption(command, "--since", options.since, "TIME",
              "What begins then or later: a date, today, 10:00, 2h, 7d [all]")
        ->group(span);
    AddOption(command, "--until", options.until, "TIME", "What begins before that [all]")->group(span);
    AddOption(command, "--limit", options.limit, "N", "At most so many records, 0 for all [0]")->group(span);
    command.add_flag("--newest-first", options.isNewestFirst, "Start with the latest")->group(span);
}

}  // namespace

void AddUsageCommands(CLI::App& app, const Program& program)
{
    CLI::App* usage = app.add_subcommand("usage", "What was used when: summary, timeline");
    usage->require_subcommand(1);

    const auto [summary, summaryOptions] =
        AddCommand(*usage, program, "summary", "Uses added up by app, group, mode and states", RunSummary);
    AddFilters(*summary, *summaryOptions);
    summary->footer(
        "\nSorted by app, or by time with --newest-first.\n"
        "\nExample:\n  security-privacy-cli usage summary --since 2026-11-18 --until 2026-11-20 --group LOCATION");

    const auto [timeline, timelineOptions] =
        AddCommand(*usage, program, "timeline", "Single uses, or their picture", RunTimeline);
    AddFilters(*timeline, *timelineOptions);
    timeline->add_flag("--chart", timelineOptions->isChart,
                       "Draw a row for each app and the time across, as wide as the terminal (or $COLUMNS)");
    timeline->footer(
        "\nExamples:\n"
        "  security-privacy-cli usage timeline --since 7d --chart\n"
        "  security-privacy-cli usage timeline --bundle com.example.recorder --mode denied --newest-first --limit 5");
}

}  // namespace SecurityPrivacyTools
