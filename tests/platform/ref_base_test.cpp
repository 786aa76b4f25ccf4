// SPDX-License-Identifier: Apache-2.0
#include "varn/ref_base.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace VARN {
namespace {

class Left : public virtual RefBase {};

class Counted : public Left, public virtual RefBase {
public:
    explicit Counted(int* deaths) : deaths_(deaths) {}
    Counted(const Counted&) = default;
    Counted& operator=(const Counted&) = default;
    ~Counted() override { ++*deaths_; }

private:
    int* deaths_;
};

TEST(RefBaseTest, LastReleaseDestroysThroughTheBase)
{
    int deaths = 0;
    sptr<Counted> object(new Counted(&deaths));
    sptr<RefBase> base = object;
    sptr<const Left> left(object);
    EXPECT_EQ(object->StrongCount(), 3);
    EXPECT_TRUE(base == object && left == object && object != nullptr && nullptr != object);
    object = nullptr;
    left = sptr<const Left>();
    EXPECT_EQ(base->StrongCount(), 1);
    EXPECT_EQ(deaths, 0);
    base = sptr<RefBase>(std::move(object));
    EXPECT_EQ(deaths, 1);
    EXPECT_FALSE(base);
}

TEST(RefBaseTest, CopyAndAssignmentHaveOwnersOfTheirOwn)
{
    int deaths = 0;
    const sptr<Counted> first(new Counted(&deaths));
    const sptr<Counted> alias = first;
    const sptr<Counted> copy(new Counted(*first));
    EXPECT_EQ(copy->StrongCount(), 1);
    *copy = *first;
    EXPECT_TRUE(copy->StrongCount() == 1 && first->StrongCount() == 2);
    const Counted inPlace(*first);
    EXPECT_EQ(inPlace.StrongCount(), 0);
}

TEST(RefBaseTest, ManyThreadsDestroyItOnce)
{
    int deaths = 0;
    {
        sptr<Counted> object(new Counted(&deaths));
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([mine = object]() mutable {
                for (int round = 0; round < 10000; ++round) {
                    const sptr<RefBase> copy = mine;
                }
                mine = nullptr;
            });
        }
        object = nullptr;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(deaths, 1);
}

}  // namespace
}  // namespace VARN
