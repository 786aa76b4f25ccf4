// SPDX-License-Identifier: Apache-2.0
#include "host/worker_pool.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>

// The pool's own steps, in the order that two or three workers could take them. What is wrong shows as a wait without
// end.
namespace VARN::Host {
namespace {

class WorkerPoolTest : public ::testing::Test {
protected:
    // The last who waits gets something to do.
    static void TakeLastAway(WorkerPool& pool)
    {
        pool.BeginWait();
        pool.EndWait(true);
        EXPECT_FALSE(pool.MayStay());
    }

    RefusalLog refusals_{1};
    const UniqueFd silent_{::eventfd(0, EFD_CLOEXEC)};
    const UniqueFd asking_{::eventfd(1, EFD_CLOEXEC)};
};

TEST_F(WorkerPoolTest, CallIsForOneWhoHasNothingToDo)
{
    WorkerPool pool(1, refusals_, [] {});
    pool.Start();
    pool.BeginStay();
    pool.BeginStay();
    TakeLastAway(pool);
    EXPECT_TRUE(pool.AwaitInput(asking_.Get(), -1));
    EXPECT_FALSE(pool.AwaitInput(silent_.Get(), -1));
}

TEST_F(WorkerPoolTest, CallIsPassedOnUntilSomebodyWaits)
{
    WorkerPool pool(1, refusals_, [] {});
    pool.Start();
    pool.BeginStay();
    pool.BeginStay();
    TakeLastAway(pool);
    EXPECT_FALSE(pool.AwaitInput(silent_.Get(), -1));
    pool.EndStay();
    EXPECT_FALSE(pool.AwaitInput(silent_.Get(), -1));
}

TEST_F(WorkerPoolTest, OneWhoIsBusyAloneDoesNotStay)
{
    WorkerPool pool(3, refusals_, [] {});
    pool.Start();
    TakeLastAway(pool);
    TakeLastAway(pool);
    pool.BeginWait();
    EXPECT_TRUE(pool.MayStay());
    pool.BeginWait();
    EXPECT_FALSE(pool.MayStay());
}

TEST_F(WorkerPoolTest, AnotherIsCalledBackOnceASecond)
{
    constexpr int64_t NOW = 5000;
    WorkerPool pool(1, refusals_, [] {});
    pool.Start();
    pool.BeginStay();
    EXPECT_FALSE(pool.CallIdleBack(NOW));
    pool.BeginStay();
    for (const int64_t now : {NOW, NOW + 1000}) {
        EXPECT_TRUE(pool.CallIdleBack(now));
        EXPECT_FALSE(pool.AwaitInput(silent_.Get(), -1));
        EXPECT_FALSE(pool.CallIdleBack(now + 999));
    }
}

TEST_F(WorkerPoolTest, EndCallsBackAll)
{
    WorkerPool pool(1, refusals_, [] {});
    pool.Start();
    pool.BeginWait();
    pool.BeginStay();
    pool.BeginStay();
    pool.Stop();
    EXPECT_FALSE(pool.MayStay());
    EXPECT_FALSE(pool.AwaitInput(silent_.Get(), -1));
    EXPECT_FALSE(pool.AwaitInput(silent_.Get(), -1));
}

TEST_F(WorkerPoolTest, GrowsWhenTheLastGetsWorkAndOnlyThen)
{
    for (const size_t limit : {size_t{2}, size_t{9}}) {
        std::atomic<int> started{0};
        WorkerPool pool(limit, refusals_, [&] { ++started; });
        pool.Start();
        pool.BeginWait();
        pool.EndWait(false);
        pool.BeginWait();
        pool.BeginWait();
        pool.EndWait(true);
        pool.EndWait(true);
        if (limit == 2) {
            TakeLastAway(pool);
        }
        pool.Stop();
        TakeLastAway(pool);
        pool.Stop();
        EXPECT_EQ(started, 2) << limit;
    }
}

}  // namespace
}  // namespace VARN::Host
