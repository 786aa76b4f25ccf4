// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "faults/interposer.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"

// Each call that makes, finds or uses a socket or starts a thread, and each allocation that does not throw, fails once
// in turn, on either side.
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

// Seconds to wait for a reply: a fault may take it away.
constexpr int32_t SHORT = 1;
constexpr int32_t LONG = 60;

enum class Outcome { RIGHT, FAILED, WRONG };

// A server starts, a client asks it little and much, the server stops.
Outcome Exchange(int32_t waitTime)
{
    Host::AbilityServerOptions options;
    options.workers = 2;
    Host::AbilityServer server(ID, sptr<IPCObjectStub>(new Echo()), options);
    if (!server.Start()) {
        return Outcome::FAILED;
    }
    const sptr<IRemoteObject> object = Host::AbilityManager::Get()->LoadSystemAbility(ID, waitTime);
    if (object == nullptr) {
        return Outcome::FAILED;
    }
    Outcome outcome = Outcome::RIGHT;
    for (const size_t size : {size_t{10}, size_t{400000}}) {
        const std::string text(size, 'x');
        MessageParcel data;
        MessageParcel reply;
        MessageOption option(MessageOption::TF_SYNC, waitTime);
        if (!data.WriteString(text)) {
            return Outcome::FAILED;
        }
        const int32_t status = object->SendRequest(1, data, reply, option);
        if (status != 0) {
            outcome = Outcome::FAILED;
        } else if (reply.ReadString() != text) {
            return Outcome::WRONG;
        }
    }
    return outcome;
}

size_t CountDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// A connection may be closed a moment later, by a thread of its own.
bool ComeBackTo(size_t descriptors)
{
    for (int patience = 5000; CountDescriptors() > descriptors && patience > 0; --patience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return CountDescriptors() <= descriptors;
}

class FaultsTest : public ::testing::TestWithParam<Fault> {
protected:
    void SetUp() override
    {
        ASSERT_NE(::mkdtemp(folder_.data()), nullptr);
        ::setenv("VARN_ABILITY_DIR", folder_.c_str(), 1);
        Host::SetLogLevel(8);
        ASSERT_EQ(Exchange(LONG), Outcome::RIGHT);
    }
    void TearDown() override { EXPECT_TRUE(std::filesystem::remove(folder_)) << "a file was left behind"; }

private:
    std::string folder_ = "/tmp/faults.XXXXXX";
};

TEST_P(FaultsTest, RightAnswerOrDefiniteFailureThenRightAnswer)
{
    // Enough for every call of the small request and the pattern of the big one.
    constexpr int MOST = 40;
    const size_t descriptors = CountDescriptors();
    for (int number = 1; number <= MOST; ++number) {
        Arm(GetParam(), number);
        const Outcome outcome = Exchange(SHORT);
        const bool hasStruck = Disarm();
        EXPECT_NE(outcome, Outcome::WRONG) << number;
        // Two threads have to be: the watching one and a worker.
        if (GetParam().call == std::string("pthread_create") && number > 2) {
            EXPECT_EQ(outcome, Outcome::RIGHT) << number;
        }
        EXPECT_EQ(Exchange(LONG), Outcome::RIGHT) << number;
        EXPECT_TRUE(ComeBackTo(descriptors)) << number;
        if (!hasStruck) {
            EXPECT_GT(number, 1) << "the call is never made";
            return;
        }
    }
}

const Fault allFaults[] = {
    {"accept4", EINTR},         {"accept4", EAGAIN},       {"accept4", EMFILE},     {"accept4", ENOMEM},
    {"accept4", ENFILE},        {"accept4", ECONNABORTED}, {"accept4", EPERM},      {"bind", ENOMEM},
    {"fchmodat", EPERM},        {"connect", EINTR},        {"connect", EAGAIN},     {"connect", ECONNREFUSED},
    {"connect", ENOMEM},        {"epoll_create1", EMFILE}, {"epoll_ctl", ENOMEM},   {"epoll_ctl", ENOSPC},
    {"epoll_wait", EINTR},      {"eventfd", EMFILE},       {"eventfd", ENOMEM},     {"fcntl", EINVAL},
    {"flock", ENOLCK},          {"getsockopt", ENOBUFS},   {"listen", ENOMEM},      {"poll", EINTR},
    {"poll", ENOMEM},           {"recv", EINTR},           {"recv", EAGAIN},        {"recv", ECONNRESET},
    {"recv", ENOMEM},           {"recv", COMES_SHORT},     {"sendmsg", EINTR},      {"sendmsg", EAGAIN},
    {"sendmsg", EPIPE},         {"sendmsg", ENOMEM},       {"sendmsg", ECONNRESET}, {"sendmsg", COMES_SHORT},
    {"setsockopt", ENOMEM},     {"socket", EMFILE},        {"socket", ENOMEM},      {"stat", EACCES},
#if defined(INTERPOSES_NEW_AND_THREADS)
    {"pthread_create", EAGAIN}, {"new", ENOMEM},
#endif
#if defined(INTERPOSES_MALLOC)
    {"malloc", ENOMEM},         {"realloc", ENOMEM},
#endif
};

INSTANTIATE_TEST_SUITE_P(Calls, FaultsTest, ::testing::ValuesIn(allFaults), [](const auto& fault) {
    const bool isShort = fault.param.error == COMES_SHORT;
    return std::string(fault.param.call) + "_" + (isShort ? "short" : ::strerrorname_np(fault.param.error));
});

}  // namespace
}  // namespace VARN::Testing
