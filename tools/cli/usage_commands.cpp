// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "cli/chart.h"
#include "cli/failure.h"
#include "cli/output.h"
#include "cli/program.h"
#include "cli/time_text.h"
#include "common/usage_codes.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

// The longest list that a query carries.
constexpr size_t MAX_FILTER = 99;

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

int ParseUsageCode(const char* option, const std::vector<UsageCode>& codes, const std::string& text)
{
    if (const UsageCode* code = FindUsageCode(codes, text)) {
        return code->code;
    }
    int number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) {
        throw Failure(EXIT_USAGE, std::string(option) + ": \"" + Visible(text) + "\" is none of " +
                                      UsageCodeNames(codes) + ", nor a number");
    }
    return number;
}

std::vector<int> ParseUsageCodes(const char* option, const std::vector<UsageCode>& codes,
                                 const std::vector<std::string>& texts)
{
    std::vector<int> numbers;
    numbers.reserve(texts.size());
    for (const std::string& text : texts) {
        numbers.push_back(ParseUsageCode(option, codes, text));
    }
    CheckLength(option, numbers.size(), MAX_FILTER);
    return numbers;
}

int64_t ParseTimeOption(const char* option, const std::string& text, int64_t now)
{
    if (text.empty()) {
        return 0;
    }
    const std::optional<int64_t> time = ParseTime(text, now);
    if (!time) {
        throw Failure(EXIT_USAGE, std::string(option) + ": \"" + Visible(text) +
                                      "\" is no time; write 2026-11-20, 2026-11-20T10:00, 2h, 7d or milliseconds since "
                                      "the epoch");
    }
    return *time;
}

PermissionUsageRecordQuery MakeQuery(const UsageOptions& options)
{
    CheckLength("--bundle", options.bundleNames.size(), MAX_FILTER);
    CheckLength("--user", options.userIds.size(), MAX_FILTER);
    CheckLength("--group", options.operationGroups.size(), MAX_FILTER);
    const int64_t now = Now();
    PermissionUsageRecordQuery query;
    query.SetBundleNames(options.bundleNames);
    query.SetUserIds(options.userIds);
    query.SetOperationGroups(options.operationGroups);
    query.SetOperationModes(ParseUsageCodes("--mode", OperationModes(), options.operationModes));
    query.SetAppStates(ParseUsageCodes("--app-state", AppStates(), options.appStates));
    query.SetScreenStates(ParseUsageCodes("--screen", ScreenStates(), options.screenStates));
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

nlohmann::ordered_json ToJson(const PermissionUsageRecord& record)
{
    return {{"bundleName", record.GetBundleName()},         {"uid", record.GetUid()},
            {"operationGroup", record.GetOperationGroup()}, {"times", record.GetTimes()},
            {"operationMode", record.GetOperationMode()},   {"appState", record.GetAppState()},
            {"screenState", record.GetScreenState()},       {"beginTimestamp", record.GetBeginTimestamp()},
            {"endTimestamp", record.GetEndTimestamp()}};
}

void PrintRecordsAsJson(const std::vector<PermissionUsageRecord>& records)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const PermissionUsageRecord& record : records) {
        list.push_back(ToJson(record));
    }
    PrintJson(list);
}

// The columns that both tables share.
TableRow DescribeUse(const PermissionUsageRecord& record)
{
    return {record.GetBundleName(),
            std::to_string(record.GetUid()),
            record.GetOperationGroup(),
            std::to_string(record.GetTimes()),
            UsageCodeName(OperationModes(), record.GetOperationMode()),
            UsageCodeName(AppStates(), record.GetAppState()),
            UsageCodeName(ScreenStates(), record.GetScreenState())};
}

void PrintSummary(const std::vector<PermissionUsageRecord>& records)
{
    std::vector<TableRow> rows;
    for (const PermissionUsageRecord& record : records) {
        rows.push_back(DescribeUse(record));
        rows.back().push_back(FormatTime(record.GetBeginTimestamp()));
        rows.back().push_back(FormatTime(record.GetEndTimestamp()));
    }
    PrintTable({"APP", "UID", "GROUP", "TIMES", "MODE", "APP STATE", "SCREEN", "FIRST", "LAST"}, rows);
}

void PrintTimeline(const std::vector<PermissionUsageRecord>& records)
{
    std::vector<TableRow> rows;
    for (const PermissionUsageRecord& record : records) {
        rows.push_back(
            {FormatTime(record.GetBeginTimestamp()), FormatSpan(record.GetBeginTimestamp(), record.GetEndTimestamp())});
        const TableRow use = DescribeUse(record);
        rows.back().insert(rows.back().end(), use.begin(), use.end());
    }
    PrintTable({"BEGIN", "FOR", "APP", "UID", "GROUP", "TIMES", "MODE", "APP STATE", "SCREEN"}, rows);
}

void RunSummary(const Program& program, const Connection& connection, const UsageOptions& options)
{
    std::vector<PermissionUsageRecord> records;
    connection.Check(SecurityPrivacyClient::GetInstance().GetPermissionUsageSummary(MakeQuery(options), records));
    if (!options.isNewestFirst) {
        // Stable: what is equal here stays in the service's order, oldest first.
        std::stable_sort(records.begin(), records.end(), [](const auto& left, const auto& right) {
            return std::forward_as_tuple(left.GetBundleName(), left.GetUid(), left.GetOperationGroup()) <
                   std::forward_as_tuple(right.GetBundleName(), right.GetUid(), right.GetOperationGroup());
        });
    }
    if (program.isJson) {
        PrintRecordsAsJson(records);
    } else {
        PrintSummary(records);
    }
}

void RunTimeline(const Program& program, const Connection& connection, const UsageOptions& options)
{
    if (options.isChart && program.isJson) {
        throw Failure(EXIT_USAGE, "--chart and --json: choose one");
    }
    const PermissionUsageRecordQuery query = MakeQuery(options);
    std::vector<PermissionUsageRecord> records;
    connection.Check(SecurityPrivacyClient::GetInstance().GetPermissionUsageTimeline(query, records));
    if (program.isJson) {
        PrintRecordsAsJson(records);
    } else if (options.isChart && !records.empty()) {
        const ChartOptions chart{query.GetBeginTimestamp(), query.GetEndTimestamp(), OutputWidth(), IsColoured()};
        const std::string text = DrawChart(records, chart);
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        PrintTimeline(records);
    }
}

void AddFilters(CLI::App& command, UsageOptions& options)
{
    const char* filters = "Filters (each may be repeated; all have to be met)";
    AddRepeatedOption(command, "--bundle", options.bundleNames, "Only this app")->group(filters)->option_text("BUNDLE");
    AddRepeatedOption(command, "--user", options.userIds, "Only this user")->group(filters)->option_text("N");
    AddRepeatedOption(command, "--group", options.operationGroups, "Only this operation group")
        ->group(filters)
        ->option_text("GROUP");
    AddRepeatedOption(command, "--mode", options.operationModes, "allowed or denied")
        ->group(filters)
        ->option_text("MODE");
    AddRepeatedOption(command, "--app-state", options.appStates, "foreground or background")
        ->group(filters)
        ->option_text("STATE");
    AddRepeatedOption(command, "--screen", options.screenStates, "on, off or locked")
        ->group(filters)
        ->option_text("STATE");
    const char* span = "Time and amount";
    command.add_option("--since", options.since, "What begins then or later: a date or so long ago, 2h, 7d [all]")
        ->option_text("TIME")
        ->group(span);
    command.add_option("--until", options.until, "What begins before that [all]")->option_text("TIME")->group(span);
    command.add_option("--limit", options.limit, "At most so many records, 0 for all [0]")
        ->option_text("N")
        ->group(span);
    command.add_flag("--newest-first", options.isNewestFirst, "Start with the latest")->group(span);
}

void AddSummary(CLI::App& usage, Program& program)
{
    CLI::App* command = usage.add_subcommand("summary", "Uses added up by app, group, mode and states");
    const auto options = std::make_shared<UsageOptions>();
    AddFilters(*command, *options);
    command->footer(
        "\nSorted by app, or by time with --newest-first. Dates are local time, or UTC with a Z behind them.\n"
        "\nExample:\n  security-privacy-cli usage summary --since 2026-11-18 --until 2026-11-20 --group LOCATION");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunSummary(program, connection, *options); };
    });
}

void AddTimeline(CLI::App& usage, Program& program)
{
    CLI::App* command = usage.add_subcommand("timeline", "Single uses, or their picture");
    const auto options = std::make_shared<UsageOptions>();
    AddFilters(*command, *options);
    command->add_flag("--chart", options->isChart,
                      "Draw a row for each app and the time across, as wide as the terminal (or $COLUMNS)");
    command->footer(
        "\nDates are local time, or UTC with a Z behind them.\n"
        "\nExamples:\n"
        "  security-privacy-cli usage timeline --since 7d --chart\n"
        "  security-privacy-cli usage timeline --bundle com.example.recorder --mode denied --newest-first --limit 5");
    command->callback([&program, options] {
        program.run = [&program, options](const Connection& connection) { RunTimeline(program, connection, *options); };
    });
}

}  // namespace

void AddUsageCommands(CLI::App& app, Program& program)
{
    CLI::App* usage = app.add_subcommand("usage", "What was used when: summary, timeline");
    usage->require_subcommand(1);
    AddSummary(*usage, program);
    AddTimeline(*usage, program);
}

}  // namespace SecurityPrivacyExample
