// SPDX-License-Identifier: Apache-2.0
#include "varn/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/raw_client.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"
#include "varn/host/visible_text.h"

namespace VARN::Host {
namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SetLogLevel(LOG_LEVEL_DEBUG);
        SetLogSink([this](const LogLine& line) {
            const std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        });
    }
    void TearDown() override
    {
        SetLogSink(nullptr);
        SetLogLevel(LOG_LEVEL_WARN);
    }

    std::mutex mutex_;
    std::vector<LogLine> lines_;
};

TEST_F(LogTest, LineArrivesWholeAndVerbatim)
{
    const std::string lengthy(100000, 'x');
    EXPECT_EQ(VoLogPrint(2, 3, 0xABCD, "TAG", "%{public}s and %{private}d%% \x1b[1m\n", "text", -5), 18);
    VoLogPrint(2, 6, 1, "TAG", "%s%{public}u%{public}s", lengthy.c_str(), 7U, "end");
    VoLogPrint(2, 6, 1, nullptr, "100 %{public");
    ASSERT_EQ(lines_.size(), 3U);
    EXPECT_EQ(lines_[2].text, "100 %{public");
    EXPECT_EQ(2, lines_[0].type);
    EXPECT_EQ(LOG_LEVEL_DEBUG, lines_[0].level);
    EXPECT_EQ(0xABCDU, lines_[0].domain);
    EXPECT_EQ("TAG", lines_[0].tag);
    EXPECT_EQ(lines_[0].text, "text and -5% \x1b[1m\n");
    EXPECT_EQ(lines_[1].text, lengthy + "7end");
}

TEST_F(LogTest, LineBelowTheLevelEvaluatesNothing)
{
    int evaluated = 0;
    const auto argument = [&evaluated] {
        ++evaluated;
        return "x";
    };
    SetLogLevel(LOG_LEVEL_WARN);
    EXPECT_EQ(VoLogPrint(0, 4, 0, "TAG", "%s", argument()), 0);
    EXPECT_EQ((VoLogPrint)(0, 4, 0, "TAG", "%s", "the function asks again"), 0);
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(VoLogPrint(0, 5, 0, "TAG", "%s", argument()), 1);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(lines_.size(), 1U);
}

TEST_F(LogTest, SinkMayLogThrowAndReplaceItself)
{
    int calls = 0;
    SetLogSink([&calls, this](const LogLine& line) {
        if (++calls == 1) {
            VoLogPrint(0, 6, 0, "TAG", "%s again", line.text.c_str());
            SetLogSink([this](const LogLine& later) { lines_.push_back(later); });
            throw calls;
        }
    });
    VoLogPrint(0, 6, 0, "TAG", "once");
    VoLogPrint(0, 6, 0, "TAG", "later");
    EXPECT_EQ(calls, 2);
    ASSERT_EQ(lines_.size(), 1U);
    EXPECT_EQ(lines_[0].text, "later");
}

TEST_F(LogTest, ReplacedSinkIsNotCalledAnyMore)
{
    std::promise<void> inside;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    SetLogSink([&](const LogLine&) {
        inside.set_value();
        leave.get_future().wait();
        left = true;
    });
    std::thread logger([] { VoLogPrint(0, 6, 0, "TAG", "held"); });
    inside.get_future().wait();
    std::thread releaser([&leave] { leave.set_value(); });
    SetLogSink(nullptr);
    EXPECT_TRUE(left);
    logger.join();
    releaser.join();
}

TEST_F(LogTest, StandardErrorGetsOneEscapedLine)
{
    SetLogSink(nullptr);
    ::testing::internal::CaptureStderr();
    VoLogPrint(0, 5, 0, "TAG", "a\x1b[2J\nb\x7f'\xC3\xA4\xC2\x9B'");
    VoLogPrint(0, 3, 0, "TAG", "next");
    const std::string text = ::testing::internal::GetCapturedStderr();
    const std::string head = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )" + std::to_string(::getpid()) + R"( \d+ )";
    const std::string wanted = head + R"(W TAG: a\\x1b\[2J\\nb\\x7f'\xC3\xA4\\xc2\\x9b'\n)" + head + R"(D TAG: next\n)";
    EXPECT_TRUE(std::regex_match(text, std::regex(wanted))) << text;
}

TEST(VisibleTextTest, OnlyWhatATerminalShowsGoesThrough)
{
    const struct {
        std::string text;
        std::string visible;
    } cases[] = {
        {"", ""},
        {"plain ~", "plain ~"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\x1f\x7f\t\n", "\\x1f\\x7f\\x09\\n"},
        {"\xC2\x80\xC2\x9F\xC2\xA0", "\\xc2\\x80\\xc2\\x9f\xC2\xA0"},
        {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x99\x82", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x99\x82"},
        {"\xE2\x80\x8D\xE2\x80\x8E\xE2\x80\x8F\xE2\x80\x90", "\xE2\x80\x8D\\xe2\\x80\\x8e\\xe2\\x80\\x8f\xE2\x80\x90"},
        {"\xE2\x80\xA7\xE2\x80\xA8\xE2\x80\xAE\xE2\x80\xAF", "\xE2\x80\xA7\\xe2\\x80\\xa8\\xe2\\x80\\xae\xE2\x80\xAF"},
        {"\xE2\x81\xA5\xE2\x81\xA6\xE2\x81\xAF\xE2\x81\xB0", "\xE2\x81\xA5\\xe2\\x81\\xa6\\xe2\\x81\\xaf\xE2\x81\xB0"},
        {"\xD8\x9C", "\\xd8\\x9c"},
        {"\x9B\x32J\xFF", "\\x9b2J\\xff"},
        {"\xC3", "\\xc3"},
        {"\xE2\x82(", "\\xe2\\x82("},
        {"\xC0\x9B\xE0\x82\x9B\xF0\x80\x82\x9B", "\\xc0\\x9b\\xe0\\x82\\x9b\\xf0\\x80\\x82\\x9b"},
        {"\xED\xA0\x80\xF4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
        {"\xED\x9F\xBF\xF4\x8F\xBF\xBF", "\xED\x9F\xBF\xF4\x8F\xBF\xBF"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(row.visible, VisibleText(row.text));
    }
}

// Runs the function with `descriptor` as standard error, closed when it is -1.
template <class Function>
void WithStandardError(int descriptor, Function function)
{
    const int before = ::dup(STDERR_FILENO);
    descriptor < 0 ? ::close(STDERR_FILENO) : ::dup2(descriptor, STDERR_FILENO);
    function();
    ::dup2(before, STDERR_FILENO);
    ::close(before);
}

std::string ReadAll(int descriptor)
{
    std::string text;
    char piece[4096];
    for (ssize_t got = 0; (got = ::read(descriptor, piece, sizeof(piece))) > 0;) {
        text.append(piece, static_cast<size_t>(got));
    }
    return text;
}

void Log(const std::string& text)
{
    VoLogPrint(0, LOG_LEVEL_ERROR, 0, "TAG", "%s", text.c_str());
}

size_t Count(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        ++count;
    }
    return count;
}

TEST(StandardErrorTest, WhatNobodyReadsIsCountedAndNothingWaits)
{
    for (const bool isSocket : {false, true}) {
        SCOPED_TRACE(isSocket);
        int ends[2] = {};
        ASSERT_EQ(0, isSocket ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : ::pipe(ends));
        ASSERT_EQ(0, ::fcntl(ends[0], F_SETFL, O_NONBLOCK));
        constexpr size_t LINES = 5000;
        WithStandardError(ends[1], [&] {
            for (size_t line = 0; line < LINES; ++line) {
                Log("line " + std::to_string(line) + " " + std::string(200, 'x'));
            }
            const size_t arrived = Count(ReadAll(ends[0]), "line ");
            EXPECT_LT(arrived, LINES);
            Log("next line");
            const std::string next = ReadAll(ends[0]);
            EXPECT_NE(std::string::npos, next.find("VARN: " + std::to_string(LINES - arrived) + " lines are missing"))
                << next;
            EXPECT_EQ(1U, Count(next, "TAG: next line\n"));
            Log("last line");
            EXPECT_EQ(1U, Count(ReadAll(ends[0]), "\n")) << "they are told of once";
        });
        ::close(ends[0]);
        WithStandardError(ends[1], [] { Log("to nobody"); });
        ::close(ends[1]);
        WithStandardError(-1, [] { Log("to nobody"); });
    }
    ::testing::internal::CaptureStderr();
    Log("here again");
    EXPECT_NE(std::string::npos, ::testing::internal::GetCapturedStderr().find(" 2 lines are missing here"));
}

TEST(StandardErrorTest, LineThatIsCutDoesNotRunIntoTheNext)
{
    int ends[2] = {};
    ASSERT_EQ(0, ::pipe(ends));
    ASSERT_EQ(0, ::fcntl(ends[0], F_SETFL, O_NONBLOCK));
    WithStandardError(ends[1], [&] {
        Log(std::string(1000000, 'x'));
        EXPECT_GT(ReadAll(ends[0]).size(), 4096U);
        Log("next line");
        const std::string next = ReadAll(ends[0]);
        EXPECT_EQ('\n', next.front());
        EXPECT_EQ(1U, Count(next, ": 1 lines are missing"));
    });
    ::close(ends[0]);
    ::close(ends[1]);
}

// In a process of its own, since the environment is looked at once.
TEST(StandardErrorTest, JournalGetsItsOwnLevel)
{
    if (::getenv("LOG_TO_JOURNAL") != nullptr) {
        SetLogLevel(LOG_LEVEL_DEBUG);
        for (int level = LOG_LEVEL_DEBUG; level <= LOG_LEVEL_FATAL; ++level) {
            (VoLogPrint)(0, level, 0, "TAG", "level %d", level);
        }
        return;
    }
    const std::string command =
        "FILE=$(mktemp); exec 2>\"$FILE\"; LOG_TO_JOURNAL=1 "
        "JOURNAL_STREAM=$(stat -Lc %d:%i \"$FILE\") " +
        std::filesystem::read_symlink("/proc/self/exe").string() +
        " --gtest_filter='*JournalGetsItsOwnLevel' >/dev/null;"
        " cut -c1-3 \"$FILE\" | tr -d '\\n'; rm \"$FILE\"";
    FILE* output = ::popen(command.c_str(), "r");
    ASSERT_NE(nullptr, output);
    char text[64] = {};
    EXPECT_NE(nullptr, ::fgets(text, sizeof(text), output));
    ::pclose(output);
    EXPECT_STREQ("<7><6><4><3><3>", text);
}

// The requests of one user may cause so many lines a second; the program's own and another user's are not touched.
TEST(StandardErrorTest, OneUserCannotFillIt)
{
    class Talker : public IPCObjectStub {
    public:
        int32_t OnRemoteRequest(uint32_t code, MessageParcel&, MessageParcel&, MessageOption&) override
        {
            for (uint32_t line = 0; line < code; ++line) {
                Log("a user's line");
            }
            return 0;
        }
    };
    std::string folder = "/tmp/log_test.XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(folder.data()));
    AbilityServerOptions options;
    options.directory = folder;
    AbilityServer server(77, sptr<IPCObjectStub>(new Talker()), options);
    ASSERT_TRUE(server.Start());
    constexpr uint32_t LINES = 500;
    constexpr int REQUESTS = 10;
    const auto ask = [&](uint32_t lines) {
        const RawClient raw(folder + "/77.sock");
        EXPECT_TRUE(raw.Send(MakeFrame(lines, "")));
        EXPECT_EQ(20U, raw.Receive(20).size());
    };
    for (const size_t limit : {size_t{100}, size_t{7}, size_t{0}}) {
        SCOPED_TRACE(limit);
        SetLogLineLimit(limit);
        ::testing::internal::CaptureStderr();
        // No second has more than the limit; a second may begin in between.
        const time_t begin = ::time(nullptr);
        for (int request = 0; request < REQUESTS; ++request) {
            ask(LINES);
        }
        const auto seconds = static_cast<size_t>(::time(nullptr) - begin) + 1;
        for (int line = 0; line < 150; ++line) {
            Log("the program's line");
        }
        while (::time(nullptr) < begin + static_cast<time_t>(seconds)) {
            std::this_thread::yield();
        }
        ask(1);
        const std::string text = ::testing::internal::GetCapturedStderr();
        const size_t all = LINES * REQUESTS + 1;
        const size_t written = Count(text, "a user's line");
        EXPECT_EQ(150U, Count(text, "the program's line"));
        if (limit == 0) {
            EXPECT_EQ(all, written);
            continue;
        }
        EXPECT_LE(written, seconds * limit + 1);
        EXPECT_GE(written, limit);
        size_t leftOut = 0;
        const std::regex count("VARN: (\\d+) lines that requests of user " + std::to_string(::geteuid()) + " caused");
        for (std::sregex_iterator match(text.begin(), text.end(), count); match != std::sregex_iterator(); ++match) {
            leftOut += std::stoul((*match)[1]);
        }
        EXPECT_EQ(all, written + leftOut);
    }
    SetLogLineLimit(100);
    server.Stop();
    ::rmdir(folder.c_str());
}

}  // namespace
}  // namespace VARN::Host
