// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "cli/chart.h"
#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "cli/value_text.h"
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

std::string BeginText(const Json& use)
{
    return FormatTime(use["beginTimestamp"]);
}

// A timeline shows all but the last two, a summary all but the first two.
Columns UsageColumns()
{
    return {{"BEGIN", "", BeginText},
            {"FOR", "", [](const Json& use) { return FormatSpan(use["beginTimestamp"], use["endTimestamp"]); }},
            {"APP", "bundleName"},
            {"UID", "uid"},
            {"GROUP", "operationGroup"},
            {"TIMES", "times"},
            {"MODE", "", [](const Json& use) { return UsageCodeName(OPERATION_MODES, use["operationMode"]); }},
            {"APP STATE", "", [](const Json& use) { return UsageCodeName(APP_STATES, use["appState"]); }},
            {"SCREEN", "", [](const Json& use) { return UsageCodeName(SCREEN_STATES, use["screenState"]); }},
            {"FIRST", "", BeginText},
            {"LAST", "", [](const Json& use) { return FormatTime(use["endTimestamp"]); }}};
}

void RunUsage(const Program& program, const UsageOptions& options)
{
    const PermissionUsageRecordQuery& query = options.query;
    if (options.isChart && program.output.isJson) {
        throw Failure(EXIT_USAGE, "--chart and --json: choose one");
    }
    if (query.GetEndTimestamp() != 0 && query.GetBeginTimestamp() >= query.GetEndTimestamp()) {
        throw Failure(EXIT_USAGE, "--since (" + FormatTime(query.GetBeginTimestamp()) + ") is not before --until (" +
                                      FormatTime(query.GetEndTimestamp()) + ")");
    }
    const auto request = options.isSummary ? &Service::GetPermissionUsageSummary : &Service::GetPermissionUsageTimeline;
    auto records = AskForRecords<PermissionUsageRecord>(program.service, request, query);
    if (options.isChart && !records.empty()) {
        PrintChart(records, query.GetBeginTimestamp(), query.GetEndTimestamp());
        return;
    }
    Columns columns = UsageColumns();
    const auto others = options.isSummary ? columns.begin() : columns.end() - 2;
    columns.erase(others, others + 2);
    if (options.isSummary && query.GetOrder() == 0) {
        // Stable: what is equal here stays in the service's order, oldest first.
        std::stable_sort(records.begin(), records.end(), [](const auto& left, const auto& right) {
            return std::forward_as_tuple(left.GetBundleName(), left.GetUid(), left.GetOperationGroup()) <
                   std::forward_as_tuple(right.GetBundleName(), right.GetUid(), right.GetOperationGroup());
        });
    }
    PrintRecords(program.output, records.size(), columns, [&](size_t index) { return UsageToJson(records[index]); });
}

template <class T>
using Setter = void (PermissionUsageRecordQuery::*)(T);

template <class T>
CLI::Option* AddFilter(CLI::App& command, const char* name, PermissionUsageRecordQuery& query,
                       Setter<const std::vector<T>&> set, const char* text, const char* description)
{
    const auto take = [&query, set](const std::vector<T>& values) { (query.*set)(values); };
    return AddReader<std::vector<T>>(command, name, take, text, description, MAX_QUERY_LIST_SIZE)
        ->group("Filters (each may be repeated; all have to be met)");
}

// A filter whose values are words, or their numbers.
void AddCodeFilter(CLI::App& command, const char* name, PermissionUsageRecordQuery& query,
                   Setter<const std::vector<int>&> set, const UsageCodes& codes, const char* text,
                   const char* description)
{
    const auto toNumber = [name, &codes](const std::string& word) {
        const std::optional<int> code = FindUsageCode(codes, word);
        const std::optional<int> number = code ? code : ParseWhole<int>(word);
        if (!number) {
            throw Failure(EXIT_USAGE, std::string(name) + ": \"" + VisibleText(word) + "\" is none of " +
                                          UsageCodeNames(codes) + ", nor a number");
        }
        return std::to_string(*number);
    };
    AddFilter(command, name, query, set, text, description)->transform(toNumber);
}

void AddTime(CLI::App& command, const char* name, PermissionUsageRecordQuery& query, Setter<int64_t> set,
             const char* description)
{
    const auto take = [name, &query, set](const std::string& text) {
        const std::optional<int64_t> time = text.empty() ? 0 : ParseTime(text);
        if (!time) {
            throw Failure(EXIT_USAGE, std::string(name) + ": \"" + VisibleText(text) +
                                          "\" is no time; write 2026-11-20, 2026-11-20T10:00, today, 10:00, 2h, 7d, or "
                                          "@SECONDS since 1970");
        }
        (query.*set)(*time);
    };
    AddReader<std::string>(command, name, take, "TIME", description)->group("Time and amount");
}

void AddFilters(CLI::App& command, PermissionUsageRecordQuery& query)
{
    using Query = PermissionUsageRecordQuery;
    AddFilter(command, "--bundle", query, &Query::SetBundleNames, "BUNDLE", "Only this app");
    AddFilter(command, "--user", query, &Query::SetUserIds, "N", "Only this user");
    AddFilter(command, "--group", query, &Query::SetOperationGroups, "GROUP", "Only this operation group");
    AddCodeFilter(command, "--mode", query, &Query::SetOperationModes, OPERATION_MODES, "allowed|denied",
                  "How the use ended");
    AddCodeFilter(command, "--app-state", query, &Query::SetAppStates, APP_STATES, "foreground|background",
                  "Where the app was");
    AddCodeFilter(command, "--screen", query, &Query::SetScreenStates, SCREEN_STATES, "on|off|locked",
                  "How the screen was");
    AddTime(command, "--since", query, &Query::SetBeginTimestamp,
            "What begins then or later: a date, today, 10:00, 2h, 7d [all]");
    AddTime(command, "--until", query, &Query::SetEndTimestamp, "What begins before that [all]");
    const auto setLimit = [&query](int32_t limit) { query.SetLimit(limit); };
    AddReader<int32_t>(command, "--limit", setLimit, "N", "At most so many records, 0 for all [0]")
        ->group("Time and amount");
    command
        .add_flag_callback(
            "--newest-first", [&query] { query.SetOrder(1); }, "Start with the latest")
        ->group("Time and amount");
}

}  // namespace

void AddUsageCommands(CLI::App& app, const Program& program)
{
    CLI::App* usage = app.add_subcommand("usage", "What was used when: summary, timeline");
    usage->require_subcommand(1);

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

}  // namespace SecurityPrivacyTools
