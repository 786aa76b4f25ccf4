// SPDX-License-Identifier: Apache-2.0
#include "varn/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
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
    explicit Reader(bool isSocket = false)
    {
        EXPECT_EQ(0, isSocket ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) : ::pipe(ends_));
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

    std::string Read() const
    {
        std::string text;
        char piece[4096];
        for (ssize_t got = 0; (got = ::read(ends_[0], piece, sizeof(piece))) > 0;) {
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

size_t Count(const std::string& text, const std::string& pattern)
{
    const std::regex regex(pattern);
    return static_cast<size_t>(std::distance(std::sregex_iterator(text.begin(), text.end(), regex), {}));
}

TEST(StandardErrorTest, GetsOneEscapedLine)
{
    const Reader reader;
    Log("a\x1b[2J\nb'\xC3\xA4'");
    const std::string head = R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )" + std::to_string(::getpid()) + R"( \d+ )";
    const std::string text = reader.Read();
    EXPECT_EQ(1U, Count(text, head + R"(E TAG: a\\x1b\[2J\\nb'\xC3\xA4'\n$)")) << text;
}

TEST(StandardErrorTest, WhatNobodyReadsIsCountedAndNothingWaitsOrEndsTheProgram)
{
    for (const bool isSocket : {false, true}) {
        Reader reader(isSocket);
        for (int line = 0; line < 5000; ++line) {
            Log("first " + std::string(200, 'x'));
        }
        const size_t arrived = Count(reader.Read(), "first");
        Log("second");
        EXPECT_EQ(1U,
                  Count(reader.Read(), "W VARN: " + std::to_string(5000 - arrived) + " lines are m.*\n.*: second\n"));
        Log(std::string(1000000, 'x'));
        EXPECT_GT(reader.Read().size(), 4096U);
        Log("behind the end that was cut off");
        EXPECT_EQ(1U, Count(reader.Read(), "^\n.* 1 lines are missing.*\n.*: behind.*\n$"));
        reader.Leave();
        Log("to nobody");
        ::close(STDERR_FILENO);
        Log("to nobody");
        sigset_t held;
        EXPECT_EQ(0, ::pthread_sigmask(SIG_BLOCK, nullptr, &held) | ::sigismember(&held, SIGPIPE));
    }
    const Reader reader;
    Log("last");
    EXPECT_EQ(1U, Count(reader.Read(), ": 2 lines are missing"));
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
    const auto ask = [&](uint32_t lines) {
        const RawClient raw(folder + "/77.sock");
        EXPECT_TRUE(raw.Send(MakeFrame(lines, "")));
        EXPECT_EQ(20U, raw.Receive(20).size());
    };
    constexpr size_t LIMIT = 7;
    SetLogLineLimit(LIMIT);
    const Reader reader;
    const time_t begin = ::time(nullptr);
    for (int line = 0; line < 50; ++line) {
        ask(10);
        Log("the program's");
    }
    const time_t end = ::time(nullptr) + 1;
    while (::time(nullptr) < end) {
        std::this_thread::yield();
    }
    ask(1);
    const std::string text = reader.Read();
    const size_t written = Count(text, "a user's line");
    EXPECT_EQ(50U, Count(text, "the program's"));
    EXPECT_GT(written, LIMIT);
    // A second may begin on the way.
    EXPECT_LE(written, static_cast<size_t>(end - begin) * LIMIT + 1);
    size_t all = written;
    const std::regex count("W VARN: (\\d+) lines that requests of user " + std::to_string(::geteuid()) + " caused");
    for (std::sregex_iterator match(text.begin(), text.end(), count); match != std::sregex_iterator(); ++match) {
        all += std::stoul((*match)[1]);
    }
    EXPECT_EQ(501U, all);
    SetLogLineLimit(0);
    ask(200);
    EXPECT_EQ(200U, Count(reader.Read(), "a user's line"));
    SetLogLineLimit(100);
    server.Stop();
    EXPECT_EQ(0, ::rmdir(folder.c_str()));
}

}  // namespace
}  // namespace VARN::Host
