// SPDX-License-Identifier: Apache-2.0
#include "varn/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "host/base/process.h"
#include "support/log_capture.h"
#include "varn/host/log_sink.h"
#include "varn/host/visible_text.h"

namespace VARN::Host {
namespace {

using AppSecurityPrivacy::SecurityPrivacyServer::Testing::Count;

class LogTest : public ::testing::Test {
protected:
    LogTest()
    {
        SetLogSink([this](const LogLine& line) { lines_.push_back(line); });
    }
    ~LogTest() override { SetLogSink(nullptr); }

    std::vector<LogLine> lines_;
};

TEST_F(LogTest, LineArrivesWholeAndVerbatim)
{
    const std::string lengthy(100000, 'x');
    EXPECT_EQ(18, VoLogPrint(2, LOG_LEVEL_WARN, 0xABCD, "TAG", "%{public}s and %{private}d%% \x1b[1m\n", "text", -5));
    VoLogPrint(2, 6, 1, "TAG", "%s%{public}u%{public}s", lengthy.c_str(), 7U, "end");
    VoLogPrint(2, 6, 1, nullptr, "100 %{public");
    ASSERT_EQ(3U, lines_.size());
    EXPECT_EQ("100 %{public", lines_[2].text);
    EXPECT_EQ(2, lines_[0].type);
    EXPECT_EQ(LOG_LEVEL_WARN, lines_[0].level);
    EXPECT_EQ(0xABCDU, lines_[0].domain);
    EXPECT_EQ("TAG", lines_[0].tag);
    EXPECT_EQ("text and -5% \x1b[1m\n", lines_[0].text);
    EXPECT_EQ(lengthy + "7end", lines_[1].text);
}

TEST_F(LogTest, LineBelowTheLevelEvaluatesNothing)
{
    int evaluated = 0;
    EXPECT_EQ(0, VoLogPrint(0, LOG_LEVEL_INFO, 0, "TAG", "%d", ++evaluated));
    EXPECT_EQ(0, (VoLogPrint)(0, LOG_LEVEL_INFO, 0, "TAG", "%s", "the function asks again"));
    EXPECT_EQ(1, VoLogPrint(0, LOG_LEVEL_WARN, 0, "TAG", "%d", ++evaluated));
    EXPECT_EQ(1, evaluated);
    EXPECT_EQ(1U, lines_.size());
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
    EXPECT_EQ(2, calls);
    ASSERT_EQ(1U, lines_.size());
    EXPECT_EQ("later", lines_[0].text);
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
    const auto logger = std::async(std::launch::async, [] { VoLogPrint(0, 6, 0, "TAG", "held"); });
    inside.get_future().wait();
    // Were the child to wait for its parent's thread, the alarm would end it.
    EXPECT_EXIT((::alarm(30), SetLogSink(nullptr), ::_exit(0)), ::testing::ExitedWithCode(0), "");
    const auto releaser = std::async(std::launch::async, [&leave] { leave.set_value(); });
    SetLogSink(nullptr);
    EXPECT_TRUE(left);
}

TEST(VisibleTextTest, OnlyWhatATerminalShowsGoesThrough)
{
    // The neighbours of what is escaped, and the last characters that there are.
    const std::string shown =
        " ~\xC2\xA0\xC3\xA4\xE2\x80\x8D\xE2\x80\x90\xE2\x80\xA7\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xB0"
        "\xED\x9F\xBF\xF0\x9F\x99\x82\xF4\x8F\xBF\xBF";
    EXPECT_EQ(shown, VisibleText(shown));
    EXPECT_EQ("a\\n(\\xc3(", VisibleText("a\n(\xC3("));
    for (const std::string& escaped :
         {std::string(1, '\0'), std::string("\x1f\x7f\t"), std::string("\xC2\x80\xC2\x9F"),
          std::string("\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F\xE2\x80\xA8\xE2\x80\xAE\xE2\x81\xA6"),
          std::string("\xE2\x81\xAF\x9B\xFF\xC0\x9B\xE0\x82\x9B\xF0\x80\x82\x9B"),
          std::string("\xED\xA0\x80\xF4\x90\x80\x80\xE2\x82")}) {
        std::string expected;
        for (const char byte : escaped) {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(byte));
            expected += hex;
        }
        EXPECT_EQ(expected, VisibleText(escaped));
    }
}

// Standard error while it exists, read when the test says so.
class Reader {
public:
    enum Kind { PIPE, SOCKET, TERMINAL };
    explicit Reader(Kind kind = PIPE)
    {
        const termios raw = {};
        EXPECT_EQ(0, kind == SOCKET ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_)
                     : kind == PIPE ? ::pipe(ends_)
                                    : ::openpty(&ends_[0], &ends_[1], nullptr, &raw, nullptr));
        EXPECT_EQ(0, ::fcntl(ends_[0], F_SETFL, O_NONBLOCK));
        ::dup2(ends_[1], STDERR_FILENO);
        ::close(ends_[1]);
    }
    ~Reader()
    {
        ::close(ends_[0]);
        ::dup2(before_, STDERR_FILENO);
        ::close(before_);
    }
    void Leave() { ends_[0] = (::close(ends_[0]), -1); }

    std::string Read(size_t pieces = SIZE_MAX) const
    {
        std::string text;
        char piece[60];
        for (ssize_t got = 0; pieces-- > 0 && (got = ::read(ends_[0], piece, sizeof(piece))) > 0;) {
            text.append(piece, static_cast<size_t>(got));
        }
        return text;
    }

private:
    const int before_ = ::dup(STDERR_FILENO);
    int ends_[2] = {};
};

void Log(const std::string& text)
{
    VoLogPrint(0, LOG_LEVEL_ERROR, 0, "TAG", "%s", text.c_str());
}

TEST(StandardErrorTest, WhatNobodyReadsIsCountedAndNothingWaitsOrEndsTheProgram)
{
    const std::string head = R"(\n\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )" + std::to_string(::getpid()) + R"( \d+ )";
    for (const Reader::Kind kind : {Reader::PIPE, Reader::SOCKET, Reader::TERMINAL}) {
        Reader reader(kind);
        std::string text;
        for (int line = 0; line < 5000; ++line) {
            Log("first " + std::string(line == 0 ? 1000000 : 200, 'x'));
            text += reader.Read(line % 50 == 0 ? 1 : 0);  // room for a part of a line, or of what tells of lost ones
        }
        text += reader.Read();
        Log("last\x1b[2J\nb'\xC3\xA4'");
        text += reader.Read();
        const size_t before = kind == Reader::PIPE ? 0 : 2;  // lost in the round before
        EXPECT_EQ(5000 + before,
                  Count(text, "first x{200}\n") + Count(text, "W VARN: (\\d+) lines are .* take them\n"));
        EXPECT_EQ(1U, Count(text, head + R"(E TAG: last\\x1b\[2J\\nb'\xC3\xA4'\n$)"));
        reader.Leave();
        Log("to nobody");
        ::close(STDERR_FILENO);
        Log("to nobody");
        sigset_t held;
        EXPECT_EQ(0, ::pthread_sigmask(SIG_BLOCK, nullptr, &held) | ::sigismember(&held, SIGPIPE));
    }
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
    const std::string command = "JOURNAL_STREAM=$(stat -Lc %d:%i /dev/fd/2) LOG_TO_JOURNAL=1 " +
                                std::filesystem::read_symlink("/proc/self/exe").string() +
                                " --gtest_filter='*JournalGetsItsOwnLevel' >/dev/null";
    const Reader reader;
    EXPECT_EQ(0, std::system(command.c_str()));
    EXPECT_EQ(1U, Count(reader.Read(), "^<7>.* 3\n<6>.* 4\n<4>.* 5\n<3>.* 6\n<3>.* 7\n$"));
}

TEST(StandardErrorTest, OneUserCannotFillIt)
{
    constexpr size_t LIMIT = 7;
    const auto logAs = [](uid_t user, int lines) {
        const Caller caller = {1, user, 1};
        const CallerScope scope(caller);
        for (int line = 0; line < lines; ++line) {
            Log("a line of " + std::to_string(user));
        }
    };
    SetLogLineLimit(LIMIT);
    const Reader reader;
    const time_t begin = ::time(nullptr);
    for (int request = 0; request < 50; ++request) {
        logAs(1000, 10);
        Log("the program's");
    }
    const time_t end = ::time(nullptr) + 2;
    while (::time(nullptr) < end) {
        std::this_thread::yield();
    }
    // Of 64 places for users one is shared by the 18 who come last.
    for (uid_t user = 1001; user <= 1081; ++user) {
        logAs(user, 1);
    }
    const std::string text = reader.Read();
    EXPECT_EQ(50U, Count(text, "the program's"));
    EXPECT_EQ(63 + LIMIT, Count(text, "a line of (?!1000)"));
    const size_t all = Count(text, "a line of 1000");
    EXPECT_GE(all, LIMIT);
    // A second may begin on the way.
    EXPECT_LE(all, static_cast<size_t>(end - begin) * LIMIT);
    EXPECT_EQ(500U, all + Count(text, "W VARN: (\\d+) lines that requests of user 1000 caused"));
    SetLogLineLimit(0);
    logAs(1000, 200);
    EXPECT_EQ(200U, Count(reader.Read(), "a line of 1000"));
    SetLogLineLimit(100);
}

}  // namespace
}  // namespace VARN::Host
