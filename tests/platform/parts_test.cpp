// SPDX-License-Identifier: Apache-2.0
#include "host/server/worker_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/server/turns.h"
#include "host/wire/frame.h"
#include "parcel_buffer.h"
#include "support/parcels.h"
#include "varn/remote_broker.h"
#include "varn/remote_proxy.h"

// Parts of the platform by themselves.
namespace VARN::Host {
namespace {

constexpr std::chrono::seconds PATIENCE{20};
constexpr int64_t NOW = 5000;

// The rules by which workers are started, stay and are woken, in the order that workers could follow them.
class WorkerPoolTest : public ::testing::Test {
protected:
    void SetUp() override { pool_.Start(); }
    static AbilityServerOptions MakeOptions()
    {
        AbilityServerOptions options;
        options.workers = 6;
        options.maxSpareWorkers = 0;
        return options;
    }
    // A worker stays with a silent client, until it is woken.
    std::future<void> StartStaying()
    {
        std::promise<void> stays;
        std::future<void> hasBegun = stays.get_future();
        std::future<void> end = std::async(std::launch::async, [this, stays = std::move(stays)]() mutable {
            Pace busy{NOW, 100};
            WorkerPool::Stay stay(pool_, busy);
            EXPECT_TRUE(stay.GoesOn(NOW, true));
            stays.set_value();
            stay.AwaitInput(-1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count()));
        });
        hasBegun.wait();
        return end;
    }
    bool MayStay()
    {
        Pace busy{NOW, 100};
        WorkerPool::Stay stay(pool_, busy);
        const bool goesOn = stay.GoesOn(NOW, true);
        stay.GoesOn(NOW + 1, true);
        EXPECT_EQ(NOW + 1, busy.lastVisit) << "it would pass for idle since the stay began";
        return goesOn;
    }
    // The only idle worker gets something to do.
    void TakeIdleAway()
    {
        pool_.AwaitAny([] { return true; });
    }

    std::atomic<int> started_{0};
    ServiceContext context_{1, nullptr, MakeOptions()};
    WorkerPool pool_{context_, [this](Worker&) { ++started_; }};
};

TEST_F(WorkerPoolTest, AtTheLimitOneThatStaysIsWokenAndWakesTheNextUntilOneIsIdle)
{
    TakeIdleAway();
    TakeIdleAway();
    std::vector<std::future<void>> ends;
    pool_.AwaitAny([&] {
        ends.push_back(StartStaying());
        ends.push_back(StartStaying());
        return true;
    });
    for (const std::future<void>& end : ends) {
        EXPECT_EQ(std::future_status::ready, end.wait_for(PATIENCE)) << "a wake-up was lost";
    }
    pool_.Stop();
    EXPECT_EQ(6, started_);
}

TEST_F(WorkerPoolTest, AWorkerStaysOnlyWithAnotherIdleAndASecondBusy)
{
    std::vector<bool> stays;
    const std::function<void(int)> tryWithIdle = [&](int left) {
        stays.push_back(MayStay());
        if (left != 0) {
            pool_.AwaitAny([&] { return tryWithIdle(left - 1), false; });
        }
    };
    tryWithIdle(4);
    EXPECT_EQ((std::vector<bool>{false, true, true, false, false}), stays);
}

// They come one after the other, as users that work together would, and each takes all that it may have.
TEST(AccountsTest, EightUsersLeaveTheNinthItsFloors)
{
    AbilityServerOptions options;
    options.workers = 128;
    ServiceContext context(1, nullptr, options);
    context.workers.SetExtra(options.maxSpareWorkers / 4);
    size_t allowed = 0;
    std::deque<Account> users;
    std::deque<Charge> charges;
    while (users.size() < 8) {
        Account& user = users.emplace_back(static_cast<uid_t>(1 + users.size()));
        for (const Limit kind : {Limit::BEGUN_REQUEST_BYTES, Limit::REPLY_BYTES}) {
            Charge& charge = charges.emplace_back(context, user, kind);
            for (size_t bytes = 65536; charge.GrowTo(bytes, {}); bytes += 65536) {
            }
        }
        EXPECT_EQ(user.bytes, user.requestBytes + user.replyBytes) << "what was refused is held";
        while (context.workers.Take(user, user.workers, 1, allowed) == Stock::Answer::TAKEN) {
        }
    }
    Account& ninth = users.emplace_back(9);
    EXPECT_TRUE(Charge(context, ninth, Limit::REPLY_BYTES).GrowTo(2097152, {}));
    EXPECT_EQ(Stock::Answer::TAKEN, context.workers.Take(ninth, ninth.workers, 1, allowed));
}

TEST(TurnsTest, UsersTakeTurnsAndNotTheirConnections)
{
    AbilityServerOptions options;
    options.workers = 1;
    options.maxSpareWorkers = 0;
    ServiceContext context(1, nullptr, options);
    Turns turns(context);
    std::deque<Account> users;
    std::deque<Slot> slots;
    for (const uid_t uid : {1U, 2U, 2U, 2U, 3U}) {
        if (users.empty() || users.back().uid != uid) {
            users.emplace_back(uid);
        }
        slots.emplace_back().account = &users.back();
        EXPECT_EQ(uid == 1, turns.Begin(slots.back()));
    }
    EXPECT_EQ(nullptr, turns.TakeNext());
    Slot* running = &slots[0];
    for (const size_t next : {1U, 4U, 2U}) {
        turns.End(*running->account);
        running = turns.TakeNext();
        ASSERT_EQ(&slots[next], running);
    }
    EXPECT_FALSE(turns.Remove(*running));
    EXPECT_TRUE(turns.Remove(slots[3]));
    EXPECT_FALSE(turns.HasWaiting());
}

TEST(FrameReaderTest, MemoryFollowsWhatHasArrivedAndNotWhatIsAnnounced)
{
    MessageParcel body;
    FrameReader reader(FrameKind::REQUEST, body);
    FrameHeader header;
    header.length = Parcel::kDefaultMaxCapacity;
    size_t taken = 0;
    EXPECT_EQ(FrameReader::State::PARTIAL,
              reader.Feed(reinterpret_cast<const uint8_t*>(&header), sizeof(header), taken));
    for (size_t arrived = 0; arrived < 4U << 20U; arrived = body.GetDataSize()) {
        size_t room = 0;
        ASSERT_NE(nullptr, reader.Space(room));
        EXPECT_LE(ParcelBuffer::Capacity(body), 4 * std::max<size_t>(arrived, 16384));
        ASSERT_EQ(FrameReader::State::PARTIAL, reader.Commit(room));
    }
}

using namespace std::string_literals;

// From none of these words a value can be read: its target and the cursor stay.
template <class T>
void ExpectUnread(const T& kept, bool (Parcel::*read)(T&), const std::vector<std::vector<int32_t>>& cases)
{
    for (const std::vector<int32_t>& words : cases) {
        SCOPED_TRACE(testing::PrintToString(words));
        Parcel parcel;
        PutWords(parcel, words);
        T value = kept;
        EXPECT_FALSE((parcel.*read)(value));
        EXPECT_EQ(kept, value);
        EXPECT_EQ(words, TakeWords(parcel));
    }
}

TEST(ParcelLayoutTest, HostileBytesAreNotRead)
{
    ExpectUnread(int64_t{5}, &Parcel::ReadInt64, {{}, {1}});
    // Nothing or a length alone; lengths that are negative, the greatest, one too long; no terminator.
    ExpectUnread("kept"s, &Parcel::ReadString,
                 {{}, {0}, {-1, 0}, {INT32_MIN, 0}, {INT32_MAX, 0, 0}, {4, 0x64636261}, {3, 0x64636261}, {1, 0x6261}});
    // The same in units, and a length whose bytes are more than 32 bits hold.
    ExpectUnread(u"kept"s, &Parcel::ReadString16,
                 {{0}, {-1, 0, 0}, {INT32_MAX, 0, 0}, {0x40000000, 0, 0}, {2, 0x00620061}, {1, 0x00620061}});
}

struct Greeter : IRemoteBroker {
    VARN_DECLARE_INTERFACE_DESCRIPTOR(u"test.Greeter")
};

// Nothing touches the registry before main, so this is made before it and destroyed after it: its delegator must then
// leave the registry alone.
struct OutlivesRegistry {
    ~OutlivesRegistry()
    {
        if (delegator && !delegator->IsUnloaded()) {
            std::fputs("the registry went without a word\n", stderr);
            std::_Exit(1);
        }
    }
    std::optional<BrokerDelegator<IRemoteProxy<Greeter>>> delegator;
} outlivesRegistry;

TEST(RegistryEndTest, DelegatorMayOutliveTheRegistry)
{
    EXPECT_FALSE(outlivesRegistry.delegator.emplace().IsUnloaded());
}

}  // namespace
}  // namespace VARN::Host
