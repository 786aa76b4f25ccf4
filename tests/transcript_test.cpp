// SPDX-License-Identifier: Apache-2.0
// Plays the files of tests/transcripts: each line that begins with '>' is a command, and what stands below it is what
// that leaves, word for word. TRANSCRIPTS_WRITE=1 in the environment writes what was seen into the files instead.
//
//   > level N                  log lines of at least this level are shown from now on
//   > presence STATE           how the service is found: here, absent, dead, dying, no-manager, or no-memory
//   > service answer CODE RESULT N   the operation answers RESULT and N records
//   > service fail N           every operation answers N, 0 as before
//   > service refuse           the access check refuses everything; 'allow' ends it
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

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

std::vector<int32_t> TakeValues(std::istream& command)
{
    Parcel parcel;
    PutText(parcel, std::string(std::istreambuf_iterator<char>(command), {}));
    return TakeWords(parcel);
}

std::string Text(int32_t word)
{
    return std::to_string(word);
}
std::string Text(const std::string& text)
{
    return "'" + text + "'";
}
template <class Record>
std::string Text(const Record& record)
{
    return record.ToString();
}

// All of a short list, the ends of a long one.
template <class T>
std::string Text(const std::vector<T>& values)
{
    constexpr size_t SHORT = 80;
    std::string shown = std::to_string(values.size()) + " [";
    for (size_t i = 0; i < values.size(); ++i) {
        if (values.size() <= SHORT || i < 2 || i + 2 >= values.size()) {
            shown += (i > 0 ? ", " : "") + Text(values[i]);
        }
    }
    return shown + "]";
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
    return "call " + Text(static_cast<int32_t>(call.code)) + " user " + Text(call.userId) + " uid " + Text(call.uid) +
           " interested " + std::to_string(call.interested.size()) + "\n" + ShowIfSet("bundleName", call.bundleName) +
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
    return "result " + std::to_string(outcome.result) + (outcome.returns ? "\n" : " returns false\n") +
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
        answer.appPermissionGroupInfos.push_back(Sample<Permission::AppPermissionGroupInfo>());
        answer.appPermissionGroupInfos.back().uid = static_cast<int32_t>(i);
        answer.records.push_back(Sample<Record::PermissionUsageRecord>());
        answer.records.back().SetTimes(static_cast<int32_t>(i));
        answer.gTokenResultWithRet.gTokenResults.push_back(Sample<GTokenResult>());
        answer.gTokenResultWithRet.gTokenResults.back().policyValue = static_cast<int64_t>(i);
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

std::string PlayReply(uint32_t code, const std::vector<int32_t>& words)
{
    std::string sent;
    const sptr<ScriptedObject> object(
        new ScriptedObject([&](uint32_t sentCode, MessageParcel& data, MessageParcel& answer) {
            data.ReadInterfaceToken();
            sent = "sent " + std::to_string(sentCode) + " " + Text(TakeWords(data)) + "\n";
            Put(answer, words);
            return 0;
        }));
    const Outcome outcome = CallOperation(*ProxyOver(object), code);
    return "flags " + Text(object->lastOption.GetFlags()) + " wait " + Text(object->lastOption.GetWaitTime()) + " " +
           sent + Show(outcome);
}

std::string PlayRecord(const RecordCase& kind, const std::vector<int32_t>& words)
{
    Parcel parcel;
    words.empty() ? PutText(parcel, kind.values) : static_cast<void>(Put(parcel, words));
    const sptr<Parcelable> record = kind.unmarshal(parcel);
    const std::string left = " left " + std::to_string(parcel.GetReadableBytes()) + "\n";
    if (record == nullptr) {
        return "null" + left;
    }
    Parcel written;
    const bool isWritten = (words.empty() ? kind.record : record)->Marshalling(written);
    const std::string text = kind.toString(*record);
    return (text.size() < 1000 ? text : "long") + left + (isWritten ? "" : "not ") + "written " +
           Text(TakeWords(written)) + "\n";
}

class OutOfMemory : public ISystemAbilityManager {
    sptr<IRemoteObject> LoadSystemAbility(int32_t, int32_t) override { throw std::bad_alloc(); }
};

class Transcript : public CallTest {
protected:
    Transcript() { managers_.SetSystemAbilityManager(manager_); }
    ~Transcript() override { managers_.SetSystemAbilityManager(previous_); }

    // What the command leaves, without the log.
    std::string Play(std::istream& command)
    {
        std::string name;
        std::string word;
        uint32_t code = 0;
        command >> name;
        if (name == "level") {
            command >> level_;
        } else if (name == "presence" && command >> word) {
            SetPresence(word);
        } else if (name == "service" && command >> word) {
            SetService(word, command);
        } else if (name == "connect") {
            const ConnectResult result = Connect(0);
            return "error " + Text(static_cast<int32_t>(result.error)) + (result.service ? " service\n" : " nothing\n");
        } else if (name == "record" && command >> word) {
            return PlayRecord(CaseOf(word), TakeValues(command));
        } else if (name == "send" && command >> code) {
            MessageParcel data;
            MessageParcel reply;
            MessageOption option;
            PutAll(data, SecurityPrivacyServiceIntf::GetDescriptor(), TakeValues(command));
            const int32_t status = object_->SendRequest(code, data, reply, option);
            return "status " + Text(status) + " reply " + Text(TakeWords(reply)) + "\n";
        } else if (name == "client" && command >> code) {
            size_t count = 0;
            return Show(CallOperation(client, code, command >> count ? MakeArguments(count) : Arguments()));
        } else if (name == "reply" && command >> code) {
            return PlayReply(code, TakeValues(command));
        } else if (name == "orphan" && command >> code) {
            return Show(CallOperation(*ProxyOver(nullptr), code));
        } else {
            ADD_FAILURE() << "no such command: " << name;
        }
        return "";
    }

    std::string PlayFile(std::istream& file)
    {
        std::string played;
        // What an earlier file left is not this one's.
        size_t shownCalls = service->Calls().size();
        level_ = LOG_LEVEL_ERROR;
        service->FailAll(0);
        for (const uint32_t code : CODES) {
            service->SetAnswer(code, FakeAnswer());
        }
        for (std::string line; std::getline(file, line);) {
            if (line.empty() || line.front() == '#') {
                played.append(line).append("\n");
            } else if (line.front() == '>') {
                std::istringstream command(line.substr(1));
                const LogCapture log(level_);
                const std::string left = Play(command);
                played.append(line).append("\n").append(left);
                for (const std::vector<FakeCall> calls = service->Calls(); shownCalls < calls.size(); ++shownCalls) {
                    played += Show(calls[shownCalls]);
                }
                played += std::regex_replace(log.Lines(), std::regex("\n\n"), "\\n\n");
                EXPECT_EQ(std::string::npos, log.Everything().find(SECRET)) << line;
            }
        }
        return played;
    }

private:
    void SetPresence(const std::string& state)
    {
        managers_.SetSystemAbilityManager(state == "no-manager"  ? nullptr
                                          : state == "no-memory" ? sptr<ISystemAbilityManager>(new OutOfMemory())
                                                                 : manager_);
        manager_->SetPresence(state == "absent"  ? FakePresence::ABSENT
                              : state == "dead"  ? FakePresence::DEAD
                              : state == "dying" ? FakePresence::DYING
                                                 : FakePresence::HERE);
    }

    void SetService(const std::string& what, std::istream& command)
    {
        uint32_t code = 0;
        int64_t result = 0;
        size_t count = 0;
        if (what == "answer") {
            command >> code >> result >> count;
            service->SetAnswer(code, MakeAnswer(result, count));
        } else if (what == "fail") {
            command >> result;
            service->FailAll(static_cast<int32_t>(result));
        } else if (what == "refuse") {
            service->SetRefused({0, 1, 2, 3, 4, 5, 6, 7, 11, 12, 13, 14, 4294967295U});
        } else {
            service->SetRefused({});
        }
    }

    int level_ = LOG_LEVEL_ERROR;
    SystemAbilityManagerClient& managers_ = SystemAbilityManagerClient::GetInstance();
    const sptr<ISystemAbilityManager> previous_ = managers_.GetSystemAbilityManager();
    const sptr<IRemoteObject> object_ = previous_->LoadSystemAbility(FAKE_SERVICE_ID, 4);
    const sptr<FakeServiceManager> manager_{new FakeServiceManager(object_)};
};
INSTANTIATE_TEST_SUITE_P(Roads, Transcript, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(Transcript, IsLeftAsItStandsInItsFile)
{
    const std::set<std::filesystem::path> paths(std::filesystem::directory_iterator(TRANSCRIPTS), {});
    for (const std::filesystem::path& path : paths) {
        SCOPED_TRACE(path.filename());
        std::ifstream file(path);
        const std::string expected(std::istreambuf_iterator<char>(file), {});
        std::istringstream script(expected);
        const std::string played = PlayFile(script);
        if (std::getenv("TRANSCRIPTS_WRITE") != nullptr) {
            std::ofstream(path) << played;
        } else {
            EXPECT_EQ(expected, played);
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
