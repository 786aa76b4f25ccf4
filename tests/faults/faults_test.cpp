// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "faults/interposer.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"

// Each call that makes, finds or uses a socket or starts a thread, and each allocation that does not throw, fails once
// in turn, on either side. What was lost by it is lost once: the same server, with a single place for connections,
// answers the next who ask, and in the end holds nothing.
namespace VARN::Testing {
namespace {

constexpr int32_t ID = 77;

class Echo : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        return reply.WriteString(data.ReadString()) ? 0 : 1;
    }
};

enum class Outcome { RIGHT, FAILED, WRONG };

Outcome Ask(const sptr<IRemoteObject>& object, size_t size)
{
    const std::string text(size, 'x');
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, 1);
    if (!data.WriteString(text) || object->SendRequest(1, data, reply, option) != 0) {
        return Outcome::FAILED;
    }
    return reply.ReadString() == text ? Outcome::RIGHT : Outcome::WRONG;
}

// Little, and so much that it takes several turns.
Outcome Talk()
{
    const sptr<IRemoteObject> object = Host::AbilityManager::Get()->LoadSystemAbility(ID, 1);
    Outcome outcome = object != nullptr ? Outcome::RIGHT : Outcome::FAILED;
    for (const size_t size : {size_t{10}, size_t{400000}}) {
        outcome = object != nullptr ? std::max(outcome, Ask(object, size)) : outcome;
    }
    return outcome;
}

bool Eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

size_t CountDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class FaultsTest : public ::testing::TestWithParam<Fault> {
protected:
    void SetUp() override
    {
        ASSERT_NE(nullptr, ::mkdtemp(folder_.data()));
        ::setenv("VARN_ABILITY_DIR", folder_.c_str(), 1);
        Host::SetLogLevel(LOG_LEVEL_FATAL + 1);
        Host::AbilityServer server(ID, sptr<IPCObjectStub>(new Echo()));
        ASSERT_TRUE(server.Start());
        ASSERT_EQ(Outcome::RIGHT, Talk());
    }
    void TearDown() override { EXPECT_TRUE(std::filesystem::remove(folder_)) << "a file was left behind"; }

private:
    std::string folder_ = "/tmp/faults.XXXXXX";
};

TEST_P(FaultsTest, CostsOneCallAtMost)
{
    // Enough for every call of the small request and the pattern of the big one.
    constexpr int MOST = 40;
    const size_t descriptors = CountDescriptors();
    bool hasStruck = true;
    for (int number = 1; hasStruck && number <= MOST; ++number) {
        SCOPED_TRACE(number);
        Host::AbilityServerOptions options;
        options.workers = 2;
        options.maxConnections = 1;
        Arm(GetParam(), number);
        Host::AbilityServer server(ID, sptr<IPCObjectStub>(new Echo()), options);
        const bool isRunning = server.Start();
        const Outcome outcome = isRunning ? Talk() : Outcome::FAILED;
        hasStruck = Disarm();
        EXPECT_NE(Outcome::WRONG, outcome);
        if (number > GetParam().fatalTimes) {
            EXPECT_EQ(Outcome::RIGHT, outcome) << "nothing was lost by it";
        }
        if (isRunning) {
            EXPECT_TRUE(Eventually([] { return Talk() == Outcome::RIGHT; })) << "the same server does not recover";
        }
        server.Stop();
        EXPECT_TRUE(Eventually([descriptors] { return CountDescriptors() <= descriptors; }));
        EXPECT_TRUE(hasStruck || number > 1) << "the call is never made";
    }
}

constexpr int ALWAYS = 1000;
const Fault allFaults[] = {
    {"accept4", EINTR, 0},
    {"accept4", EAGAIN, 0},
    {"accept4", EMFILE, 0},
    {"accept4", ENOMEM, 0},
    {"accept4", ENFILE, 0},
    {"accept4", ECONNABORTED, 0},
    {"accept4", EPERM, 0},
    {"bind", ENOMEM, 1},
    {"fchmodat", EPERM, 1},
    {"connect", EINTR, 0},
    {"connect", EAGAIN, 1},  // whether somebody listens where the server wants to
    {"connect", ECONNREFUSED, 0},
    {"connect", ENOMEM, ALWAYS},
    {"epoll_create1", EMFILE, 1},
    {"epoll_ctl", ENOMEM, ALWAYS},
    {"epoll_ctl", ENOSPC, ALWAYS},
    {"epoll_wait", EINTR, 0},
    {"eventfd", EMFILE, ALWAYS},
    {"eventfd", ENOMEM, ALWAYS},
    {"flock", ENOLCK, 1},
    {"getsockopt", ENOBUFS, ALWAYS},
    {"listen", ENOMEM, 1},
    {"poll", EINTR, 0},
    {"poll", ENOMEM, ALWAYS},
    {"recv", EINTR, 0},
    {"recv", EAGAIN, ALWAYS},
    {"recv", ECONNRESET, ALWAYS},
    {"recv", ENOMEM, ALWAYS},
    {"recv", COMES_SHORT, 0},
    {"sendmsg", EINTR, 0},
    {"sendmsg", EAGAIN, ALWAYS},
    {"sendmsg", EPIPE, ALWAYS},
    {"sendmsg", ENOMEM, ALWAYS},
    {"sendmsg", ECONNRESET, ALWAYS},
    {"sendmsg", COMES_SHORT, 0},
    {"setsockopt", ENOMEM, ALWAYS},
    {"socket", EMFILE, ALWAYS},
    {"socket", ENOMEM, ALWAYS},
    {"stat", EACCES, ALWAYS},
#if defined(INTERPOSES_NEW_AND_THREADS)
    {"pthread_create", EAGAIN, 2},  // the watcher and one worker have to be
    {"new", ENOMEM, ALWAYS},
#endif
#if defined(INTERPOSES_MALLOC)
    {"malloc", ENOMEM, ALWAYS},
    {"realloc", ENOMEM, ALWAYS},
#endif
};

INSTANTIATE_TEST_SUITE_P(Calls, FaultsTest, ::testing::ValuesIn(allFaults), [](const auto& fault) {
    const bool isShort = fault.param.error == COMES_SHORT;
    return std::string(fault.param.call) + "_" + (isShort ? "short" : ::strerrorname_np(fault.param.error));
});

}  // namespace
}  // namespace VARN::Testing
