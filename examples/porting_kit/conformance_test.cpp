// SPDX-License-Identifier: Apache-2.0
// What a port has to do, through the seam and port.h alone.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "porting_kit/port.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/call_operation.h"
#include "support/scripted_stub.h"
#include "varn/log.h"

namespace VARN::Porting {
namespace {

using namespace AppSecurityPrivacy::SecurityPrivacyServer;
using namespace AppSecurityPrivacy::SecurityPrivacyServer::Testing;
using namespace std::chrono_literals;

constexpr auto READY = std::future_status::ready;
constexpr auto TIMEOUT = std::future_status::timeout;
constexpr int32_t ID = 4711;
constexpr int32_t OTHER_ID = 4712;
enum Code : uint32_t { ECHO, STATUS, THROW, RUN_OUT_OF_MEMORY, WAIT };

class TransportTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(Serve(ID, actor));
        object = Find(ID, 8);
        ASSERT_NE(nullptr, object);
    }
    void TearDown() override { StopServing(ID); }

    static sptr<IRemoteObject> Find(int32_t id, int32_t timeoutSeconds)
    {
        return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->LoadSystemAbility(id,
                                                                                                      timeoutSeconds);
    }
    int32_t Status(uint32_t code, const std::string& text = {}, int32_t waitTimeSeconds = 60)
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option(MessageOption::TF_SYNC, waitTimeSeconds);
        EXPECT_TRUE(data.WriteString(text));
        const int32_t status = object->SendRequest(code, data, reply, option);
        if (code == ECHO && status == 0) {
            EXPECT_TRUE(text == reply.ReadString()) << text.size() << " bytes";
        }
        return status;
    }

    // Of the objects, which may outlive the test over a port that does not wait for their operations.
    struct State {
        std::atomic<int> executions{0};
        std::atomic<int> inside{0};
        std::promise<void> entered;
        std::promise<void> release;
    };
    const std::shared_ptr<State> state = std::make_shared<State>();

    // Does what the code of a request says.
    sptr<IPCObjectStub> MakeActor(bool isSerial) const
    {
        const auto act = [isSerial, state = state](uint32_t code, auto& data, auto& reply, auto&) -> int32_t {
            ++state->executions;
            if (code == THROW) {
                throw std::runtime_error("broken");
            }
            if (code == RUN_OUT_OF_MEMORY) {
                throw std::bad_alloc();
            }
            if (code == WAIT) {
                state->entered.set_value();
                state->release.get_future().wait();
            }
            const bool isAlone = ++state->inside == 1;
            EXPECT_TRUE(isAlone || !isSerial) << "one request at a time";
            std::this_thread::yield();
            --state->inside;
            const std::string text = data.ReadString();
            return code == STATUS ? std::stoi(text) : reply.WriteString(text) ? 0 : IPC_NO_MEMORY;
        };
        return sptr<IPCObjectStub>(new ScriptedStub(act, isSerial));
    }

    const sptr<IPCObjectStub> actor = MakeActor(false);
    sptr<IRemoteObject> object;
};

TEST_F(TransportTest, LookupGivesUpWhenItsTimeIsOverAndWaitsUntilThen)
{
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, Find(OTHER_ID, 0));
    EXPECT_EQ(nullptr, Find(OTHER_ID, 1));
    EXPECT_LT(std::chrono::steady_clock::now() - began, 6s);
    auto late = std::async(std::launch::async, [] { return Find(OTHER_ID, 30); });
    EXPECT_EQ(TIMEOUT, late.wait_for(200ms)) << "it gave up before its time";
    ASSERT_TRUE(Serve(OTHER_ID, actor));
    EXPECT_EQ(READY, late.wait_for(10s)) << "nobody told it";
    EXPECT_NE(nullptr, late.get());
    StopServing(OTHER_ID);
}

TEST_F(TransportTest, ServiceThatHasGoneFailsRequestsAndIsFoundAgainWhenItIsBack)
{
    EXPECT_FALSE(object->IsObjectDead());
    EXPECT_EQ(0, Status(ECHO));
    StopServing(ID);
    EXPECT_NE(0, Status(ECHO));
    EXPECT_EQ(1, state->executions);
    EXPECT_EQ(nullptr, Find(ID, 0));
    EXPECT_EQ(1, actor->StrongCount()) << "the port still holds the stub";
    SetUp();
    EXPECT_EQ(0, Status(ECHO, "back"));
}

TEST_F(TransportTest, EndOfAServiceWaitsForTheRequestThatIsRunningAndEndsAll)
{
    auto running = std::async(std::launch::async, [this] { return Status(WAIT); });
    ASSERT_EQ(READY, state->entered.get_future().wait_for(10s));
    auto waiting = std::async(std::launch::async, [this] { return Status(ECHO); });
    auto end = std::async(std::launch::async, [] { StopServing(ID); });
    EXPECT_EQ(TIMEOUT, end.wait_for(200ms)) << "an operation is still running";
    state->release.set_value();
    EXPECT_EQ(READY, end.wait_for(10s));
    EXPECT_EQ(READY, running.wait_for(10s));
    EXPECT_EQ(READY, waiting.wait_for(10s));
}

TEST_F(TransportTest, BodiesArriveWholeAndInTheirOrder)
{
    for (const size_t size : {0U, 1U, 507U, 508U, 509U, 16384U, 70000U, 4U << 20U}) {
        std::string text(size, '\0');
        for (size_t at = 0; at < size; ++at) {
            text[at] = static_cast<char>(at * 131 >> 3U);
        }
        EXPECT_EQ(0, Status(ECHO, text)) << size;
    }
}

TEST_F(TransportTest, StatusesReachTheCallerAndExceptionsBecomeOne)
{
    for (const int32_t status : {0, 1, 4, 5, 401, 1001, 0x7FFFFFFF}) {
        EXPECT_EQ(status, Status(STATUS, std::to_string(status)));
    }
    EXPECT_NE(0, Status(STATUS, "-1"));
    for (const uint32_t code : {THROW, RUN_OUT_OF_MEMORY}) {
        EXPECT_NE(0, Status(code)) << code;
        EXPECT_EQ(0, Status(ECHO, "alive")) << code;
    }
}

TEST_F(TransportTest, WaitTimeEndsARequestWhichIsNeitherRepeatedNorMistakenForTheNext)
{
    const auto began = std::chrono::steady_clock::now();
    EXPECT_NE(0, Status(WAIT, "late", 1));
    EXPECT_LT(std::chrono::steady_clock::now() - began, 6s);
    state->release.set_value();
    EXPECT_EQ(0, Status(ECHO, "next"));
    EXPECT_EQ(2, state->executions);
}

TEST_F(TransportTest, ThreadsGetTheirOwnAnswersSideBySideAndFromASerialObject)
{
    ASSERT_TRUE(Serve(OTHER_ID, MakeActor(true)));
    for (const int32_t id : {ID, OTHER_ID}) {
        object = Find(id, 8);
        std::vector<std::future<void>> threads;
        for (const char letter : {'a', 'b', 'c', 'd'}) {
            threads.push_back(std::async(std::launch::async, [this, letter] {
                for (size_t size = 0; size < 100; ++size) {
                    EXPECT_EQ(0, Status(ECHO, std::string(size, letter)));
                }
            }));
        }
    }
    StopServing(OTHER_ID);
    EXPECT_EQ(800, state->executions);
}

TEST(LibraryTest, SendsEveryRequestOverTheTransport)
{
    const sptr<FakeService> service(new FakeService());
    ASSERT_TRUE(Serve(SECURITY_PRIVACY_SA_ID, service));
    FakeAnswer answer;
    answer.records = {Sample<Record::PermissionUsageRecord>()};
    for (const uint32_t code : CODES) {
        service->SetAnswer(code, answer);
        const Outcome outcome = CallOperation(SecurityPrivacyClient::GetInstance(), code);
        EXPECT_EQ(0, outcome.result) << code;
        EXPECT_EQ(code == 4 || code == 5 ? 2U : 1U, outcome.records.size()) << code;
        EXPECT_EQ(code, service->Calls().back().code);
    }
    StopServing(SECURITY_PRIVACY_SA_ID);
}

TEST(LogTest, MarkersAreTakenOutAndTheLengthIsReturned)
{
    EXPECT_EQ(7, VoLogPrint(0, 7, 0, "TEST", "[%{public}s] %s %{private}d", "a", std::string("b").c_str(), 3));
    EXPECT_GT(0, VoLogPrint(0, 7, 0, "TEST", "%"));
}

}  // namespace
}  // namespace VARN::Porting
