// SPDX-License-Identifier: Apache-2.0
#include "varn/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "varn/host/log_sink.h"

namespace VARN::Host {
namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SetLogLevel(3);
        SetLogSink([this](const LogLine& line) {
            const std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        });
    }
    void TearDown() override
    {
        SetLogSink(nullptr);
        SetLogLevel(4);
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
    EXPECT_TRUE(lines_[0].type == 2 && lines_[0].level == 3 && lines_[0].domain == 0xABCD && lines_[0].tag == "TAG");
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
    SetLogLevel(5);
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

}  // namespace
}  // namespace VARN::Host
