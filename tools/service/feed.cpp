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

std::string Bounded(const JsonNode& node, size_t maxBytes)
{
    std::string text = node.Text();
    if (text.size() > maxBytes) {
        node.Fail("is longer than " + std::to_string(maxBytes) + " bytes");
    }
    return text;
}

std::string Name(const JsonNode& node)
{
    return Bounded(node, MAX_NAME_BYTES);
}

int64_t GroupId(Connection& connection, const JsonNode& node)
{
    const std::string name = node.Text();
    SQLite::Statement& find = connection.Prepare("SELECT id FROM permission_group WHERE name = ?", name);
    if (!find.executeStep()) {
        node.Fail("is not among the permissionGroups");
    }
    return find.getColumn(0).getInt64();
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
                       place++, Name(item));
    }
    const auto require = [&](const JsonNode& state, bool isDisabled) {
        if (connection.Run("UPDATE shown_state SET is_disabled = is_disabled OR ? WHERE app_group = ? AND state = ?",
                           isDisabled, groupId, state.Text()) == 0) {
            state.Fail("is not among the shownStates");
        }
    };
    require(group["checkedState"], false);
    if (const auto disabled = group.Find("disabledStates")) {
        for (const JsonNode& item : disabled->Items()) {
            require(item, true);
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
    const std::string reasonText = reason ? Bounded(*reason, MAX_REASON_BYTES) : "";
    SQLite::Statement& add = connection.Prepare(
        "INSERT INTO app_group (app, permission_group, state, flags, disabled_reason) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT DO UPDATE SET state = excluded.state, flags = excluded.flags, "
        "disabled_reason = excluded.disabled_reason "
        "RETURNING id, EXISTS (SELECT 1 FROM shown_state WHERE shown_state.app_group = app_group.id)",
        app, permissionGroup, state, flags ? flags->Integer() : 0, reasonText);
    add.executeStep();
    if (add.getColumn(1).getInt64() != 0) {
        node.Fail("the app holds the group already");
    }
    ImportStates(connection, node, add.getColumn(0).getInt64());
}

void ImportInstallation(Connection& connection, const JsonNode& node, const std::string& bundleName)
{
    node.AllowOnly({"userId", "uid", "groups"});
    const int64_t userId = node["userId"].Int32(0);
    SQLite::Statement& user = connection.Prepare("SELECT 1 FROM user WHERE id = ?", userId);
    if (!user.executeStep()) {
        node["userId"].Fail("is not among the users");
    }
    const int64_t uid = node["uid"].Int32(0);
    SQLite::Statement& taken =
        connection.Prepare("SELECT 1 FROM app WHERE uid = ? AND (bundle, user) <> (?, ?)", uid, bundleName, userId);
    if (taken.executeStep()) {
        node["uid"].Fail("another app has the uid");
    }
    // What is there already has a uid below 0 until the file names it.
    SQLite::Statement& add = connection.Prepare(
        "INSERT INTO app (bundle, user, uid) VALUES (?, ?, ?) "
        "ON CONFLICT (bundle, user) DO UPDATE SET uid = excluded.uid WHERE uid < 0 RETURNING id",
        bundleName, userId, uid);
    if (!add.executeStep()) {
        node.Fail("the app is installed for the user already");
    }
    const int64_t app = add.getColumn(0).getInt64();
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
        if (connection.Run("INSERT INTO user (id, is_listed) VALUES (?, 1) "
                           "ON CONFLICT DO UPDATE SET is_listed = 1 WHERE is_listed = 0",
                           item.Int32(0)) == 0) {
            item.Fail("the user is listed twice");
        }
    }
    for (const JsonNode& item : root["permissionGroups"].Items()) {
        if (connection.Run("INSERT INTO permission_group (name, is_listed) VALUES (?, 1) "
                           "ON CONFLICT DO UPDATE SET is_listed = 1 WHERE is_listed = 0",
                           Name(item)) == 0) {
            item.Fail("the group is listed twice");
        }
    }
    connection.exec("DELETE FROM user WHERE is_listed = 0; DELETE FROM permission_group WHERE is_listed = 0");
    for (const JsonNode& app : root["apps"].Items()) {
        app.AllowOnly({"bundleName", "installations"});
        const std::string bundleName = Name(app["bundleName"]);
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
    SQLite::Statement& app =
        connection.Prepare("SELECT id FROM app WHERE bundle = ? AND user = ?", bundleName, event["userId"].Int32(0));
    if (!app.executeStep()) {
        event.Fail("the app is not installed for the user");
    }
    const int64_t group = GroupId(connection, event["operationGroup"]);
    const int64_t begin = event["begin"].Integer(0, MAX_TIMESTAMP);
    const int64_t end = event["end"].Integer(begin, MAX_TIMESTAMP);
    return connection.Run(
        "INSERT INTO usage (began, ended, app, permission_group, mode, app_state, screen_state, times) "
        "SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8 WHERE NOT EXISTS (SELECT 1 FROM usage WHERE app = ?3 AND "
        "began = ?1 AND ended = ?2 AND permission_group = ?4 AND mode = ?5 AND app_state = ?6 AND "
        "screen_state = ?7 AND times = ?8 AND id <= ?9)",
        begin + shift, end + shift, app.getColumn(0).getInt64(), group, UsageCodeOf(event["mode"], OPERATION_MODES),
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

void StoreLine(Connection& connection, const std::string& place, const std::string& line)
{
    if (line.size() > MAX_LINE_BYTES) {
        throw InputError(place + ": is longer than " + std::to_string(MAX_LINE_BYTES) + " bytes");
    }
    AddUsageEvent(connection, ParseJson(place, line), 0, 0);
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
            } catch (const Refusal& refusal) {
                item.Fail(DescribeResult(refusal.code)->meaning);
            }
        }
        const int64_t known = connection.execAndGet("SELECT coalesce(max(id), 0) FROM usage").getInt64();
        for (const JsonNode& item : root["usageEvents"].Items()) {
            counts.usageEvents += AddUsageEvent(connection, item, now != 0 ? now - recordedAt : 0, known);
        }
    });
    return counts;
}

bool IsEmpty(Database& database)
{
    bool isEmpty = false;
    database.Read([&](Connection& connection) {
        isEmpty = connection.execAndGet("SELECT NOT EXISTS (SELECT 1 FROM user)").getInt() != 0;
    });
    return isEmpty;
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
                    ++number;
                    StoreLine(connection, name + ": line " + std::to_string(number), line);
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
