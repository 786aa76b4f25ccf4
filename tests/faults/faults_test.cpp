// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "abuse/processes.h"
#include "faults/interposer.h"
#include "platform/host_fixture.h"

// Each call that makes, finds or uses a socket or starts a thread, and each allocation that does not throw, fails once
// in turn, on either side. What was lost by it is lost once: the same server, with a single place for connections,
// answers the next who ask, and in the end holds nothing.
namespace VARN::Host {
namespace {

enum class Outcome { RIGHT, FAILED, WRONG };

// Little, and then so much that it takes several turns.
Outcome Talk()
{
    const sptr<IRemoteObject> object = Load(3);
    Outcome worst = Outcome::RIGHT;
    for (const std::string& text : {std::string(10, 'x'), std::string(1000000, 'x')}) {
        const auto [status, said] = object != nullptr ? Ask(object, 1, text, 3) : Answer{-1, ""};
        worst = std::max(worst, status != 0 ? Outcome::FAILED : said == text ? Outcome::RIGHT : Outcome::WRONG);
    }
    return worst;
}

struct FaultCase {
    std::string call;
    int fatalTimes;  // from the next time on nothing is lost by it, so nothing may fail
    std::vector<int> errors;

    friend void PrintTo(const FaultCase& fault, std::ostream* out) { *out << fault.call; }
};

class FaultsTest : public HostTest, public ::testing::WithParamInterface<FaultCase> {
protected:
    void SetUp() override
    {
        SetLogLevel(LOG_LEVEL_FATAL + 1);
        ASSERT_NO_FATAL_FAILURE(Serve());
        EXPECT_EQ(Outcome::RIGHT, Talk());
        server_.reset();
        descriptors_ = CountEntries(::getpid(), "fd");
        threads_ = CountEntries(::getpid(), "task");
    }

    // Whether the call was made so often, and so has failed.
    bool Strike(int error, int number)
    {
        SCOPED_TRACE(std::string(std::strerror(error)) + " at call " + std::to_string(number));
        AbilityServerOptions options;
        options.workers = 2;
        options.maxConnections = 1;
        Arm(GetParam().call.c_str(), error, number);
        const bool isRunning = server_.emplace(ID, service_, options).Start();
        const Outcome outcome = isRunning ? Talk() : Outcome::FAILED;
        const bool hasStruck = Disarm();
        EXPECT_NE(Outcome::WRONG, outcome);
        if (!hasStruck || number > GetParam().fatalTimes) {
            EXPECT_EQ(Outcome::RIGHT, outcome) << "nothing was lost by it";
        }
        if (isRunning) {
            EXPECT_TRUE(Eventually([] { return Talk() == Outcome::RIGHT; })) << "the same server does not recover";
        }
        server_.reset();
        EXPECT_TRUE(Eventually([this] { return CountEntries(::getpid(), "fd") <= descriptors_; }));
        EXPECT_TRUE(Eventually([this] { return CountEntries(::getpid(), "task") <= threads_; }));
        return hasStruck;
    }

private:
    size_t descriptors_ = 0;
    size_t threads_ = 0;
};

TEST_P(FaultsTest, CostsOneCallAtMost)
{
    // Enough for every call of the small request and the pattern of the big one.
    constexpr int MOST = 40;
    for (const int error : GetParam().errors) {
        int number = 1;
        while (number <= MOST && Strike(error, number)) {
            ASSERT_FALSE(HasFailure());  // each of the others would wait for what does not come
            ++number;
        }
        EXPECT_LT(1, number) << "the call is never made";
    }
}

constexpr int ALWAYS = 1000;
const FaultCase allFaults[] = {
    {"accept4", 0, {EINTR, EAGAIN, EMFILE, ENOMEM, ENFILE, ECONNABORTED, EPERM}},
    {"bind", 1, {ENOMEM}},
    {"fchmodat", 1, {EPERM}},
    {"connect", 0, {EINTR, ECONNREFUSED}},
    {"connect", 1, {EAGAIN}},  // whether somebody listens where the server wants to
    {"connect", ALWAYS, {ENOMEM}},
    {"epoll_create1", 1, {EMFILE}},
    {"epoll_ctl", ALWAYS, {ENOMEM, ENOSPC}},
    {"epoll_wait", 0, {EINTR}},
    {"eventfd", ALWAYS, {EMFILE, ENOMEM}},
    {"flock", 1, {ENOLCK}},
    {"getsockopt", ALWAYS, {ENOBUFS}},
    {"listen", 1, {ENOMEM}},
    {"poll", 0, {EINTR}},
    {"poll", ALWAYS, {ENOMEM}},
    {"recv", 0, {EINTR, COMES_SHORT}},
    {"recv", ALWAYS, {EAGAIN, ECONNRESET, ENOMEM}},
    {"sendmsg", 0, {EINTR, COMES_SHORT}},
    {"sendmsg", ALWAYS, {EAGAIN, EPIPE, ENOMEM, ECONNRESET}},
    {"setsockopt", ALWAYS, {ENOMEM}},
    {"socket", ALWAYS, {EMFILE, ENOMEM}},
    {"stat", ALWAYS, {EACCES}},
#if defined(INTERPOSES_THREADS)
    {"pthread_create", 2, {EAGAIN}},  // the watcher and one worker have to be
#endif
#if defined(INTERPOSES_MALLOC)
    {"malloc", ALWAYS, {ENOMEM}},
    {"realloc", ALWAYS, {ENOMEM}},
#endif
};

INSTANTIATE_TEST_SUITE_P(Calls, FaultsTest, ::testing::ValuesIn(allFaults), [](const auto& fault) {
    return fault.param.call + "_" + ::strerrorname_np(fault.param.errors[0]);
});

}  // namespace
}  // namespace VARN::Host
