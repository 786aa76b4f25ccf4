// SPDX-License-Identifier: Apache-2.0
// Plays the files of tests/transcripts: each line that begins with '>' is a command, and what stands below it is what
// that leaves, word for word. TRANSCRIPTS_WRITE=1 in the environment writes what was seen into the files instead.
//
//   > level N                  log lines of at least this level are shown from now on
//   > presence STATE           how the service is found: here, absent, dead, dying, no-manager, or no-memory
//   > answer CODE RESULT N     the operation answers RESULT and N records
//   > fail N                   every operation answers N, 0 as before
//   > refuse                   the access check refuses everything; 'allow' ends it
//   > send CODE VALUES         a hand-made request: its status, its reply in words, and the call it makes
//   > client CODE [N]          the client's request, with lists of N elements where N is given
//   > connect                  what connecting beside the client gives
//   > reply CODE VALUES        the proxy's request, in words, and what it makes of a hand-made reply
//   > orphan CODE              what a proxy without an object makes of a call
//   > record NAME [VALUES]     a record read from its sample's values or these, and written again
//
// Values are those of PutText.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "security_privacy/connect.h"
#include "support/calls.h"
#include "support/record_cases.h"
#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Util::FormatUtils::Text;

// All of a short list, the ends of a long one.
template <class T>
std::string Text(const std::vector<T>& values)
{
    std::vector<T> shown = values;
    if (shown.size() > 80) {
        shown.erase(std::next(shown.begin(), 2), std::prev(shown.end(), 2));
    }
    return Text(values.size()) + " " + Util::FormatUtils::ToString(shown);
}

// Nothing when it is as in a new record, or empty.
template <class T>
std::string ShowIfSet(const std::string& name, const T& value)
{
    return Text(value) == Text(T()) ? "" : "  " + name + " " + Text(value) + "\n";
}

std::string Show(const FakeCall& call)
{
    std::vector<std::string> interested(call.interested.begin(), call.interested.end());
    std::sort(interested.begin(), interested.end());
    // Of many, the set's own order decides which are sent: their number is what counts.
    interested.resize(interested.size() < 4 ? interested.size() : 0);
    return "call " + Text(call.code) + " user " + Text(call.userId) + " uid " + Text(call.uid) + " interested " +
           Text(call.interested.size()) + "\n" + ShowIfSet("bundleName", call.bundleName) +
           ShowIfSet("permissionGroup", call.permissionGroup) + ShowIfSet("policyName", call.policyName) +
           ShowIfSet("interested", interested) + ShowIfSet("bundleNames", call.bundleNames) +
           ShowIfSet("gTokenInfos", call.gTokenInfos) + ShowIfSet("parameter", call.checkedStateParameter) +
           ShowIfSet("query", call.query);
}

// What was appended to a list; whatever happens, what was there stays.
template <class T>
std::string ShowAppended(const std::string& name, std::vector<T> list)
{
    if (list.empty() || Text(list[0]) != Text(Sample<T>())) {
        return "  " + name + " were lost\n";
    }
    list.erase(list.begin());
    return ShowIfSet(name, list);
}

std::string Show(const Outcome& outcome)
{
    return "result " + Text(outcome.result) + (outcome.returns ? "\n" : " returns false\n") +
           ShowAppended("groups", outcome.groups) + ShowAppended("records", outcome.records) +
           ShowIfSet("rows", outcome.rows);
}

// Samples, each with its number where a record has one that a service may choose.
FakeAnswer MakeAnswer(int64_t result, size_t count)
{
    FakeAnswer answer;
    answer.result = static_cast<int32_t>(result);
    answer.returns = count % 2 == 1;
    answer.gTokenResultWithRet.ret = result;
    for (size_t i = 0; i < count; ++i) {
        const auto number = static_cast<int32_t>(i);
        answer.appPermissionGroupInfos.emplace_back(Sample<Permission::AppPermissionGroupInfo>()).uid = number;
        answer.records.emplace_back(Sample<Record::PermissionUsageRecord>()).SetTimes(number);
        answer.gTokenResultWithRet.gTokenResults.emplace_back(Sample<GTokenResult>()).policyValue = number;
    }
    return answer;
}

Arguments MakeArguments(size_t count)
{
    Arguments arguments;
    arguments.bundleNames.clear();
    for (size_t i = 0; i < count; ++i) {
        arguments.bundleNames.push_back("name" + std::to_string(i));
    }
    arguments.interested = {arguments.bundleNames.begin(), arguments.bundleNames.end()};
    arguments.query.SetScreenStates(std::vector<int>(count, 1));
    arguments.gTokenInfos.resize(count, Sample<GTokenInfo>());
    return arguments;
}

std::string PlayReply(uint32_t code, const std::string& values)
{
    std::string sent;
    const sptr<IRemoteObject> object(new ScriptedStub([&](uint32_t sentCode, auto& data, auto& answer, auto& option) {
        data.ReadInterfaceToken();
        sent = "flags " + Text(option.GetFlags()) + " wait " + Text(option.GetWaitTime()) + " sent " + Text(sentCode) +
               " " + Text(TakeWords(data)) + "\n";
        PutText(answer, values);
        return 0;
    }));
    const Outcome outcome = CallOperation(*ProxyOver(object), code);
    return sent + Show(outcome);
}

std::string PlayRecord(const RecordCase& kind, const std::string& values)
{
    Parcel parcel;
    PutText(parcel, values.empty() ? kind.values : values);
    const sptr<Parcelable> record = kind.unmarshal(parcel);
    const std::string left = " left " + Text(parcel.GetReadableBytes()) + "\n";
    if (record == nullptr) {
        return "null" + left;
    }
    Parcel written;
    const bool isWritten = record->Marshalling(written);
    const std::string text = kind.toString(*record);
    return (text.size() < 1000 ? text : "long") + left + (isWritten ? "" : "not ") + "written " +
           Text(TakeWords(written)) + "\n";
}

class OutOfMemory : public ISystemAbilityManager {
    sptr<IRemoteObject> LoadSystemAbility(int32_t, int32_t) override { throw std::bad_alloc(); }
};

class Player {
public:
    explicit Player(bool isBehindSocket) : served_(isBehindSocket) { managers_.SetSystemAbilityManager(manager_); }
    ~Player() { managers_.SetSystemAbilityManager(previous_); }

    // What is left by each command of the file.
    std::string Play(std::istream& file)
    {
        std::string played;
        for (std::string line; std::getline(file, line);) {
            if (line.empty() || line.front() == '#') {
                played += line + "\n";
            } else if (line.front() == '>') {
                const LogCapture log(level_);
                played += line + "\n" + PlayLine(line.substr(1));
                for (const FakeCall& call : served_.service->TakeCalls()) {
                    played += Show(call);
                }
                played += std::regex_replace(log.Lines(), std::regex("\n\n"), "\\n\n");
                EXPECT_EQ(std::string::npos, log.Everything().find(SECRET)) << line;
            }
        }
        return played;
    }

private:
    // Without the log and the calls that reach the service.
    std::string PlayLine(const std::string& line)
    {
        std::istringstream words(line);
        std::string name;
        std::string what;
        std::string values;
        words >> name >> what;
        std::getline(words, values);
        const auto number = static_cast<uint32_t>(std::strtoll(what.c_str(), nullptr, 10));
        FakeService& service = *served_.service;
        if (name == "level") {
            level_ = static_cast<int>(number);
        } else if (name == "presence") {
            managers_.SetSystemAbilityManager(what == "no-manager"  ? nullptr
                                              : what == "no-memory" ? sptr<ISystemAbilityManager>(new OutOfMemory())
                                                                    : manager_);
            manager_->SetPresence(what == "absent"  ? FakePresence::ABSENT
                                  : what == "dead"  ? FakePresence::DEAD
                                  : what == "dying" ? FakePresence::DYING
                                                    : FakePresence::HERE);
        } else if (name == "answer") {
            int64_t result = 0;
            size_t count = 0;
            std::istringstream(values) >> result >> count;
            service.SetAnswer(number, MakeAnswer(result, count));
        } else if (name == "fail") {
            service.FailAll(static_cast<int32_t>(number));
        } else if (name == "refuse") {
            service.SetRefused({0, 1, 2, 3, 4, 5, 6, 7, 11, 12, 13, 14, UINT32_MAX});
        } else if (name == "allow") {
            service.SetRefused({});
        } else if (name == "send") {
            return PlayRequest(number, values);
        } else if (name == "client") {
            const Arguments arguments = values.empty() ? Arguments() : MakeArguments(std::stoul(values));
            return Show(CallOperation(SecurityPrivacyClient::GetInstance(), number, arguments));
        } else if (name == "connect") {
            const ConnectResult result = Connect(0);
            return "error " + Text(static_cast<int>(result.error)) + (result.service ? " service\n" : " nothing\n");
        } else if (name == "reply") {
            return PlayReply(number, values);
        } else if (name == "orphan") {
            return Show(CallOperation(*ProxyOver(nullptr), number));
        } else if (name == "record") {
            return PlayRecord(CaseOf(what), values);
        } else {
            ADD_FAILURE() << "no such command: " << name;
        }
        return "";
    }

    std::string PlayRequest(uint32_t code, const std::string& values) const
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor());
        PutText(data, values);
        const int32_t status = object_->SendRequest(code, data, reply, option);
        return "status " + Text(status) + " reply " + Text(TakeWords(reply)) + "\n";
    }

    const ServedFake served_;
    int level_ = LOG_LEVEL_ERROR;
    SystemAbilityManagerClient& managers_ = SystemAbilityManagerClient::GetInstance();
    const sptr<ISystemAbilityManager> previous_ = managers_.GetSystemAbilityManager();
    const sptr<IRemoteObject> object_ = previous_->LoadSystemAbility(FAKE_SERVICE_ID, 4);
    const sptr<FakeServiceManager> manager_{new FakeServiceManager(object_)};
};

TEST(Transcripts, AreLeftAsTheyStandInTheirFiles)
{
    const std::set<std::filesystem::path> paths(std::filesystem::directory_iterator(TRANSCRIPTS), {});
    for (const std::filesystem::path& path : paths) {
        std::ifstream file(path);
        const std::string expected(std::istreambuf_iterator<char>(file), {});
        for (const bool isBehindSocket : {false, true}) {
            std::istringstream script(expected);
            const std::string played = Player(isBehindSocket).Play(script);
            if (std::getenv("TRANSCRIPTS_WRITE") != nullptr) {
                std::ofstream(path) << played;
            } else {
                EXPECT_EQ(expected, played) << path.filename() << (isBehindSocket ? " over a socket" : "");
            }
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
