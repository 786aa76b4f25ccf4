// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "abuse/flood.h"
#include "abuse/processes.h"
#include "abuse/requests.h"
#include "abuse/service_process.h"

// One user cannot take the service from another. Whatever one or eight users do: while they do it, a client of another
// user gets every answer, right and in time, and the service stays within its memory; when they have gone, it is as
// before; and it can be stopped in the middle of it.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t MEBIBYTE = 0x100000;
constexpr size_t WORKERS = 8;

// What is promised. All times are for a machine that does nothing else: VARN_TEST_TIME_SCALE stretches them elsewhere,
// and of the answers one in twenty may still be late, since the scheduler is not the service.
constexpr milliseconds IN_TIME{100};
constexpr milliseconds TIME_TO_STOP{3000};
constexpr milliseconds TIME_TO_RECOVER{5000};
constexpr milliseconds GIVEN_UP{3000};  // the rest will not be better
constexpr size_t MOST_MEMORY = 256 * MEBIBYTE;
constexpr size_t MEMORY_OF_REQUESTS = 64 * MEBIBYTE;  // what the operations of these tests take while they run
constexpr size_t MEMORY_LEFT = 16 * MEBIBYTE;

milliseconds Scaled(milliseconds time)
{
    static const char* const scale = ::getenv("VARN_TEST_TIME_SCALE");
    static const long factor = scale != nullptr ? std::strtol(scale, nullptr, 10) : IS_SIZE_TELLING ? 1 : 30;
    return time * factor;
}

// The longest request that there may be.
std::string MakeLongest()
{
    return Host::MakeFrame(1,
                           MakeRequest(std::string("x"), int32_t{1}, int32_t{0}) + std::string(16 * MEBIBYTE - 200, 0));
}

std::string Repeat(const std::string& text, size_t times)
{
    std::string all;
    while (times-- > 0) {
        all += text;
    }
    return all;
}

std::string MakeColliding()
{
    return Host::MakeFrame(2, MakeRequest(std::string("group"), int32_t{1}, int32_t{5000}, MakeCollidingNames()));
}

struct AttackerCase {
    std::string name;
    Flood (*make)();
    std::function<void()> prepare = [] {};  // in the service's process

    friend void PrintTo(const AttackerCase& attacker, std::ostream* out) { *out << attacker.name; }
};

using Then = Flood::Then;
#define FLOOD(...) [] { return Flood{__VA_ARGS__}; }

const AttackerCase allAttackers[] = {
    {"DescriptorsWhoseCloseBlocks", FLOOD(20, honestFrame, Then::SEND_AGAIN, true, SIZE_MAX, true)},
    {"DescriptorsWhoseCloseBlocksThatComeIn", FLOOD(20, honestFrame, Then::SEND_AGAIN, true, SIZE_MAX, true),
     TakeDescriptors},
    {"CollidingNames", FLOOD(100, MakeColliding())},
    {"CollidingNamesOfThoseWhoHangUp", FLOOD(100, MakeColliding(), Then::HANG_UP)},
    {"SlowOperations", FLOOD(128, MakeByAppFrame("nap", 200))},
    {"IdleConnections", FLOOD(200, honestFrame, Then::BE_SILENT)},
    {"SilentConnections", FLOOD(200, "", Then::BE_SILENT)},
    {"ConnectionsThatComeAndGo", FLOOD(20, honestFrame, Then::HANG_UP)},
    {"RequestsAByteShort", FLOOD(40, MakeLongest().substr(0, MakeLongest().size() - 1), Then::BE_SILENT)},
    {"LongestRequestsOnce", FLOOD(40, MakeLongest(), Then::BE_SILENT)},
    {"TrickledRequests", FLOOD(128, honestFrame, Then::SEND_AGAIN, true, 1)},
    {"LongRepliesNotRead", FLOOD(40, MakeByAppFrame("bulk", 4 * MEBIBYTE), Then::BE_SILENT, false)},
    {"RepliesNotReadOfManyRequests", FLOOD(100, Repeat(honestFrame, 100), Then::SEND_AGAIN, false)},
    {"RequestsWithoutEnd", FLOOD(128, Repeat(honestFrame, 100), Then::SEND_AGAIN)},
    {"Garbage", FLOOD(128, std::string(1000, 'x'), Then::SEND_AGAIN)},
    {"LinesThatNobodyReads",
     FLOOD(16, Host::MakeFrame(12, MakeRequest(std::string("policy"), int32_t{0})), Then::SEND_AGAIN),
     [] {
         int ends[2] = {};
         EXPECT_EQ(0, ::pipe(ends));
         ::dup2(ends[1], STDERR_FILENO);
     }},
};

struct Use {
    size_t descriptors;
    size_t threads;
    size_t memory;
};

class AttackersTest : public ::testing::TestWithParam<std::tuple<AttackerCase, size_t>> {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root can be several users";
        }
        ASSERT_TRUE(service_.IsReady()) << service_.Log();
        // Whatever is kept for later is there from now on.
        ASSERT_EQ(0U, Probe(100).wrong);
        ASSERT_NE("", answer_);
        before_ = GetUse();
    }

    struct Probed {
        size_t wrong = 0;
        size_t late = 0;
        milliseconds longest{0};
    };

    // Another user asks on a connection that it keeps and, in turn with it, on new ones.
    Probed Probe(size_t times)
    {
        const Host::AsUser other(ORDINARY_USER);
        Probed probed;
        const Host::RawClient kept(folder_.SocketPath());
        for (size_t time = 0; time < times && probed.wrong == 0 && probed.longest < GIVEN_UP; ++time) {
            const Clock::time_point begin = Clock::now();
            std::string answer;
            if (time % 2 == 0) {
                answer = kept.Send(honestFrame) ? kept.ReceiveFrame() : "";
            } else {
                const Host::RawClient fresh(folder_.SocketPath());
                answer = fresh.Send(honestFrame) ? fresh.ReceiveFrame() : "";
            }
            const auto taken = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
            answer_ = answer_.empty() ? answer : answer_;
            probed.wrong += answer.empty() || answer != answer_ ? 1 : 0;
            probed.late += taken > Scaled(IN_TIME) ? 1 : 0;
            probed.longest = std::max(probed.longest, taken);
            ::usleep(2000);
        }
        return probed;
    }

    Use GetUse() const
    {
        return {Host::CountEntries(service_.Pid(), "fd"), Host::CountEntries(service_.Pid(), "task"),
                Host::ReadSize(service_.Pid(), "VmRSS")};
    }

    static Host::AbilityServerOptions MakeOptions()
    {
        Host::AbilityServerOptions options;
        options.workers = WORKERS;
        return options;
    }

    static constexpr uid_t ORDINARY_USER = 54321;
    const AttackerCase& attacker_ = std::get<0>(GetParam());
    const Host::SocketFolder folder_;
    ServiceProcess service_{folder_, MakeOptions(), attacker_.prepare};
    Use before_{};
    std::string answer_;
};

TEST_P(AttackersTest, CannotTakeTheServiceFromAnother)
{
    const size_t users = std::get<1>(GetParam());
    const Flood flood = attacker_.make();
    Host::ResetPeak(service_.Pid());
    {
        const Attackers attackers(folder_.SocketPath(), users, flood);
        constexpr size_t TIMES = IS_SIZE_TELLING ? 200 : 60;  // with a sanitizer each takes long
        const Probed probed = Probe(TIMES);
        EXPECT_EQ(0U, probed.wrong) << "answers are wrong or missing; " << service_.Log();
        EXPECT_LT(probed.longest, GIVEN_UP);
        EXPECT_LE(probed.late, TIMES / 20) << "the longest took " << probed.longest.count() << " ms";
        EXPECT_LT(Host::ReadSize(service_.Pid(), "VmHWM"), before_.memory + MOST_MEMORY + MEMORY_OF_REQUESTS);
    }
    const Clock::time_point gone = Clock::now();
    Use after = GetUse();
    const auto isBack = [&] {
        return after.descriptors <= before_.descriptors && after.threads <= before_.threads + WORKERS &&
               after.memory < before_.memory + MEMORY_LEFT;
    };
    while (!isBack() && Clock::now() - gone < Scaled(TIME_TO_RECOVER)) {
        ::usleep(10000);
        after = GetUse();
    }
    EXPECT_LE(after.descriptors, before_.descriptors);
    EXPECT_LE(after.threads, before_.threads + WORKERS);
    EXPECT_LE(after.memory / MEBIBYTE, (before_.memory + MEMORY_LEFT) / MEBIBYTE) << "MiB";

    const Attackers again(folder_.SocketPath(), users, flood);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(0, service_.End(SIGTERM)) << service_.Log();
    EXPECT_LE((Clock::now() - begin) / milliseconds(1), Scaled(TIME_TO_STOP).count()) << "ms to stop";
}

INSTANTIATE_TEST_SUITE_P(Cases, AttackersTest,
                         ::testing::Combine(::testing::ValuesIn(allAttackers), ::testing::Values(size_t{1}, size_t{8})),
                         [](const auto& attack) {
                             return std::get<0>(attack.param).name + "_" + std::to_string(std::get<1>(attack.param)) +
                                    "_users";
                         });

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
