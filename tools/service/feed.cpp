// SPDX-License-Identifier: Apache-2.0
#include "service/feed.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <vector>

#include "common/json_input.h"
#include "common/result_codes.h"
#include "common/usage_codes.h"
#include "security_privacy/contract.h"
#include "service/security_privacy_service.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::MAX_STATES_SIZE;

// Keeps sums and shifts of timestamps far from overflow.
constexpr int64_t MAX_TIMESTAMP = int64_t{1} << 53;
// Longer than any event: input that never ends a line must not fill the memory.
constexpr size_t MAX_LINE_BYTES = 65536;
// Events stored or dropped in one transaction, so that others who write wait a few milliseconds at most.
constexpr size_t MAX_BATCH = 1000;

std::string Bounded(const JsonNode& node, size_t maxBytes = MAX_NAME_BYTES)
{
    std::string text = node.Text();
    if (text.size() > maxBytes) {
        node.Fail("is longer than " + std::to_string(maxBytes) + " bytes");
    }
    return text;
}

// The first number that the statement answers; when it answers none, the node is wrong.
template <class... Values>
int64_t Require(Connection& connection, const JsonNode& node, const char* complaint, const char* sql,
                const Values&... values)
{
    SQLite::Statement& statement = connection.Prepare(sql, values...);
    if (!statement.executeStep()) {
        node.Fail(complaint);
    }
    return statement.getColumn(0);
}

int64_t GroupId(Connection& connection, const JsonNode& node)
{
    return Require(connection, node, "is not among the permissionGroups",
                   "SELECT id FROM permission_group WHERE name = ?", node.Text());
}

void ImportStates(Connection& connection, const JsonNode& group, int64_t groupId)
{
    const std::vector<JsonNode> shown = group["shownStates"].Items();
    if (shown.size() > static_cast<size_t>(MAX_STATES_SIZE)) {
        group["shownStates"].Fail("more than " + std::to_string(MAX_STATES_SIZE) + " states");
    }
    int64_t place = 0;
    for (const JsonNode& item : shown) {
        connection.Run("INSERT INTO shown_state (app_group, place, state, is_disabled) VALUES (?, ?, ?, 0)", groupId,
                       place++, Bounded(item));
    }
    const auto find = [&](const JsonNode& state, bool isDisabled) {
        Require(connection, state, "is not among the shownStates",
                "UPDATE shown_state SET is_disabled = is_disabled OR ? WHERE app_group = ? AND state = ? RETURNING 1",
                isDisabled, groupId, state.Text());
    };
    find(group["checkedState"], false);
    if (const auto disabled = group.Find("disabledStates")) {
        for (const JsonNode& item : disabled->Items()) {
            find(item, true);
        }
    }
}

void ImportGroup(Connection& connection, const JsonNode& node, int64_t app)
{
    node.AllowOnly({"permissionGroup", "checkedState", "shownStates", "disabledStates", "disabledReason", "flags"});
    const auto reason = node.Find("disabledReason");
    const auto flags = node.Find("flags");
    const int64_t permissionGroup = GroupId(connection, node["permissionGroup"]);
    const std::string state = node["checkedState"].Text();
    const int64_t id = Require(
        connection, node, "the app holds the group already",
        "INSERT INTO app_group (app, permission_group, state, flags, disabled_reason) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT DO UPDATE SET state = excluded.state, flags = excluded.flags, "
        "disabled_reason = excluded.disabled_reason "
        "WHERE NOT EXISTS (SELECT 1 FROM shown_state WHERE shown_state.app_group = app_group.id) RETURNING id",
        app, permissionGroup, state, flags ? flags->Integer() : 0, reason ? Bounded(*reason, MAX_REASON_BYTES) : "");
    ImportStates(connection, node, id);
}

void ImportInstallation(Connection& connection, const JsonNode& node, const std::string& bundleName)
{
    node.AllowOnly({"userId", "uid", "groups"});
    const int32_t userId = node["userId"].Int32(0);
    Require(connection, node["userId"], "is not among the users", "SELECT 1 FROM user WHERE id = ?", userId);
    const int32_t uid = node["uid"].Int32(0);
    Require(connection, node["uid"], "another app has the uid",
            "SELECT 1 WHERE NOT EXISTS (SELECT 1 FROM app WHERE uid = ? AND (bundle, user) <> (?, ?))", uid, bundleName,
            userId);
    // What is there already has a uid below 0 until the file names it.
    const int64_t app =
        Require(connection, node, "the app is installed for the user already",
                "INSERT INTO app (bundle, user, uid) VALUES (?, ?, ?) "
                "ON CONFLICT (bundle, user) DO UPDATE SET uid = excluded.uid WHERE uid < 0 RETURNING id",
                bundleName, userId, uid);
    for (const JsonNode& item : node["groups"].Items()) {
        ImportGroup(connection, item, app);
    }
}

void ImportApps(Connection& connection, const JsonNode& root, ImportCounts& counts)
{
    connection.exec(
        "UPDATE user SET is_listed = 0; UPDATE permission_group SET is_listed = 0;"
        "UPDATE app SET uid = -1 - id; DELETE FROM shown_state");
    for (const JsonNode& item : root["users"].Items()) {
        Require(connection, item, "the user is listed twice",
                "INSERT INTO user (id, is_listed) VALUES (?, 1) "
                "ON CONFLICT DO UPDATE SET is_listed = 1 WHERE is_listed = 0 RETURNING 1",
                item.Int32(0));
    }
    for (const JsonNode& item : root["permissionGroups"].Items()) {
        Require(connection, item, "the group is listed twice",
                "INSERT INTO permission_group (name, is_listed) VALUES (?, 1) "
                "ON CONFLICT DO UPDATE SET is_listed = 1 WHERE is_listed = 0 RETURNING 1",
                Bounded(item));
    }
    connection.exec("DELETE FROM user WHERE is_listed = 0; DELETE FROM permission_group WHERE is_listed = 0");
    for (const JsonNode& app : root["apps"].Items()) {
        app.AllowOnly({"bundleName", "installations"});
        const std::string bundleName = Bounded(app["bundleName"]);
        for (const JsonNode& item : app["installations"].Items()) {
            ImportInstallation(connection, item, bundleName);
            ++counts.apps;
        }
    }
    connection.exec(
        "DELETE FROM app WHERE uid < 0;"
        "DELETE FROM app_group WHERE id NOT IN (SELECT app_group FROM shown_state)");
    counts.droppedChoices = connection.Run(
        "DELETE FROM choice WHERE NOT EXISTS (SELECT 1 FROM shown_state AS shown WHERE "
        "shown.app_group = choice.app_group AND shown.state = choice.state AND is_disabled = 0)");
}

int32_t UsageCodeOf(const JsonNode& node, const UsageCodes& codes)
{
    const auto code = FindUsageCode(codes, node.Text());
    if (!code) {
        node.Fail("expected one of: " + UsageCodeNames(codes));
    }
    return *code;
}

// Appends one usage event, moved by `shift` ms; one of the same content whose id is `knownUpTo` or less is left as it
// is. Answers how many were appended, 0 or 1.
int64_t AddUsageEvent(Connection& connection, const JsonNode& event, int64_t shift, int64_t knownUpTo)
{
    event.AllowOnly({"bundleName", "userId", "operationGroup", "times", "mode", "app", "screen", "begin", "end"});
    const std::string bundleName = event["bundleName"].Text();
    const int64_t app =
        Require(connection, event, "the app is not installed for the user",
                "SELECT id FROM app WHERE bundle = ? AND user = ?", bundleName, event["userId"].Int32(0));
    const int64_t group = GroupId(connection, event["operationGroup"]);
    const int64_t begin = event["begin"].Integer(0, MAX_TIMESTAMP);
    const int64_t end = event["end"].Integer(begin, MAX_TIMESTAMP);
    return connection.Run(
        "INSERT INTO usage (began, ended, app, permission_group, mode, app_state, screen_state, times) "
        "SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8 WHERE NOT EXISTS (SELECT 1 FROM usage WHERE app = ?3 AND "
        "began = ?1 AND ended = ?2 AND permission_group = ?4 AND mode = ?5 AND app_state = ?6 AND "
        "screen_state = ?7 AND times = ?8 AND id <= ?9)",
        begin + shift, end + shift, app, group, UsageCodeOf(event["mode"], OPERATION_MODES),
        UsageCodeOf(event["app"], APP_STATES), UsageCodeOf(event["screen"], SCREEN_STATES), event["times"].Int32(1),
        knownUpTo);
}

// Waits for a line and takes with it what has arrived behind it; nothing at the end. One that is too long is the last,
// and cut off.
std::vector<std::string> NextLines(std::istream& input)
{
    std::vector<std::string> lines;
    std::array<char, MAX_LINE_BYTES + 2> line;
    while (lines.size() < MAX_BATCH && (lines.empty() || input.rdbuf()->in_avail() > 0) &&
           input.getline(line.data(), line.size()).gcount() > 0) {
        // The end of the line counts, but is not there.
        lines.emplace_back(line.data(), static_cast<size_t>(input.gcount()) - (input.good() ? 1 : 0));
    }
    return lines;
}

}  // namespace

ImportCounts ImportDevice(Database& database, const std::string& path, int64_t now)
{
    const JsonNode root = ReadJson(path);
    root.RequireFormat("security-privacy-device", 1);
    root.AllowOnly({"format", "version", "recordedAt", "users", "permissionGroups", "apps", "gTokens", "usageEvents"});
    const int64_t recordedAt = root["recordedAt"].Integer(0, MAX_TIMESTAMP);
    ImportCounts counts;
    database.Write([&](Connection& connection) {
        ImportApps(connection, root, counts);
        for (const JsonNode& item : root["gTokens"].Items()) {
            try {
                SecurityPrivacyService::AddPolicies(connection, ReadGTokenInfo(item));
            } catch (const ResultCode& refusal) {
                item.Fail(refusal.meaning);
            }
        }
        const int64_t known = connection.execAndGet("SELECT coalesce(max(id), 0) FROM usage").getInt64();
        for (const JsonNode& item : root["usageEvents"].Items()) {
            counts.usageEvents += AddUsageEvent(connection, item, now != 0 ? now - recordedAt : 0, known);
        }
    });
    return counts;
}

int64_t RecordUsage(Database& database, const std::string& path)
{
    const std::string name = path == "-" ? "standard input" : path;
    std::ifstream input(path == "-" ? "/dev/stdin" : path);
    if (!input) {
        throw InputError(name + ": cannot open: " + std::strerror(errno));
    }
    int64_t stored = 0;
    for (auto lines = NextLines(input); !lines.empty(); lines = NextLines(input)) {
        int64_t number = stored;
        try {
            database.Write([&](Connection& connection) {
                for (const std::string& line : lines) {
                    const std::string place = name + ": line " + std::to_string(++number);
                    if (line.size() > MAX_LINE_BYTES) {
                        throw InputError(place + ": is longer than " + std::to_string(MAX_LINE_BYTES) + " bytes");
                    }
                    AddUsageEvent(connection, ParseJson(place, line), 0, 0);
                }
            });
        } catch (const std::runtime_error& error) {
            throw InputError(std::string(error.what()) + "; the first " + std::to_string(stored) +
                             " lines are stored, and no other");
        }
        stored = number;
    }
    if (input.bad()) {
        throw InputError(name + ": cannot read: " + std::strerror(errno));
    }
    return stored;
}

int64_t DropUsageBefore(Database& database, int64_t time)
{
    int64_t dropped = 0;
    database.Write([&](Connection& connection) {
        dropped = connection.Run(
            "DELETE FROM usage WHERE id IN (SELECT id FROM usage WHERE began < ? ORDER BY began LIMIT ?)", time,
            static_cast<int64_t>(MAX_BATCH));
    });
    return dropped;
}

}  // namespace SecurityPrivacyTools
