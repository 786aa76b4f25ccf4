// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <string_view>

#include "abuse/processes.h"
#include "abuse/service_process.h"

// One user cannot take the service from another. Whatever one or eight users do: while they do it, a client of another
// user gets every answer, right and in time, and the service stays within its memory; when they have gone, it is as
// before; and it can be stopped in the middle of it.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::Le;
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

// What one user does with its connections until its process is killed. One that the service closes is made anew.
struct Flood {
    size_t connections = 1;
    std::string bytes;  // what each of them sends
    enum class Then {
        SEND_AGAIN,
        SEND_WHEN_ANSWERED,
        BE_SILENT,
        HANG_UP,
    } then = Then::SEND_WHEN_ANSWERED;
    bool isReading = true;
    size_t bytesAtATime = SIZE_MAX;
    bool sendsDescriptors = false;  // whose last close blocks for an hour
};

struct Stream {
    explicit Stream(const std::string& path) : socket(path) { ::fcntl(socket.GetFd(), F_SETFL, O_NONBLOCK); }
    const Host::RawClient socket;
    size_t sent = 0;
};

// A TCP connection to itself, full of data that nobody reads, and patient.
int MakeStickyDescriptor()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    const int listening = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int sticky = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto* where = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(listening, where, size) != 0 || ::listen(listening, 1) != 0 ||
        ::getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        ::connect(sticky, where, size) != 0) {
        ::_exit(1);
    }
    const std::string bytes(65536, 'x');
    while (::send(sticky, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    const linger hour = {1, 3600};
    ::setsockopt(sticky, SOL_SOCKET, SO_LINGER, &hour, sizeof(hour));
    return sticky;
}

// One byte at least goes with the descriptor. A kernel that does not let it through says so.
ssize_t SendWithDescriptor(int fd, std::string_view bytes)
{
    const Host::RawSocket sticky(MakeStickyDescriptor());
    const ssize_t sent = Host::SendDescriptor(fd, std::string(bytes), sticky.GetFd());
    const bool isRefused = sent < 0 && errno == EPERM;
    if (sent < 0) {
        // Nobody else has it: this process must not be the one that waits.
        const linger none = {1, 0};
        ::setsockopt(sticky.GetFd(), SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    }
    return isRefused ? ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) : sent;
}

// False: the connection is over.
bool Advance(Stream& stream, const Flood& flood, short events)
{
    const int fd = stream.socket.GetFd();
    char rest[65536];
    const ssize_t got = (events & POLLIN) != 0 ? ::recv(fd, rest, sizeof(rest), 0) : -1;
    if ((events & (POLLHUP | POLLERR)) != 0 || got == 0) {
        return false;
    }
    if (stream.sent == flood.bytes.size() &&
        (flood.then == Flood::Then::SEND_AGAIN || (flood.then == Flood::Then::SEND_WHEN_ANSWERED && got > 0))) {
        stream.sent = 0;
    }
    const std::string_view next = std::string_view(flood.bytes).substr(stream.sent, flood.bytesAtATime);
    if (!next.empty() && (events & POLLOUT) != 0) {
        const ssize_t part = flood.sendsDescriptors && stream.sent == 0
                                 ? SendWithDescriptor(fd, next)
                                 : ::send(fd, next.data(), next.size(), MSG_NOSIGNAL);
        stream.sent += part > 0 ? static_cast<size_t>(part) : 0;
    }
    return flood.then != Flood::Then::HANG_UP || stream.sent < flood.bytes.size();
}

// Until it is killed, or the test has ended: as another user that could not tell it by a signal.
[[noreturn]] void Run(const std::string& path, const Flood& flood, int ready, pid_t test)
{
    constexpr int PACE_MILLISECONDS = 20;
    std::vector<std::unique_ptr<Stream>> streams(flood.connections);
    std::vector<pollfd> entries(flood.connections);
    const bool isSlow = flood.bytesAtATime != SIZE_MAX;
    for (size_t rounds = 0; ::getppid() == test; ++rounds) {
        for (size_t index = 0; index < streams.size(); ++index) {
            if (!streams[index]) {
                streams[index] = std::make_unique<Stream>(path);
            }
            const bool sends = streams[index]->sent < flood.bytes.size() || flood.then == Flood::Then::SEND_AGAIN;
            entries[index] = {streams[index]->socket.GetFd(),
                              static_cast<short>((flood.isReading ? POLLIN : 0) | (sends ? POLLOUT : 0)), 0};
        }
        ::poll(entries.data(), entries.size(), PACE_MILLISECONDS);
        bool haveAllSent = true;
        for (size_t index = 0; index < streams.size(); ++index) {
            if (entries[index].revents != 0 && !Advance(*streams[index], flood, entries[index].revents)) {
                streams[index].reset();
            }
            haveAllSent = haveAllSent && streams[index] && streams[index]->sent == flood.bytes.size();
        }
        if (ready >= 0 && (haveAllSent || rounds > 100)) {
            ::close(std::exchange(ready, -1));
        }
        if (isSlow) {
            ::poll(nullptr, 0, PACE_MILLISECONDS);
        }
    }
    ::_exit(EXIT_SUCCESS);
}

// The processes of some users, one after the other from FIRST_ATTACKER on.
class Attackers {
public:
    // Waits until each has sent on all its connections once, or a second is over.
    Attackers(const std::string& path, size_t users, const Flood& flood)
    {
        constexpr uid_t FIRST_ATTACKER = 60001;
        int ready[2] = {};
        EXPECT_EQ(0, ::pipe2(ready, O_CLOEXEC));
        const Host::RawSocket areReady(ready[0]);
        const pid_t test = ::getpid();
        for (uid_t user = FIRST_ATTACKER; users_.size() < users; ++user) {
            users_.push_back(::fork());
            if (users_.back() == 0) {
                ::close(ready[0]);
                // It is the service that is to be fair, whatever the scheduler is.
                ::setpriority(PRIO_PROCESS, 0, 19);
                ::syscall(SYS_setresuid, user, user, user);
                Run(path, flood, ready[1], test);
            }
        }
        ::close(ready[1]);
        areReady.Sees(POLLIN, milliseconds(1000));
    }
    ~Attackers()
    {
        for (const pid_t user : users_) {
            ::kill(user, SIGKILL);
            ::waitpid(user, nullptr, 0);
        }
    }

private:
    std::vector<pid_t> users_;
};

// The longest request that there may be.
std::string MakeLongest()
{
    return Host::MakeFrame(1, MakeRequest("'x' 1 0") + std::string(16 * MEBIBYTE - 200, 0));
}

// A request with many different names of one hash, which a set works on for a long time. The standard library's hash of
// a string takes eight bytes at a time into its state: state = (state ^ mix(bytes)) * M. Every step can be undone, so
// to any first eight bytes there are second ones that lead to the same state.
std::string MakeColliding()
{
    constexpr uint64_t NAMES = IS_SIZE_TELLING ? 3500 : 1500;
    constexpr uint64_t M = 0xc6a4a7935bd1e995;
    constexpr uint64_t SEED = 0xc70f6907;
    const auto shift = [](uint64_t value) { return value ^ value >> 47; };
    uint64_t inverse = M;
    for (int round = 0; round < 6; ++round) {
        inverse *= 2 - M * inverse;
    }
    std::string arguments = MakeRequest("'group' 1 " + std::to_string(NAMES));
    for (uint64_t first = 0; first < NAMES; ++first) {
        const uint64_t state = (SEED ^ 2 * sizeof(first) * M ^ shift(first * M) * M) * M;
        const uint64_t second = shift(state * inverse) * inverse;
        arguments += Host::MakeBody(Host::BytesOf(first) + Host::BytesOf(second));
    }
    return Host::MakeFrame(2, arguments);
}

std::string MakeMany()
{
    std::string frames;
    for (int number = 0; number < 100; ++number) {
        frames += honestFrame;
    }
    return frames;
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
    {"RepliesNotReadOfManyRequests", FLOOD(100, MakeMany(), Then::SEND_AGAIN, false)},
    {"RequestsWithoutEnd", FLOOD(128, MakeMany(), Then::SEND_AGAIN)},
    {"Garbage", FLOOD(128, std::string(1000, 'x'), Then::SEND_AGAIN)},
    {"LinesThatNobodyReads", FLOOD(16, Host::MakeFrame(12, MakeRequest("'policy' 0")), Then::SEND_AGAIN),
     [] {
         int ends[2] = {};
         EXPECT_EQ(0, ::pipe(ends));
         ::dup2(ends[1], STDERR_FILENO);
     }},
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
        Probe(IS_SIZE_TELLING ? 100 : 20);
        before_ = GetUse();
    }

    // Another user asks on a connection that it keeps and, in turn with it, on new ones. Returns how long each answer
    // took, the shortest first.
    std::vector<milliseconds> Probe(size_t times)
    {
        const Host::AsUser other(ORDINARY_USER);
        const Host::RawClient kept(folder_.SocketPath());
        std::vector<milliseconds> taken(times);
        for (size_t time = 0; time < times && !HasFailure(); ++time) {
            const Clock::time_point begin = Clock::now();
            std::optional<Host::RawClient> fresh;
            const Host::RawClient& asked = time % 2 == 0 ? kept : fresh.emplace(folder_.SocketPath());
            const std::string answer = asked.Send(honestFrame) ? asked.ReceiveFrame() : "";
            taken[time] = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
            answer_ = answer_.empty() ? answer : answer_;
            EXPECT_TRUE(!answer.empty() && answer == answer_) << "an answer is wrong or missing; " << service_.Log();
            EXPECT_LT(taken[time], GIVEN_UP);
            ::usleep(2000);
        }
        std::sort(taken.begin(), taken.end());
        return taken;
    }

    // Descriptors, threads, bytes.
    std::vector<size_t> GetUse() const
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
    std::vector<size_t> before_;
    std::string answer_;
};

TEST_P(AttackersTest, CannotTakeTheServiceFromAnother)
{
    const size_t users = std::get<1>(GetParam());
    const Flood flood = attacker_.make();
    Host::ResetPeak(service_.Pid());
    {
        const Attackers attackers(folder_.SocketPath(), users, flood);
        constexpr size_t TIMES = IS_SIZE_TELLING ? 200 : 20;  // with a sanitizer each takes long
        EXPECT_LE(Probe(TIMES)[TIMES - 1 - TIMES / 20].count(), Scaled(IN_TIME).count()) << "ms";
        EXPECT_LT(Host::ReadSize(service_.Pid(), "VmHWM"), before_[2] + MOST_MEMORY + MEMORY_OF_REQUESTS);
    }
    const Clock::time_point gone = Clock::now();
    const auto isBack = ElementsAre(Le(before_[0]), Le(before_[1] + WORKERS), Le(before_[2] + MEMORY_LEFT));
    std::vector<size_t> after = GetUse();
    while (!::testing::Value(after, isBack) && Clock::now() - gone < Scaled(TIME_TO_RECOVER)) {
        ::usleep(10000);
        after = GetUse();
    }
    EXPECT_THAT(after, isBack);

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
