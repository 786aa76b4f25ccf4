// SPDX-License-Identifier: Apache-2.0
// Plays the files of tests/transcripts: each line that begins with '>' is a command, and what stands below it is what
// that leaves, word for word. TRANSCRIPTS_WRITE=1 in the environment writes what was seen into the files instead.
//
//   > level N                  log lines of at least this level are shown from now on
//   > presence STATE           how the service is found: here, absent, dead, dying, or no-manager
//   > service answer CODE RESULT N   the operation answers RESULT and N records
//   > service fail N           every operation answers N, 0 as before
//   > service refuse           the access check refuses everything; 'allow' ends it
//   > send CODE VALUES         a hand-made request: its status, its reply in words, and the call it makes
//   > client CODE [N]          the client's request, with lists of N elements where N is given
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
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

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

// All of a short list, the ends of a long one.
template <class T>
std::string Show(const std::vector<T>& values)
{
    constexpr size_t SHORT = 80;
    std::ostringstream shown;
    shown << values.size() << " [";
    for (size_t i = 0; i < values.size(); ++i) {
        if (values.size() <= SHORT || i < 2 || i + 2 >= values.size()) {
            shown << (i > 0 ? ", " : "") << values[i];
        }
    }
    return shown.str() + "]\n";
}

// Nothing when it is as in a new record, or an empty list.
template <class Record>
std::string ShowIfSet(const std::string& name, const Record& record)
{
    return record.ToString() == Record().ToString() ? "" : "  " + name + " " + record.ToString() + "\n";
}
template <class T>
std::string ShowIfSet(const std::string& name, const std::vector<T>& list)
{
    return list.empty() ? "" : "  " + name + " " + Show(list);
}
std::string ShowIfSet(const std::string& name, const std::string& text)
{
    return text.empty() ? "" : "  " + name + " '" + text + "'\n";
}

std::string Show(const FakeCall& call)
{
    std::vector<std::string> interested(call.interested.begin(), call.interested.end());
    std::sort(interested.begin(), interested.end());
    // Of many, the set's own order decides which are sent: their number is what counts.
    interested.resize(interested.size() < 4 ? interested.size() : 0);
    return "call " + std::to_string(call.code) + " user " + std::to_string(call.userId) + " uid " +
           std::to_string(call.uid) + " interested " + std::to_string(call.interested.size()) + "\n" +
           ShowIfSet("bundleName", call.bundleName) + ShowIfSet("permissionGroup", call.permissionGroup) +
           ShowIfSet("policyName", call.policyName) + ShowIfSet("interested", interested) +
           ShowIfSet("bundleNames", call.bundleNames) + ShowIfSet("gTokenInfos", Texts(call.gTokenInfos)) +
           ShowIfSet("parameter", call.checkedStateParameter) + ShowIfSet("query", call.query);
}

// What was appended to a list; whatever happens, what was there stays.
template <class T>
std::string ShowAppended(const std::string& name, const std::vector<T>& list, const std::vector<T>& before)
{
    std::vector<std::string> texts = Texts(list);
    if (texts.empty() || texts[0] != before[0].ToString()) {
        return "  " + name + " were lost\n";
    }
    texts.erase(texts.begin());
    return ShowIfSet(name, texts);
}

std::string Show(const Outcome& outcome)
{
    const Outcome before;
    return "result " + std::to_string(outcome.result) + (outcome.returns ? "\n" : " returns false\n") +
           ShowAppended("groups", outcome.groups, before.groups) +
           ShowAppended("records", outcome.records, before.records) + ShowIfSet("rows", Texts(outcome.rows));
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
    arguments.bundleNames = MakeNames(count, "name");
    arguments.interested = {arguments.bundleNames.begin(), arguments.bundleNames.end()};
    arguments.query.SetScreenStates(std::vector<int>(count, 1));
    arguments.gTokenInfos.resize(count, Sample<GTokenInfo>());
    return arguments;
}

class Transcript : public CallTest {
protected:
    void SetUp() override
    {
        CallTest::SetUp();
        manager_ = sptr<FakeServiceManager>(new FakeServiceManager(Load()));
        SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(manager_);
    }
    void TearDown() override
    {
        SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(previous_);
        CallTest::TearDown();
    }

    // What the command leaves, without the log.
    std::string Play(std::istream& command)
    {
        std::string name;
        uint32_t code = 0;
        command >> name;
        if (name == "level") {
            command >> level_;
        } else if (name == "presence") {
            SetPresence(command);
        } else if (name == "service") {
            SetService(command);
        } else if (name == "send") {
            command >> code;
            const int32_t status = Send(code, TakeValues(command));
            return "status " + std::to_string(status) + " reply " + Show(TakeWords(*reply));
        } else if (name == "client") {
            size_t count = 0;
            command >> code;
            return Show(CallOperation(client, code, command >> count ? MakeArguments(count) : Arguments()));
        } else if (name == "reply") {
            command >> code;
            std::string sent;
            const sptr<ScriptedObject> object(new ScriptedObject(
                [&, words = TakeValues(command)](uint32_t sentCode, MessageParcel& data, MessageParcel& answer) {
                    data.ReadInterfaceToken();
                    sent = "sent " + std::to_string(sentCode) + " " + Show(TakeWords(data));
                    Put(answer, words);
                    return 0;
                }));
            const Outcome outcome = CallOperation(*ProxyOver(object), code);
            const ScriptedObject::Sent& option = object->sent.at(0);
            return "flags " + std::to_string(option.flags) + " wait " + std::to_string(option.waitTime) + " " + sent +
                   Show(outcome);
        } else if (name == "record") {
            return PlayRecord(command);
        } else if (name == "orphan") {
            command >> code;
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
        level_ = ERROR;
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
                played += std::regex_replace(log.Lines(level_), std::regex("\n\n"), "\\n\n");
                EXPECT_EQ(std::string::npos, log.Everything().find(SECRET)) << line;
            }
        }
        return played;
    }

private:
    static std::string PlayRecord(std::istream& command)
    {
        std::string name;
        command >> name;
        const RecordCase& kind = CaseOf(name);
        Parcel parcel;
        const std::vector<int32_t> words = TakeValues(command);
        words.empty() ? Put(parcel, kind.values) : Put(parcel, words);
        const sptr<Parcelable> record = kind.unmarshal(parcel);
        const std::string left = " left " + std::to_string(parcel.GetReadableBytes()) + "\n";
        if (record == nullptr) {
            return "null" + left;
        }
        Parcel written;
        const bool isWritten = (words.empty() ? kind.record : record)->Marshalling(written);
        const std::string text = kind.toString(*record);
        return (text.size() < 1000 ? text : "long") + left + (isWritten ? "" : "not ") + "written " +
               Show(TakeWords(written));
    }

    void SetPresence(std::istream& command)
    {
        std::string state;
        command >> state;
        SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(state == "no-manager" ? nullptr : manager_);
        manager_->SetPresence(state == "absent"  ? FakePresence::ABSENT
                              : state == "dead"  ? FakePresence::DEAD
                              : state == "dying" ? FakePresence::DYING
                                                 : FakePresence::HERE);
    }

    void SetService(std::istream& command)
    {
        std::string what;
        uint32_t code = 0;
        int64_t result = 0;
        size_t count = 0;
        command >> what;
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

    int level_ = ERROR;
    const sptr<ISystemAbilityManager> previous_ = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    sptr<FakeServiceManager> manager_;
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
