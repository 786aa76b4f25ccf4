// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "cli/value_text.h"
#include "security_privacy/contract.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::SECURITY_PRIVACY_SA_ID;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;
using MessageCode = Service::MessageCode;

constexpr int64_t MAX_PINGS = 1000000;
constexpr std::time_t ANSWER_TIMEOUT_SECONDS = 8;

// All that one of these commands may be told.
struct Wanted {
    int64_t count = 0;  // of pings; of lines, 0: without end
    std::vector<std::string> names;
    std::vector<int64_t> uids;
};

std::string Decimal(double number)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", number);
    return text;
}

void RunPing(const Program& program, const Wanted& options)
{
    // Uses before the first one: everybody may ask, nothing changes, and no record is looked at.
    PermissionUsageRecordQuery query;
    query.SetBeginTimestamp(1);
    query.SetEndTimestamp(2);
    const std::string name = MessageCode::ToString(MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE);
    for (int64_t turn = 0; turn < options.count; ++turn) {
        std::vector<PermissionUsageRecord> records;
        // Whatever the service thinks of the query: it has answered.
        const Call call =
            Ask(program, [&](Service& service) { return service.GetPermissionUsageTimeline(query, records); });
        PrintResult(
            program,
            {{"name", name}, {"findingMs", call.findingMs}, {"answeringMs", call.answeringMs}, {"status", call.status}},
            name + ": found in " + Decimal(call.findingMs) + " ms, answered in " + Decimal(call.answeringMs) + " ms");
    }
}

// The lines that the service writes to its status socket: first its state, then each finished request.
class StatusStream {
public:
    StatusStream()
    {
        const char* folder = std::getenv(DIRECTORY_VARIABLE);
        path_ = folder != nullptr && *folder != '\0' ? folder : "/run/varn";
        path_ += "/" + std::to_string(SECURITY_PRIVACY_SA_ID) + ".status.sock";
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (path_.size() >= sizeof(address.sun_path)) {
            Fail(EXIT_USAGE, "the path is longer than a socket's may be");
        }
        if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            const bool isRefused = errno == EACCES || errno == EPERM;
            Fail(isRefused ? EXIT_REFUSED : EXIT_UNREACHABLE, std::strerror(errno));
        }
        stream_ = ::fdopen(socket, "r");
        const auto waitAtMost = [socket](timeval time) {
            ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time));
        };
        waitAtMost({ANSWER_TIMEOUT_SECONDS, 0});
        status_ = Next();
        waitAtMost({0, 0});  // for ever
    }

    // What the service said first.
    const Json& Status() const { return status_; }

    // The next line. Throws Failure at the end.
    Json Next()
    {
        constexpr size_t MAX_LINE = size_t{1024} * 1024;
        // Against a document so deep that printing it would overflow the stack.
        constexpr int MAX_DEPTH = 8;
        std::string text;
        for (int byte = std::getc(stream_); byte != '\n'; byte = std::getc(stream_)) {
            if (std::feof(stream_) != 0) {
                // Before anything was said it is the way to turn a user away.
                const bool isSilent = status_.is_null() && text.empty();
                Fail(isSilent ? EXIT_REFUSED : EXIT_BROKEN, "the service has ended the connection");
            }
            if (byte == EOF || text.size() > MAX_LINE) {
                Fail(EXIT_BROKEN, "the service took too long, or said too much");
            }
            text += static_cast<char>(byte);
        }
        bool isFlat = true;
        const auto check = [&isFlat](int depth, Json::parse_event_t, Json&) {
            return isFlat = isFlat && depth <= MAX_DEPTH;
        };
        Json line = Json::parse(text, check, false);
        if (!isFlat || !line.is_object()) {
            Fail(EXIT_BROKEN, "a line makes no sense");
        }
        return line;
    }

private:
    [[noreturn]] void Fail(ExitCode code, const std::string& what) const
    {
        throw Failure(code, "cannot read the service's status: " + path_ + ": " + what +
                                (code == EXIT_REFUSED ? "\nOnly root and the service's own user may see it." : ""));
    }

    std::string path_;
    std::FILE* stream_ = nullptr;  // the process has no other and ends with it
    Json status_;
};

int64_t Number(const Json& object, const char* name)
{
    const Json& value = Member(object, name);
    return value.is_number_integer() ? value.get<int64_t>() : 0;
}

// A table of objects, with the members of the first one as columns.
void PrintObjects(const Json& objects)
{
    if (!objects.is_array() || objects.empty()) {
        return;
    }
    Columns columns;
    for (const auto& [key, value] : objects.front().items()) {
        columns.push_back({key, key});
    }
    std::puts("");
    PrintRecords({}, objects.size(), columns, [&objects](size_t index) { return objects[index]; });
}

void RunStatus(const Program& program, const Wanted& /*options*/)
{
    const Json status = StatusStream().Status();
    PrintResult(program, status,
                Text(status, "service") + " " + Text(status, "version") + ", process " + Text(status, "pid") + ", up " +
                    FormatSpan(Number(status, "startedAt"), Number(status, "time")));
    if (program.isJson) {
        return;
    }
    PrintObjects(Member(status, "requests"));
    const Json& server = Member(status, "server");
    std::puts("");
    for (const auto& [key, value] : server.items()) {
        if (!value.is_structured()) {
            PrintResult({}, {}, key + ": " + value.dump());
        }
    }
    PrintObjects(Member(server, "users"));
}

std::string ExactTime(const Json& request)
{
    const int64_t time = Number(request, "time");
    return FormatTime(time) + std::to_string(SECOND + std::abs(time % SECOND)).replace(0, 1, ".");
}

void RunMonitor(const Program& program, const Wanted& options)
{
    const auto milliseconds = [](const Json& request) {
        return Decimal(static_cast<double>(Number(request, "durationUs")) / 1000);
    };
    const Columns columns = {{"TIME", "", ExactTime, 23},         {"UID", "uid", nullptr, 10},
                             {"PID", "pid", nullptr, 8},          {"REQUEST", "name", nullptr, 44},
                             {"BYTES IN", "bytesIn", nullptr, 9}, {"BYTES OUT", "bytesOut", nullptr, 9},
                             {"STATUS", "status", nullptr, 6},    {"MS", "", milliseconds}};
    const auto isAmong = [](const auto& value, const auto& wanted) {
        return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
    };
    StatusStream stream;
    if (!program.isJson) {
        PrintRow(columns, Json());
    }
    for (int64_t shown = 0; options.count == 0 || shown < options.count;) {
        FinishOutput();
        const Json request = stream.Next();
        const bool isGap = request.contains("lost");
        if (!isGap &&
            !(isAmong(Text(request, "name"), options.names) && isAmong(Number(request, "uid"), options.uids))) {
            continue;
        }
        if (isGap || program.isJson) {
            PrintResult({program.isJson, true}, request,
                        "lost: " + Text(request, "lost") + " requests, which came faster than they were read");
        } else {
            PrintRow(columns, request);
        }
        shown += isGap ? 0 : 1;
    }
}

}  // namespace

void AddServiceCommands(CLI::App& app, const Program& program)
{
    auto [ping, pingOptions] =
        AddCommand(app, program, "ping", "How long finding the service and its answer take", RunPing,
                   "\nThe first time includes connecting; later ones look at the connection that is there.\n"
                   "What is asked changes nothing; it counts as GET_PERMISSION_USAGE_RECORD_TIMELINE in the service's "
                   "statistics.\n"
                   "Without an answer it says what was tried, on which path, and what the system said.\n"
                   "\nExample:\n  security-privacy-cli ping --count 5 --wait 0");
    pingOptions.count = 1;
    AddOption(ping, "-c,--count", pingOptions.count, "N", "How often to ask [1]")
        ->check(CLI::Range(int64_t{1}, MAX_PINGS));

    AddCommand(app, program, "status", "What the service has done and holds at present", RunStatus,
               "\nOnly for root and the service's own user.\n\nExample:\n  security-privacy-cli status --json");

    auto [monitor, options] = AddCommand(
        app, program, "monitor", "A line for each request that the service finishes, until interrupted", RunMonitor,
        "\nOnly for root and the service's own user. Who reads too slowly loses lines and is told how many.\n"
        "With --json each line is a JSON object.\n"
        "\nExample:\n  security-privacy-cli monitor --name GET_PERMISSION_USAGE_RECORD_TIMELINE --uid 10001");
    AddOption(monitor, "--name", options.names, "NAME", "Only requests of this name; may be repeated [all]");
    AddOption(monitor, "--uid", options.uids, "N", "Only requests of this user id; may be repeated [all]");
    AddOption(monitor, "-c,--count", options.count, "N", "End after so many lines [never]")->check(CLI::PositiveNumber);
}

}  // namespace SecurityPrivacyTools
