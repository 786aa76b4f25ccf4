// SPDX-License-Identifier: Apache-2.0
#include <sys/wait.h>

#include <csignal>
#include <deque>
#include <future>

#include "abuse/processes.h"
#include "platform/host_fixture.h"

// What a peer can do to a server over its socket, and what a server does when it ends. Whatever it was, a client that
// behaves is answered as before, and the server holds nothing more.
namespace VARN::Host {
namespace {

using std::chrono::milliseconds;

constexpr uint32_t MEBIBYTE = 0x100000;

constexpr uint32_t LONG = 3 * MEBIBYTE;
const std::string longFrame = MakeFrame(LONG, "");
const std::string longReply = MakeFrame(LONG, MakeBody(std::string(LONG, 'x')), 2);

class ServerAbuseTest : public HostTest {
protected:
    void TearDown() override
    {
        if (server_) {
            EXPECT_TRUE(IsAnswered(RawClient(Path()))) << Log();
            EXPECT_TRUE(Eventually([this] { return server_->Statistics().connections == 0; }));
        }
        HostTest::TearDown();
    }
};

TEST_F(ServerAbuseTest, LimitsEndTheConnectionAndSayWhy)
{
    std::vector<std::string> headers;
    for (const size_t position : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 12U, 13U, 14U, 15U, 19U}) {
        headers.push_back(MakeFrame(1, ""));
        headers.back()[position] ^= '\xff';
    }
    const struct {
        std::string limit;
        std::string numbers;            // an expression
        std::vector<std::string> sent;  // by a peer each
        size_t kept;                    // so many of the first are served before the next one asks
        std::function<void(AbilityServerOptions&)> set = [](AbilityServerOptions&) {};
    } cases[] = {
        {"protocol", "used 1, allowed 0: ", headers, 0},
        {"request bytes",
         "used 16777217, allowed 16777216",
         {MakeFrame(1, "").replace(16, 4, BytesOf(16 * MEBIBYTE + 1))},
         0},
        {"request time in ms",
         "used [0-9]{3,}, allowed 200",
         {askFrame.substr(0, 1), askFrame.substr(0, HEADER_SIZE - 1), askFrame.substr(0, HEADER_SIZE),
          askFrame.substr(0, askFrame.size() - 1), askFrame + askFrame.substr(0, 1)},
         0,
         [](AbilityServerOptions& options) { options.stallTimeout = milliseconds(200); }},
        {"reply time in ms",
         "used [0-9]{3,}, allowed 200",
         {longFrame},
         0,
         [](AbilityServerOptions& options) { options.replyTimeout = milliseconds(200); }},
        {"waiting reply bytes per user",
         "used 9[0-9]{6}, allowed 8388608",
         {longFrame, longFrame, longFrame},
         2,
         [](AbilityServerOptions& options) {
             options.maxWaitingReplyBytesPerUser = size_t{8} * MEBIBYTE;
             options.workers = 1;  // the second reply is counted before the third is made
         }},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.limit);
        AbilityServerOptions options;
        one.set(options);
        ASSERT_NO_FATAL_FAILURE(Serve(options));
        std::deque<RawClient> peers;
        for (const std::string& bytes : one.sent) {
            EXPECT_TRUE(peers.emplace_back(Path()).Send(bytes));
            EXPECT_TRUE(peers.size() > one.kept || peers.back().Sees(POLLIN));
        }
        for (size_t index = peers.size(); index-- > 0;) {
            EXPECT_TRUE(index < one.kept ? peers[index].ReceiveFrame() == longReply : peers[index].Sees(0)) << index;
        }
        EXPECT_THAT(Log(), ContainsRegex("limit " + one.limit + ": uid " + std::to_string(::geteuid()) + " pid " +
                                         std::to_string(::getpid()) + ": " + one.numbers));
    }
}

TEST_F(ServerAbuseTest, AReplyMayFillItsBoundAndNotOneByteMore)
{
    constexpr uint32_t LONGEST = MEBIBYTE - sizeof(int32_t) - 1;
    AbilityServerOptions options;
    options.maxBytes = MEBIBYTE;
    const sptr<IPCObjectStub> overlooking(
        new ScriptedStub([this](uint32_t code, auto& data, auto& reply, auto& option) {
            const int32_t status = service_->OnRemoteRequest(code, data, reply, option);
            return code == LONGEST + 2 ? 0 : status;
        }));
    ASSERT_NO_FATAL_FAILURE(Serve(overlooking, options));
    const RawClient peer(Path());
    EXPECT_TRUE(peer.Send(MakeFrame(LONGEST, "") + MakeFrame(LONGEST + 1, "") + MakeFrame(LONGEST + 2, "")));
    EXPECT_EQ(MakeFrame(LONGEST, MakeBody(std::string(LONGEST, 'x')), 2), peer.ReceiveFrame());
    EXPECT_EQ(MakeFrame(LONGEST + 1, "", 2, 9), peer.ReceiveFrame());
    EXPECT_EQ(MakeFrame(LONGEST + 2, "", 2, IPC_TOO_LARGE), peer.ReceiveFrame()) << "the operation did not look";
    EXPECT_TRUE(IsAnswered(peer)) << "its bound was another's";
    EXPECT_EQ(2U, server_->Statistics().refused);
}

// Each asked once and keeps its connection: those that have been idle for longest make way.
TEST_F(ServerAbuseTest, PeersThatStayTakeNoPlaceFromOthers)
{
    ASSERT_NO_FATAL_FAILURE(Serve());
    std::deque<RawClient> staying;
    while (staying.size() < 132) {
        EXPECT_TRUE(IsAnswered(staying.emplace_back(Path()))) << staying.size();
        // The clock that eviction goes by ticks before the fifth comes: equals go in any order.
        const auto tick = std::chrono::steady_clock::now() + milliseconds(100);
        EXPECT_TRUE(staying.size() != 4 || Eventually([tick] { return std::chrono::steady_clock::now() > tick; }));
    }
    for (size_t index = 0; index < 4; ++index) {
        EXPECT_TRUE(staying[index].IsClosed()) << index;
    }
    EXPECT_TRUE(IsAnswered(staying[4]));
    const AsUser other(54321);
    EXPECT_TRUE(IsAnswered(RawClient(Path())));
}

TEST_F(ServerAbuseTest, HalfCloseBehindRequestsLosesNoAnswer)
{
    ASSERT_NO_FATAL_FAILURE(Serve());
    const RawClient peer(Path());
    std::string requests = MakeFrame(2, askBody) + longFrame;
    std::string replies = MakeFrame(2, askBody, 2) + longReply;
    for (size_t number = 0; number < 100; ++number) {
        requests += askFrame;
        replies += replyFrame;
    }
    EXPECT_TRUE(peer.Send(requests));
    ::shutdown(peer.GetFd(), SHUT_WR);
    OpenGate();
    EXPECT_TRUE(replies == peer.Receive(replies.size()));
    EXPECT_TRUE(peer.IsClosed());
}

TEST_F(ServerAbuseTest, RefusalsDoNotFillTheLog)
{
    ASSERT_NO_FATAL_FAILURE(Serve());
    constexpr uint64_t COUNT = 500;
    const auto begin = std::chrono::steady_clock::now();
    for (uint64_t round = 0; round < COUNT; ++round) {
        const RawClient peer(Path());
        EXPECT_TRUE(peer.Send(std::string(HEADER_SIZE, 'x')));
        EXPECT_TRUE(peer.IsClosed());
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    server_.reset();
    const std::string log = Log();
    const std::string line = "limit protocol: .*the magic is wrong \\(";
    const size_t lines = Count(log, line + "[0-9]");
    EXPECT_LE(lines, static_cast<size_t>(seconds.count()) + 2);
    EXPECT_EQ(COUNT, lines + Count(log, line + "([0-9]+) left out") + Count(log, "protocol: ([0-9]+) more were"))
        << log;
}

TEST_F(ServerAbuseTest, StopFinishesWhatRunsAndRefusesTheRest)
{
    AbilityServerOptions options;
    options.workers = 1;
    ASSERT_NO_FATAL_FAILURE(Serve(options));
    const RawClient deaf(Path());
    const RawClient reading(Path());
    EXPECT_TRUE(deaf.Send(longFrame) && deaf.Sees(POLLIN));
    EXPECT_TRUE(reading.Send(longFrame) && reading.Sees(POLLIN));
    const RawClient running(Path());
    const RawClient waiting(Path());
    EXPECT_TRUE(running.Send(MakeFrame(2, askBody)));
    EXPECT_TRUE(AwaitAtGate(1));
    EXPECT_TRUE(waiting.Send(askFrame));
    const auto end = std::async(std::launch::async, [this] { server_->Stop(); });
    EXPECT_TRUE(Eventually([this] { return !std::filesystem::exists(Path()); }));
    OpenGate();
    EXPECT_TRUE(longReply == reading.ReceiveFrame()) << "it lost its answer behind one that does not read";
    EXPECT_EQ(MakeFrame(2, askBody, 2), running.ReceiveFrame());
    EXPECT_TRUE(running.IsClosed());
    EXPECT_TRUE(waiting.IsClosed());
    end.wait();
    ASSERT_NO_FATAL_FAILURE(Serve());
}

// The child has copies of all descriptors. It stays, or ends as a program does, and neither may be felt.
TEST_F(ServerAbuseTest, ForkedChildDoesNotTouchItsParentsServer)
{
    ASSERT_NO_FATAL_FAILURE(Serve());
    const RawClient kept(Path());
    EXPECT_TRUE(IsAnswered(kept));
    EXPECT_EXIT((server_->Stop(), server_.reset(), ::_exit(0)), ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(std::filesystem::exists(Path()));
    EXPECT_TRUE(IsAnswered(kept));
    EXPECT_TRUE(IsAnswered(RawClient(Path())));
    const pid_t staying = ::fork();
    if (staying == 0) {
        ::pause();
        ::_exit(0);
    }
    server_->Stop();
    EXPECT_TRUE(kept.IsClosed());
    EXPECT_TRUE(server_->Start());
    EXPECT_TRUE(IsAnswered(RawClient(Path())));
    ::kill(staying, SIGKILL);
    EXPECT_EQ(staying, ::waitpid(staying, nullptr, 0));
}

TEST_F(ServerAbuseTest, SignalsAreNotForTheServersThreads)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGUSR1);
    ASSERT_NO_FATAL_FAILURE(Serve());
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::kill(::getpid(), SIGUSR1);
    EXPECT_TRUE(IsAnswered(RawClient(Path())));
    const timespec now = {};
    EXPECT_EQ(SIGUSR1, ::sigtimedwait(&signals, nullptr, &now));
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace
}  // namespace VARN::Host
