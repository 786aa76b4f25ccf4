// SPDX-License-Identifier: Apache-2.0
#include "host/server/worker_pool.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>

// The pool's own steps, in the order that workers could take them. A call that is missed is a wait without end.
namespace VARN::Host {
namespace {

class WorkerPoolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        pool_.Start();
        pool_.BeginStay();
        pool_.BeginStay();
    }
    // The last who waits gets something to do, or nothing after all.
    void TakeLastAway(bool hasWork = true)
    {
        pool_.BeginWait();
        pool_.EndWait(hasWork);
    }
    void ExpectCall() { EXPECT_FALSE(pool_.AwaitInput(silent_.Get(), -1)); }

    std::atomic<int> started_{0};
    RefusalLog refusals_{1};
    WorkerPool pool_{6, refusals_, [this] { ++started_; }};
    const UniqueFd silent_{::eventfd(0, EFD_CLOEXEC)};
};

TEST_F(WorkerPoolTest, AtTheLimitCallIsForOneWhoHasNothingToDoAndPassedOnUntilSomebodyWaits)
{
    for (int started = 4; started <= 6; ++started) {
        TakeLastAway();
    }
    EXPECT_TRUE(pool_.AwaitInput(UniqueFd(::eventfd(1, EFD_CLOEXEC)).Get(), -1));
    ExpectCall();
    pool_.EndStay();
    ExpectCall();
    pool_.Stop();
    EXPECT_EQ(started_, 6);
}

TEST_F(WorkerPoolTest, OneWhoIsBusyAloneDoesNotStayButCallsTheOtherBackOnceASecond)
{
    for (const int64_t now : {5000, 6000}) {
        EXPECT_TRUE(pool_.CallIdleBack(now));
        ExpectCall();
        EXPECT_FALSE(pool_.CallIdleBack(now + 999));
    }
    pool_.EndStay();
    EXPECT_FALSE(pool_.CallIdleBack(9000));
    for (const bool mayStay : {false, true, true, false}) {
        EXPECT_EQ(pool_.MayStay(), mayStay);
        pool_.BeginWait();
    }
}

TEST_F(WorkerPoolTest, EndCallsBackAll)
{
    pool_.BeginWait();
    pool_.Stop();
    EXPECT_FALSE(pool_.MayStay());
    ExpectCall();
    ExpectCall();
}

TEST_F(WorkerPoolTest, GrowsOnlyWhenTheLastGetsWorkAndNotAfterTheEnd)
{
    TakeLastAway(false);
    pool_.BeginWait();
    TakeLastAway();
    pool_.EndWait(false);
    pool_.Stop();
    TakeLastAway();
    pool_.Stop();
    EXPECT_EQ(started_, 4);
}

}  // namespace
}  // namespace VARN::Host
