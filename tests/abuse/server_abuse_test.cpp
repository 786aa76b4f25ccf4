// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <optional>
#include <regex>

#include "abuse/processes.h"
#include "abuse/requests.h"

// What a peer can do to a service over its socket, each against a service in a process of its own. Whatever it was, a
// client that behaves is answered as before, and the service holds no descriptor and no memory more.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Host::BytesOf;
using Host::MakeFrame;

constexpr uint64_t MEBIBYTE = 0x100000;

// Waits for the end of the connection (POLLHUP) or for what comes first (POLLIN), and reads nothing.
bool Sees(const Peer& peer, short events)
{
    pollfd entry = {peer.GetFd(), events, 0};
    constexpr int PATIENCE_MILLISECONDS = 30000;
    return ::poll(&entry, 1, PATIENCE_MILLISECONDS) == 1;
}

class ServerAbuseTest : public ::testing::Test {
protected:
    // Starts a service, lets every worker make what it keeps, and remembers how things are.
    void Begin(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> command = {ABUSE_SERVICE, "--directory", folder_.Path()};
        command.insert(command.end(), options.begin(), options.end());
        service_.emplace(folder_, command);
        ASSERT_TRUE(service_->IsReady()) << service_->Log();
        descriptors_ = CountEntries(service_->Pid(), "fd");
        for (size_t round = 0; round < 100; ++round) {
            const Peer one(Path());
            const Peer other(Path());
            ASSERT_TRUE(one.Send(honestFrame));
            ASSERT_TRUE(IsAnswered(other)) << service_->Log();
            answer_ = one.ReadReply();
        }
        ASSERT_NE("", answer_);
        ASSERT_TRUE(Eventually([&] { return CountEntries(service_->Pid(), "fd") <= descriptors_; }));
        size_ = ReadSize(service_->Pid(), "VmRSS");
        ResetPeak(service_->Pid());
    }

    void TearDown() override
    {
        if (service_ && service_->Pid() > 0) {
            ExpectServed();
            EXPECT_TRUE(Eventually([&] { return CountEntries(service_->Pid(), "fd") <= descriptors_; }))
                << CountEntries(service_->Pid(), "fd") << " descriptors instead of " << descriptors_;
            EXPECT_TRUE(Eventually([&] { return GrownBy("VmRSS") < 4 * MEBIBYTE; })) << GrownBy("VmRSS");
            EXPECT_EQ(0, service_->End(SIGTERM)) << service_->Log();
        }
    }

    void ExpectServed() const
    {
        const Peer peer(Path());
        EXPECT_TRUE(peer.Send(honestFrame));
        EXPECT_EQ(answer_, peer.ReadReply()) << service_->Log();
    }

    // Bytes that the service has grown by, now or at most.
    size_t GrownBy(const std::string& field) const { return std::max(ReadSize(service_->Pid(), field), size_) - size_; }

    // A limit's line about this process; both are expressions.
    void ExpectLimit(const std::string& limit, const std::string& numbers) const
    {
        const std::string line = "limit " + limit + ": uid " + std::to_string(::geteuid()) + " pid " +
                                 std::to_string(::getpid()) + ": " + numbers;
        EXPECT_TRUE(std::regex_search(service_->Log(), std::regex(line))) << line << "\n" << service_->Log();
    }

    std::string Path() const { return folder_.SocketPath(); }

    const SocketFolder folder_;
    std::optional<ServiceProcess> service_;

private:
    std::string answer_;
    size_t descriptors_ = 0;
    size_t size_ = 0;
};

struct LimitCase {
    std::string name;
    std::vector<std::string> options;
    std::vector<std::string> sent;  // by a peer each
    size_t dropped;                 // so many of the last are ended
    std::string limit;
    std::string numbers;

    friend void PrintTo(const LimitCase& one, std::ostream* out) { *out << one.name; }
};

const std::string longReply = MakeByAppFrame("bulk", 3 * MEBIBYTE);
const LimitCase limitCases[] = {
    {"RequestBytes",
     {},
     {MakeFrame(1, "").replace(16, 4, BytesOf(uint32_t{16 * MEBIBYTE + 1}))},
     1,
     "request bytes",
     "used 16777217, allowed 16777216"},
    {"RequestTime",
     {"--stall-timeout-ms", "200"},
     {honestFrame.substr(0, 1), honestFrame.substr(0, HEADER_SIZE - 1), honestFrame.substr(0, HEADER_SIZE),
      honestFrame.substr(0, honestFrame.size() - 1), honestFrame + honestFrame.substr(0, 1)},
     5,
     "request time in ms",
     "used [0-9]{3,}, allowed 200"},
    {"ReplyTime", {"--reply-timeout-ms", "200"}, {longReply}, 1, "reply time in ms", "used [0-9]{3,}, allowed 200"},
    {"WaitingReplyBytes",
     {"--max-waiting-reply-bytes", "8388608", "--workers", "1"},
     {longReply, longReply, longReply},
     1,
     "waiting reply bytes per user",
     "used 9[0-9]{6}, allowed 8388608"},
};

class LimitTest : public ServerAbuseTest, public ::testing::WithParamInterface<LimitCase> {};

TEST_P(LimitTest, EndsTheConnectionAndSaysWhy)
{
    ASSERT_NO_FATAL_FAILURE(Begin(GetParam().options));
    std::deque<Peer> peers;
    const size_t kept = GetParam().sent.size() - GetParam().dropped;
    for (const std::string& bytes : GetParam().sent) {
        EXPECT_TRUE(peers.emplace_back(Path()).Send(bytes));
        // In this order: each of those that are kept is served before the next one asks.
        EXPECT_TRUE(peers.size() > kept || Sees(peers.back(), POLLIN));
    }
    for (size_t index = kept; index < peers.size(); ++index) {
        EXPECT_TRUE(Sees(peers[index], POLLHUP)) << index;
    }
    for (size_t index = 0; index < kept; ++index) {
        EXPECT_LT(3 * MEBIBYTE, peers[index].ReadReply().size()) << "it was there before";
    }
    ExpectLimit(GetParam().limit, GetParam().numbers);
}

INSTANTIATE_TEST_SUITE_P(Cases, LimitTest, ::testing::ValuesIn(limitCases),
                         [](const auto& limit) { return limit.param.name; });

TEST_F(ServerAbuseTest, EveryByteOfTheHeaderIsChecked)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    for (const size_t position : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 12U, 13U, 14U, 15U, 19U}) {
        std::string header = MakeFrame(1, "");
        header[position] ^= '\xff';
        const Peer peer(Path());
        EXPECT_TRUE(peer.Send(header));
        EXPECT_TRUE(peer.IsClosed()) << position;
    }
    ExpectLimit("protocol", "used 1, allowed 0: the magic is wrong");
}

TEST_F(ServerAbuseTest, HostileNumbersInEveryPlaceAreAnswered)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    const Peer peer(Path());
    for (const uint32_t code : CODES) {
        const std::string honest = MakeHonestRequest(code);
        std::vector<std::string> bodies;
        for (size_t position = 0; position < honest.size(); position += sizeof(int32_t)) {
            for (const int32_t number : {INT32_MAX, -1, INT32_MIN, 10001, 0}) {
                bodies.push_back(std::string(honest).replace(position, sizeof(number), BytesOf(number)));
            }
            bodies.push_back(honest.substr(0, position));
        }
        for (const std::string& body : bodies) {
            ASSERT_TRUE(peer.Send(MakeFrame(code, body)));
            ASSERT_EQ(MakeFrame(code, "", 2).substr(0, 12), peer.ReadReply().substr(0, 12)) << service_->Log();
        }
    }
}

// Each asked once and keeps its connection: those that have been idle for longest make way.
TEST_F(ServerAbuseTest, PeersThatStayTakeNoPlaceFromOthers)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    std::deque<Peer> staying;
    while (staying.size() < 132) {
        // The clock that eviction goes by ticks before the fifth comes: equals go in any order.
        const bool isFourth = staying.size() == 3;
        const Peer& peer = staying.emplace_back(Path());
        EXPECT_TRUE(peer.Send(isFourth ? MakeByAppFrame("nap", 100) : honestFrame));
        EXPECT_NE("", peer.ReadReply()) << staying.size();
    }
    for (size_t index = 0; index < 4; ++index) {
        EXPECT_TRUE(staying[index].IsClosed()) << index;
    }
    EXPECT_TRUE(IsAnswered(staying[4]));
    const AsUser other(54321);
    EXPECT_TRUE(IsAnswered(Peer(Path())));
}

TEST_F(ServerAbuseTest, HalfCloseBehindRequestsLosesNoAnswer)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    constexpr size_t COUNT = 100;
    const Peer peer(Path());
    EXPECT_TRUE(peer.Send(MakeByAppFrame("nap", 100) + longReply + Repeat(honestFrame, COUNT)));
    ::shutdown(peer.GetFd(), SHUT_WR);
    for (size_t number = 0; number <= COUNT + 1; ++number) {
        ASSERT_NE("", peer.ReadReply()) << number;
    }
    EXPECT_TRUE(peer.IsClosed());
}

TEST_F(ServerAbuseTest, DescriptorsAreRefusedWhereTheyAreSent)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    const Peer peer(Path());
    constexpr int PASS_RIGHTS = 83;
    int isOn = 0;
    socklen_t size = sizeof(isOn);
    if (::getsockopt(peer.GetFd(), SOL_SOCKET, PASS_RIGHTS, &isOn, &size) != 0) {
        GTEST_SKIP() << "this kernel cannot refuse descriptors";
    }
    EXPECT_EQ(-1, Host::SendDescriptor(peer.GetFd(), honestFrame, STDIN_FILENO));
    EXPECT_EQ(EPERM, errno);
    EXPECT_TRUE(IsAnswered(peer)) << "on the same connection";
}

// On a kernel that lets them in the connection is closed with them, whatever else was sent.
TEST_F(ServerAbuseTest, DescriptorsThatComeInEndTheConnection)
{
    ASSERT_NO_FATAL_FAILURE(Begin({"--takes-descriptors", "1"}));
    for (const size_t size : {size_t{1}, HEADER_SIZE + 1, honestFrame.size()}) {
        int pipe[2] = {};
        ASSERT_EQ(0, ::pipe2(pipe, O_CLOEXEC));
        const Peer peer(Path());
        EXPECT_TRUE(IsAnswered(peer));
        EXPECT_EQ(static_cast<ssize_t>(size), Host::SendDescriptor(peer.GetFd(), honestFrame.substr(0, size), pipe[1]));
        ::close(pipe[1]);
        peer.Send(honestFrame.substr(size) + honestFrame);
        EXPECT_TRUE(peer.IsClosed());
        // Ends when the last writer is gone, which the service would be.
        pollfd entry = {pipe[0], POLLIN, 0};
        EXPECT_EQ(1, ::poll(&entry, 1, 30000)) << "the descriptor is still open somewhere";
        ::close(pipe[0]);
    }
    ExpectLimit("descriptors sent along", "used 1, allowed 0");
}

TEST_F(ServerAbuseTest, RefusalsDoNotFillTheLog)
{
    ASSERT_NO_FATAL_FAILURE(Begin());
    constexpr uint64_t COUNT = 500;
    const auto begin = std::chrono::steady_clock::now();
    for (uint64_t round = 0; round < COUNT; ++round) {
        const Peer peer(Path());
        EXPECT_TRUE(peer.Send(std::string(HEADER_SIZE, 'x')));
        EXPECT_TRUE(peer.IsClosed());
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(0, service_->End(SIGTERM));
    const std::string log = service_->Log();
    const std::regex line("limit protocol: .*the magic is wrong \\(([0-9]+) left out|protocol: ([0-9]+) more were");
    uint64_t lines = 0;
    uint64_t leftOut = 0;
    for (std::sregex_iterator found(log.begin(), log.end(), line); found != std::sregex_iterator(); ++found) {
        lines += (*found)[1].matched ? 1 : 0;
        leftOut += std::stoul((*found)[1].matched ? (*found)[1] : (*found)[2]);
    }
    EXPECT_LE(lines, static_cast<uint64_t>(seconds.count()) + 2);
    EXPECT_EQ(COUNT, lines + leftOut) << log;
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
