// SPDX-License-Identifier: Apache-2.0
// What a port's transport has to do, through the seam and port.h alone.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "porting/port.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/call_operation.h"
#include "varn/system_ability_manager.h"

namespace VARN::Porting {
namespace {

using namespace std::chrono_literals;

constexpr int32_t ID = 4711;
constexpr int32_t OTHER_ID = 4712;
enum Code : uint32_t { ECHO, STATUS, THROW, RUN_OUT_OF_MEMORY, WAIT };

// Does what the code of a request says.
class Actor final : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                            MessageOption& /*option*/) override
    {
        ++executions;
        switch (code) {
            case ECHO:
                return reply.WriteString(data.ReadString()) ? 0 : IPC_NO_MEMORY;
            case STATUS:
                return std::stoi(data.ReadString());
            case THROW:
                throw std::runtime_error("broken");
            case RUN_OUT_OF_MEMORY:
                throw std::bad_alloc();
            default:
                entered.set_value();
                release.get_future().wait();
                return reply.WriteString("too late") ? 0 : IPC_NO_MEMORY;
        }
    }

    std::atomic<int> executions{0};
    std::promise<void> entered;
    std::promise<void> release;
};

struct Answer {
    int32_t status;
    std::string text;
};

Answer Ask(const sptr<IRemoteObject>& object, uint32_t code, const std::string& text = {}, int32_t waitTimeSeconds = 8)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, waitTimeSeconds);
    EXPECT_TRUE(data.WriteString(text));
    const int32_t status = object->SendRequest(code, data, reply, option);
    return {status, reply.ReadString()};
}

sptr<IRemoteObject> Find(int32_t id, int32_t timeoutSeconds)
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->LoadSystemAbility(id, timeoutSeconds);
}

class TransportTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(Serve(ID, actor));
        object = Find(ID, 8);
        ASSERT_NE(nullptr, object);
    }
    void TearDown() override { StopServing(ID); }

    const sptr<Actor> actor{new Actor()};
    sptr<IRemoteObject> object;
};

TEST_F(TransportTest, LookupFindsWhatIsThereAndGivesUpOnWhatIsNot)
{
    EXPECT_FALSE(object->IsObjectDead());
    for (const int32_t timeoutSeconds : {0, 1}) {
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(nullptr, Find(OTHER_ID, timeoutSeconds));
        EXPECT_LT(std::chrono::steady_clock::now() - began, 6s) << timeoutSeconds;
    }
}

TEST_F(TransportTest, LookupWaitsForAServiceThatIsLate)
{
    auto late = std::async(std::launch::async, [] { return Find(OTHER_ID, 30); });
    EXPECT_EQ(std::future_status::timeout, late.wait_for(200ms)) << "it gave up before its time";
    ASSERT_TRUE(Serve(OTHER_ID, actor));
    EXPECT_EQ(std::future_status::ready, late.wait_for(10s)) << "nobody told it";
    const sptr<IRemoteObject> found = late.get();
    ASSERT_NE(nullptr, found);
    EXPECT_EQ("hello", Ask(found, ECHO, "hello").text);
    StopServing(OTHER_ID);
}

TEST_F(TransportTest, ServiceThatHasGoneFailsRequestsAndIsFoundAgainWhenItIsBack)
{
    EXPECT_EQ(0, Ask(object, ECHO).status);
    StopServing(ID);
    EXPECT_NE(0, Ask(object, ECHO).status);
    EXPECT_EQ(1, actor->executions);
    EXPECT_EQ(nullptr, Find(ID, 0));
    EXPECT_EQ(1, actor->StrongCount()) << "the port still holds the stub";
    ASSERT_TRUE(Serve(ID, actor));
    const sptr<IRemoteObject> found = Find(ID, 8);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ("back", Ask(found, ECHO, "back").text);
}

TEST_F(TransportTest, EndOfAServiceWaitsForTheRequestThatIsRunningAndEndsAll)
{
    auto sender = std::async(std::launch::async, [this] { return Ask(object, WAIT, "", 60); });
    ASSERT_EQ(std::future_status::ready, actor->entered.get_future().wait_for(10s));
    auto waiting = std::async(std::launch::async, [this] { return Ask(object, ECHO, "", 60); });
    auto end = std::async(std::launch::async, [] { StopServing(ID); });
    EXPECT_EQ(std::future_status::timeout, end.wait_for(200ms)) << "an operation is still running";
    actor->release.set_value();
    EXPECT_EQ(std::future_status::ready, end.wait_for(10s));
    EXPECT_EQ(std::future_status::ready, sender.wait_for(10s));
    EXPECT_EQ(std::future_status::ready, waiting.wait_for(10s));
}

TEST_F(TransportTest, BodiesArriveWholeAndInTheirOrder)
{
    for (const size_t size : {0U, 1U, 507U, 508U, 509U, 16384U, 70000U, 4U << 20U}) {
        std::string text(size, '\0');
        for (size_t at = 0; at < size; ++at) {
            text[at] = static_cast<char>(at * 131 >> 3U);
        }
        const Answer answer = Ask(object, ECHO, text);
        EXPECT_EQ(0, answer.status) << size;
        EXPECT_TRUE(text == answer.text) << size;
    }
}

TEST_F(TransportTest, StatusesReachTheCaller)
{
    constexpr int32_t MOST = std::numeric_limits<int32_t>::max();
    for (const int32_t status : {0, 1, 4, 5, 401, 1001, MOST}) {
        EXPECT_EQ(status, Ask(object, STATUS, std::to_string(status)).status);
    }
    EXPECT_NE(0, Ask(object, STATUS, "-1").status);
}

TEST_F(TransportTest, ExceptionsBecomeStatusesAndTheServiceLivesOn)
{
    for (const uint32_t code : {THROW, RUN_OUT_OF_MEMORY}) {
        EXPECT_NE(0, Ask(object, code).status) << code;
        EXPECT_EQ("alive", Ask(object, ECHO, "alive").text) << code;
    }
}

TEST_F(TransportTest, WaitTimeEndsARequestWhichIsNeitherRepeatedNorMistakenForTheNext)
{
    const auto began = std::chrono::steady_clock::now();
    EXPECT_NE(0, Ask(object, WAIT, "", 1).status);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 6s);
    actor->release.set_value();
    EXPECT_EQ("next", Ask(object, ECHO, "next").text);
    EXPECT_EQ(2, actor->executions);
}

TEST_F(TransportTest, ThreadsGetTheirOwnAnswers)
{
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back([this, letter] {
            for (size_t size = 1; size <= 100; ++size) {
                const std::string text(size, letter);
                EXPECT_EQ(text, Ask(object, ECHO, text).text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(400, actor->executions);
}

TEST(LibraryTransportTest, CarriesEveryRequestOfTheLibrary)
{
    namespace Library = AppSecurityPrivacy::SecurityPrivacyServer;
    const sptr<Library::Testing::FakeService> service(new Library::Testing::FakeService());
    ASSERT_TRUE(Serve(Library::SECURITY_PRIVACY_SA_ID, service));
    Library::Testing::FakeAnswer answer;
    answer.records = {Library::Testing::MakePermissionUsageRecord()};
    for (const uint32_t code : Library::Testing::CODES) {
        service->SetAnswer(code, answer);
        const auto outcome = Library::Testing::CallOperation(Library::SecurityPrivacyClient::GetInstance(), code);
        EXPECT_EQ(0, outcome.result) << code;
        EXPECT_EQ(code == 4 || code == 5 ? 2U : 1U, outcome.records.size()) << code;
        EXPECT_EQ(code, service->Calls().back().code);
    }
    StopServing(Library::SECURITY_PRIVACY_SA_ID);
}

}  // namespace
}  // namespace VARN::Porting
