// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "cli/output.h"
#include "cli/program.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

constexpr int32_t MAX_PINGS = 1000000;

double Milliseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

void PrintExchange(const Program& program, const Exchange& exchange)
{
    if (program.isJson) {
        PrintJson({{"findingMs", Milliseconds(exchange.finding)},
                   {"answeringMs", Milliseconds(exchange.answering)},
                   {"status", exchange.status}});
        return;
    }
    char line[96];
    std::snprintf(line, sizeof(line), "found in %.3f ms, answered in %.3f ms", Milliseconds(exchange.finding),
                  Milliseconds(exchange.answering));
    PrintLine(line);
}

void RunPing(const Program& program, const Connection& connection, int32_t count)
{
    // The newest use: a request that everybody may send, that changes nothing and has a short answer.
    PermissionUsageRecordQuery query;
    query.SetLimit(1);
    query.SetOrder(1);
    for (int32_t turn = 0; turn < count; ++turn) {
        std::vector<PermissionUsageRecord> records;
        SecurityPrivacyClient::GetInstance().GetPermissionUsageTimeline(query, records);
        // Whatever the service thinks of the query: it has answered.
        connection.CheckExchange();
        PrintExchange(program, connection.Last());
    }
}

}  // namespace

void AddPingCommand(CLI::App& app, Program& program)
{
    CLI::App* command = app.add_subcommand("ping", "How long finding the service and its answer take");
    const auto count = std::make_shared<int32_t>(1);
    command->add_option("-c,--count", *count, "How often to ask [1]")
        ->option_text("N")
        ->check(CLI::Range(1, MAX_PINGS));
    command->footer(
        "\nThe first time includes connecting; later ones look at the connection that is there.\n"
        "Without an answer it says what was tried, on which path, and what the system said.\n"
        "\nExample:\n  security-privacy-cli ping --count 5 --wait 0");
    command->callback([&program, count] {
        program.run = [&program, count](const Connection& connection) { RunPing(program, connection, *count); };
    });
}

}  // namespace SecurityPrivacyExample
