// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <random>
#include <regex>
#include <thread>

#include "abuse/processes.h"
#include "abuse/requests.h"
#include "varn/host/log_sink.h"

// Everything that a peer can do to a service over its socket, each against a service in a process of its own. Whatever
// it was, a client that behaves is answered as before, and the service holds no descriptor and no memory more.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Host::BytesOf;
using Host::MakeFrame;

constexpr uid_t OTHER_USER = 54321;
constexpr uint64_t MEBIBYTE = 0x100000;

std::string MakeByAppFrame(const std::string& bundleName, int32_t userId)
{
    return MakeFrame(1, MakeRequest(bundleName, userId, int32_t{0}));
}
const std::string honestFrame = MakeByAppFrame("com.example.bank", 100);

bool IsAnswered(const Peer& peer)
{
    return peer.Send(honestFrame) && !peer.ReadReply().empty();
}

// Whether the service has closed the connection, without reading what it said before.
bool IsDropped(const Peer& peer)
{
    pollfd entry = {peer.GetFd(), 0, 0};
    constexpr int PATIENCE_MILLISECONDS = 30000;
    return ::poll(&entry, 1, PATIENCE_MILLISECONDS) == 1;
}

class Abuse;

// Whether the example service can be abused as well, or lacks an operation or an option for it.
enum class On { BOTH, OWN_SERVICE };

struct AbuseCase {
    std::string name;
    void (*abuse)(Abuse&);
    std::vector<std::string> options = {};
    On services = On::BOTH;
    rlim_t descriptors = 1024;

    friend void PrintTo(const AbuseCase& abuseCase, std::ostream* out) { *out << abuseCase.name; }
};

// A service under abuse, and a client that behaves.
class Abuse {
public:
    Abuse(std::vector<std::string> command, const AbuseCase& abuseCase)
        : service(folder, Extend(std::move(command), abuseCase.options), [&abuseCase] {
              const rlimit limit = {abuseCase.descriptors, abuseCase.descriptors};
              ::setrlimit(RLIMIT_NOFILE, &limit);
          })
    {
        Host::SetLogLevel(7);
    }

    // Waits for the service, lets every worker make what it keeps, and remembers how things are.
    void Begin()
    {
        ASSERT_TRUE(service.IsReady()) << service.Log();
        answer_ = Ask();
        ASSERT_NE(answer_, "0") << "the client is to be answered with something";
        descriptors_ = CountEntries(service.Pid(), "fd");
        for (size_t round = 0; round < 100; ++round) {
            const Peer one(Path());
            const Peer other(Path());
            ASSERT_TRUE(one.Send(honestFrame) && IsAnswered(other) && !one.ReadReply().empty()) << service.Log();
        }
        ASSERT_TRUE(Eventually([&] { return CountEntries(service.Pid(), "fd") == descriptors_; }));
        size_ = ReadSize(service.Pid(), "VmRSS");
        ResetPeak(service.Pid());
    }

    void ExpectServed() const { EXPECT_EQ(Ask(), answer_) << service.Log(); }

    void ExpectUnharmed()
    {
        ExpectServed();
        EXPECT_TRUE(Eventually([&] { return CountEntries(service.Pid(), "fd") <= descriptors_; }))
            << CountEntries(service.Pid(), "fd") << " descriptors instead of " << descriptors_;
        EXPECT_TRUE(Eventually([&] { return GrownBy("VmRSS") < 4 * MEBIBYTE; })) << GrownBy("VmRSS");
        EXPECT_EQ(service.End(SIGTERM), 0) << service.Log();
    }

    // Bytes that the service has grown by, now or at most.
    size_t GrownBy(const std::string& field) const { return std::max(ReadSize(service.Pid(), field), size_) - size_; }

    void ExpectLogged(const std::string& expression) const
    {
        EXPECT_TRUE(std::regex_search(service.Log(), std::regex(expression))) << expression << "\n" << service.Log();
    }
    // A limit's line about this process; `used` is an expression.
    void ExpectLimit(const std::string& limit, const std::string& used, uint64_t allowed) const
    {
        ExpectLogged("limit " + limit + ": uid " + std::to_string(::geteuid()) + " pid " + std::to_string(::getpid()) +
                     ": used " + used + ", allowed " + std::to_string(allowed));
    }

    std::string Path() const { return folder.SocketPath(); }

    const SocketFolder folder;
    ServiceProcess service;

private:
    std::vector<std::string> Extend(std::vector<std::string> command, const std::vector<std::string>& options) const
    {
        command.insert(command.end(), {"--directory", folder.Path()});
        command.insert(command.end(), options.begin(), options.end());
        return command;
    }

    static std::string Ask()
    {
        std::vector<Permission::AppPermissionGroupInfo> groups;
        std::string answer = std::to_string(
            SecurityPrivacyClient::GetInstance().GetAppPermissionGroupInfosByApp("com.example.bank", 100, {}, groups));
        for (const Permission::AppPermissionGroupInfo& group : groups) {
            answer += group.ToString();
        }
        return answer;
    }

    std::string answer_;
    size_t descriptors_ = 0;
    size_t size_ = 0;
};

// Peers who have sent no more than that.
std::deque<Peer> Connect(const Abuse& abuse, size_t count, const std::string& bytes = "")
{
    std::deque<Peer> peers;
    while (peers.size() < count) {
        EXPECT_TRUE(peers.emplace_back(abuse.Path()).Send(bytes));
    }
    return peers;
}

// With the client that behaves they take all 16 places; one more is refused, until they go.
void SilentConnections(Abuse& abuse)
{
    {
        const std::deque<Peer> silent = Connect(abuse, 15);
        EXPECT_TRUE(Peer(abuse.Path()).IsClosed());
        abuse.ExpectServed();
        abuse.ExpectLimit("connections( per user)?", "16", 16);
    }
    EXPECT_TRUE(Eventually([&] { return IsAnswered(Peer(abuse.Path())); }));
}

void SilentConnectionsOfAnotherUser(Abuse& abuse)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const std::deque<Peer> silent = [&abuse] {
        const AsUser other(OTHER_USER);
        std::deque<Peer> peers = Connect(abuse, 16);
        EXPECT_TRUE(Peer(abuse.Path()).IsClosed());
        return peers;
    }();
    abuse.ExpectLogged("limit connections per user: uid 54321 pid");
    EXPECT_TRUE(IsAnswered(Peer(abuse.Path()))) << "the places of others are not ours";
    // The caller is whoever connected, though this process is another user again.
    EXPECT_TRUE(silent[0].Send(honestFrame));
    EXPECT_NE(silent[0].ReadReply().find(BytesOf(OTHER_USER)), std::string::npos);
}

void ConnectionsThatComeAndGo(Abuse& abuse)
{
    for (size_t round = 0; round < 2000; ++round) {
        // Those whose like have not gone yet are refused; never mind.
        Peer(abuse.Path()).Send(honestFrame.substr(0, round % HEADER_SIZE));
    }
}

// Whatever it is that has come, and though one more byte comes now and then.
void BegunRequestsRunIntoTheRequestTime(Abuse& abuse)
{
    constexpr int PACE_MILLISECONDS = 5;
    const Peer trickle(abuse.Path());
    std::deque<Peer> peers;
    for (size_t size = 1; size < honestFrame.size(); size += size < HEADER_SIZE + 4 ? 1 : 50) {
        EXPECT_TRUE(peers.emplace_back(abuse.Path()).Send(honestFrame.substr(0, size)));
    }
    size_t sent = 0;
    pollfd entry = {trickle.GetFd(), POLLIN, 0};
    while (sent < honestFrame.size() && ::poll(&entry, 1, PACE_MILLISECONDS) == 0) {
        sent += trickle.Send(honestFrame.substr(sent, 1)) ? 1 : 0;
    }
    EXPECT_LT(sent, honestFrame.size());
    EXPECT_TRUE(trickle.IsClosed());
    for (const Peer& peer : peers) {
        EXPECT_TRUE(peer.IsClosed());
    }
    abuse.ExpectLimit("request time in ms", "[0-9]{3,}", 200);
}

void RandomBytes(Abuse& abuse)
{
    std::mt19937 random(20240229);
    for (size_t size = 0; size <= 64; ++size) {
        std::string bytes(size, '\0');
        std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
        const std::string announced = BytesOf(static_cast<uint32_t>(size + random() % 3));
        const uint32_t code = CODES[random() % std::size(CODES)];
        for (const std::string& header : {std::string(), MakeFrame(code, "").replace(16, 4, announced)}) {
            const Peer peer(abuse.Path());
            EXPECT_TRUE(peer.Send(header + bytes));
            ::shutdown(peer.GetFd(), SHUT_WR);
            EXPECT_TRUE(peer.ReadReply().empty() || (!header.empty() && peer.IsClosed())) << size;
        }
    }
}

void HeadersThatAreRefused(Abuse& abuse)
{
    std::vector<std::string> headers = {MakeFrame(1, "").replace(16, 4, BytesOf(uint32_t{16 * MEBIBYTE + 1}))};
    for (const size_t position : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 12U, 13U, 14U, 15U, 19U}) {
        headers.push_back(MakeFrame(1, ""));
        headers.back()[position] ^= '\xff';
    }
    for (const std::string& header : headers) {
        const Peer peer(abuse.Path());
        EXPECT_TRUE(peer.Send(header) && peer.IsClosed());
    }
    abuse.ExpectLogged("limit protocol: .*: the magic is wrong");
    abuse.ExpectLimit("request bytes", "16777217", 16 * MEBIBYTE);
}

void AnnouncedBytesTakeNoMemory(Abuse& abuse)
{
    const std::deque<Peer> peers =
        Connect(abuse, 64, MakeFrame(1, "").replace(16, 4, BytesOf(uint32_t{16 * MEBIBYTE})));
    abuse.ExpectServed();
    EXPECT_LT(abuse.GrownBy("VmHWM"), 4 * MEBIBYTE);
    EXPECT_TRUE(peers.back().Send(std::string(8 * MEBIBYTE, '\0')));
    EXPECT_TRUE(!IS_SIZE_TELLING || Eventually([&] { return abuse.GrownBy("VmRSS") > 7 * MEBIBYTE; }));
    EXPECT_LT(abuse.GrownBy("VmHWM"), 20 * MEBIBYTE);
}

// Sends each body and wants an answer, whatever it says.
void ExpectAnswers(const Abuse& abuse, uint32_t code, const std::vector<std::string>& bodies)
{
    const Peer peer(abuse.Path());
    for (const std::string& body : bodies) {
        ASSERT_TRUE(peer.Send(MakeFrame(code, body)));
        ASSERT_EQ(peer.ReadReply().substr(0, 12), MakeFrame(code, "", 2).substr(0, 12)) << abuse.service.Log();
    }
}

void EveryReadMeetsEveryWrite(Abuse& abuse)
{
    const std::string token = MakeRequest();
    const std::string values[] = {MakeRequest(true),
                                  MakeRequest(3),
                                  MakeRequest(int64_t{-2}),
                                  MakeRequest(std::string("text")),
                                  MakeRequest(std::u16string(u"text")),
                                  MakeRequest(MakeCheckedStateParameter())};
    std::vector<std::string> bodies = {"", token.substr(4), token};
    for (const std::string& first : values) {
        for (const std::string& second : values) {
            for (const std::string& third : values) {
                bodies.push_back(first + second.substr(token.size()) + third.substr(token.size()));
            }
        }
    }
    for (const uint32_t code : {1U, 2U, 3U, 4U, 5U, 11U, 12U, 13U, 0U, 6U, UINT32_MAX}) {
        ExpectAnswers(abuse, code, bodies);
    }
}

void HostileNumbersInEveryPlace(Abuse& abuse)
{
    for (const uint32_t code : CODES) {
        const std::string honest = MakeHonestRequest(code);
        std::vector<std::string> bodies;
        for (size_t position = 0; position < honest.size(); position += sizeof(int32_t)) {
            for (const int32_t number : {INT32_MAX, -1, INT32_MIN, 10001, 0}) {
                bodies.push_back(std::string(honest).replace(position, sizeof(number), BytesOf(number)));
            }
            bodies.push_back(honest.substr(0, position));
        }
        ExpectAnswers(abuse, code, bodies);
    }
}

void DisconnectWhileTheOperationRuns(Abuse& abuse)
{
    const std::string gate = abuse.folder.Path() + "/gate";
    for (const std::string& ahead : {std::string(), honestFrame + honestFrame}) {
        int open = -1;
        ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
        {
            const Peer peer(abuse.Path());
            EXPECT_TRUE(peer.Send(MakeByAppFrame("gate", 0) + ahead));
            // Waits until the operation is there.
            open = ::open(gate.c_str(), O_WRONLY | O_CLOEXEC);
        }
        // The next round's operation is not to be met by what this one has still open.
        EXPECT_EQ(::unlink(gate.c_str()), 0);
        abuse.ExpectServed();
        ::close(open);
    }
}

void ReplyThatIsNeverRead(Abuse& abuse)
{
    const Peer peer(abuse.Path());
    EXPECT_TRUE(peer.Send(MakeByAppFrame("bulk", 8 * MEBIBYTE) + honestFrame));
    EXPECT_TRUE(IsDropped(peer));
    abuse.ExpectLimit("reply time in ms", "[0-9]{3,}", 200);
}

void RepliesThatWaitForOneUser(Abuse& abuse)
{
    const std::deque<Peer> peers = Connect(abuse, 3, MakeByAppFrame("bulk", 3 * MEBIBYTE));
    EXPECT_TRUE(IsDropped(peers[2]));
    abuse.ExpectLimit("waiting reply bytes per user", "9[0-9]{6}", 8 * MEBIBYTE);
    EXPECT_LT(abuse.GrownBy("VmHWM"), 16 * MEBIBYTE);
    // Those that were there before get theirs.
    EXPECT_GT(peers[0].ReadReply().size(), 3 * MEBIBYTE);
    EXPECT_GT(peers[1].ReadReply().size(), 3 * MEBIBYTE);
    // So does one with a shorter reply, which is kept in less than the long buffer that it was written to.
    const Peer last(abuse.Path());
    const std::string reply = last.Send(MakeByAppFrame("bulk", MEBIBYTE)) ? last.ReadReply() : "";
    EXPECT_EQ(std::count(reply.begin(), reply.end(), 'x'), int64_t{MEBIBYTE});
}

void RequestsAheadThatAreNotRead(Abuse& abuse)
{
    constexpr size_t COUNT = 20000;
    std::string requests;
    while (requests.size() < COUNT * honestFrame.size()) {
        requests += honestFrame;
    }
    const Peer peer(abuse.Path());
    size_t sent = 0;
    for (int full = 0; full < 20;) {
        const ssize_t part = ::send(peer.GetFd(), &requests[sent], requests.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        sent += part > 0 ? static_cast<size_t>(part) : 0;
        full += part > 0 ? 0 : 1;
        abuse.ExpectServed();
    }
    EXPECT_LT(sent, requests.size()) << "it goes on reading while nobody reads its replies";
    EXPECT_LT(abuse.GrownBy("VmHWM"), 4 * MEBIBYTE);
    std::thread rest([&] { EXPECT_TRUE(peer.Send(requests.substr(sent))); });
    for (size_t number = 0; number < COUNT; ++number) {
        ASSERT_NE(peer.ReadReply(), "") << number;
    }
    rest.join();
}

void DescriptorsAreRefusedWhereTheyAreSent(Abuse& abuse)
{
    const Peer peer(abuse.Path());
    if (Host::SendDescriptor(peer.GetFd(), honestFrame, STDIN_FILENO) >= 0) {
        GTEST_SKIP() << "this kernel lets descriptors in";
    }
    EXPECT_EQ(EPERM, errno);
    EXPECT_TRUE(IsAnswered(peer)) << "on the same connection";
}

// On a kernel that lets them in the connection is closed with them, whatever else was sent.
void DescriptorsThatComeIn(Abuse& abuse)
{
    for (const size_t size : {size_t{1}, HEADER_SIZE + 1, honestFrame.size()}) {
        int pipe[2] = {};
        ASSERT_EQ(0, ::pipe2(pipe, O_CLOEXEC));
        const Peer peer(abuse.Path());
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
    abuse.ExpectLimit("descriptors sent along", "1", 0);
}

void DescriptorsRunOut(Abuse& abuse)
{
    std::deque<Peer> peers = Connect(abuse, 48, honestFrame);
    EXPECT_NE(peers[0].ReadReply(), "");
    const std::string line = "limit descriptors of the process: .*: used 32, allowed 32";
    EXPECT_TRUE(Eventually([&] { return std::regex_search(abuse.service.Log(), std::regex(line)); }));
    abuse.ExpectServed();
    // When others go, those who wait are let in without doing anything for it.
    while (peers.size() > 8) {
        peers.pop_front();
    }
    for (const Peer& peer : peers) {
        EXPECT_NE(peer.ReadReply(), "");
    }
}

void RefusalsDoNotFillTheLog(Abuse& abuse)
{
    constexpr uint64_t COUNT = 500;
    const auto begin = std::chrono::steady_clock::now();
    for (uint64_t round = 0; round < COUNT; ++round) {
        const Peer peer(abuse.Path());
        EXPECT_TRUE(peer.Send(std::string(HEADER_SIZE, 'x')) && peer.IsClosed());
    }
    abuse.ExpectServed();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(abuse.service.End(SIGTERM), 0);
    const std::string log = abuse.service.Log();
    const std::regex line("limit protocol: .*the magic is wrong \\(([0-9]+) left out|protocol: ([0-9]+) more were");
    uint64_t lines = 0;
    uint64_t leftOut = 0;
    for (std::sregex_iterator found(log.begin(), log.end(), line); found != std::sregex_iterator(); ++found) {
        lines += (*found)[1].matched ? 1 : 0;
        leftOut += std::stoul((*found)[1].matched ? (*found)[1] : (*found)[2]);
    }
    EXPECT_LE(lines, static_cast<uint64_t>(seconds.count()) + 2);
    EXPECT_EQ(lines + leftOut, COUNT) << log;
}

#define ABUSE(function) #function, function

const std::vector<AbuseCase> abuseCases = {
    {"SilentConnectionsOfAUser", SilentConnections, {"--max-connections-per-user", "16"}},
    {"SilentConnectionsOfAll", SilentConnections, {"--max-connections", "16"}},
    {ABUSE(SilentConnectionsOfAnotherUser), {"--max-connections-per-user", "16"}, On::OWN_SERVICE},
    {ABUSE(ConnectionsThatComeAndGo)},
    {ABUSE(BegunRequestsRunIntoTheRequestTime), {"--stall-timeout-ms", "200"}},
    {ABUSE(RandomBytes)},
    {ABUSE(HeadersThatAreRefused)},
    {ABUSE(AnnouncedBytesTakeNoMemory)},
    {ABUSE(EveryReadMeetsEveryWrite)},
    {ABUSE(HostileNumbersInEveryPlace)},
    {ABUSE(DisconnectWhileTheOperationRuns), {"--workers", "2"}, On::OWN_SERVICE},
    {ABUSE(ReplyThatIsNeverRead), {"--reply-timeout-ms", "200"}, On::OWN_SERVICE},
    {ABUSE(RepliesThatWaitForOneUser), {"--max-waiting-reply-bytes", "8388608", "--workers", "1"}, On::OWN_SERVICE},
    {ABUSE(RequestsAheadThatAreNotRead)},
    {ABUSE(DescriptorsAreRefusedWhereTheyAreSent)},
    {ABUSE(DescriptorsThatComeIn), {"--takes-descriptors", "1"}, On::OWN_SERVICE},
    {ABUSE(DescriptorsRunOut), {}, On::BOTH, 32},
    {ABUSE(RefusalsDoNotFillTheLog)},
};

class ServerAbuseTest : public ::testing::TestWithParam<AbuseCase> {};

TEST_P(ServerAbuseTest, LeavesTheServiceUnharmed)
{
    std::vector<std::vector<std::string>> services = {{ABUSE_SERVICE}};
#if defined(SERVICE_PROGRAM)
    if (GetParam().services == On::BOTH) {
        services.push_back({SERVICE_PROGRAM, "--data", DEVICE_DATA});
    }
#endif
    for (const std::vector<std::string>& command : services) {
        Abuse abuse(command, GetParam());
        ASSERT_NO_FATAL_FAILURE(abuse.Begin());
        GetParam().abuse(abuse);
        if (abuse.service.Pid() > 0) {
            abuse.ExpectUnharmed();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, ServerAbuseTest, ::testing::ValuesIn(abuseCases),
                         [](const auto& abuse) { return abuse.param.name; });

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
