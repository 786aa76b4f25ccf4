// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "abuse/processes.h"
#include "platform/host_fixture.h"
#include "security_privacy/connect.h"
#include "support/calls.h"

// What a service can do to its clients.
namespace VARN::Host {
namespace {

using namespace AppSecurityPrivacy::SecurityPrivacyServer;

constexpr uint32_t CODE = 3;

// Answers one request on the connection; false: the connection is to end.
using Reaction = std::function<bool(const RawSocket& connection)>;

Reaction Writing(const std::string& bytes, bool staysOpen = true)
{
    return [=](const RawSocket& connection) { return connection.Send(bytes) && staysOpen; };
}

const Reaction honestAnswer = Writing(MakeFrame(CODE, "", 2));

// A service that does with each request what the test wants.
class HostileService {
public:
    explicit HostileService(const std::string& path) : path_(path), listener_(path), accepting_([this] { Accept(); }) {}
    ~HostileService()
    {
        ::shutdown(listener_.GetFd(), SHUT_RDWR);
        accepting_.join();
        for (const RawSocket& connection : connections_) {
            ::shutdown(connection.GetFd(), SHUT_RDWR);
        }
        std::filesystem::remove(path_);
    }

    // What is done with the requests from now on.
    void Become(Reaction reaction)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        reaction_ = std::move(reaction);
    }

    int Requests() const { return requests_; }
    // Who made each connection, in turn.
    std::vector<std::pair<uid_t, gid_t>> Peers() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return peers_;
    }
    size_t Connections() const { return Peers().size(); }

private:
    void Accept()
    {
        for (int fd = 0; (fd = ::accept4(listener_.GetFd(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            ucred peer = {};
            socklen_t size = sizeof(peer);
            ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
            const std::lock_guard<std::mutex> lock(mutex_);
            peers_.emplace_back(peer.uid, peer.gid);
            serving_.push_back(std::async(std::launch::async, [this, &connection = connections_.emplace_back(fd)] {
                while (Serve(connection)) {
                }
                ::shutdown(connection.GetFd(), SHUT_RDWR);
            }));
        }
    }

    bool Serve(const RawSocket& connection)
    {
        constexpr size_t LONG = 65536;  // stays where it is
        if (connection.ReceiveFrame(LONG).size() < HEADER_SIZE) {
            return false;
        }
        ++requests_;
        std::unique_lock<std::mutex> lock(mutex_);
        const Reaction reaction = reaction_;
        lock.unlock();
        return reaction(connection);
    }

    const std::string path_;
    const RawServer listener_;
    mutable std::mutex mutex_;
    Reaction reaction_ = honestAnswer;            // guarded by mutex_
    std::vector<std::pair<uid_t, gid_t>> peers_;  // guarded by mutex_
    std::atomic<int> requests_{0};
    std::deque<RawSocket> connections_;
    std::deque<std::future<void>> serving_;  // each of which waits for its end
    std::thread accepting_;
};

std::string Changed(size_t position, const std::string& bytes)
{
    return MakeFrame(CODE, "body", 2).replace(position, bytes.size(), bytes);
}

class ClientAbuseTest : public HostTest {
protected:
    int32_t Ask(int32_t waitTime = 60, size_t bytes = 4, const sptr<IRemoteObject>& object = Load(4))
    {
        ++asked_;
        return Host::Ask(object, CODE, std::string(bytes, 'x'), waitTime).first;
    }

    // The next request is answered, on a connection of its own, and nothing was sent twice.
    void ExpectRecovery(HostileService& service)
    {
        service.Become(honestAnswer);
        const size_t before = service.Connections();
        EXPECT_EQ(0, Ask()) << Log();
        EXPECT_EQ(before + 1, service.Connections());
        EXPECT_EQ(asked_.load(), service.Requests());
    }

    void ExpectLogged(const std::string& text)
    {
        EXPECT_THAT(Log(), HasSubstr(text));
        log_.Clear();
    }

    std::atomic<int> asked_{0};
};

TEST_F(ClientAbuseTest, WrongReplies)
{
    constexpr uint32_t MOST = Parcel::kDefaultMaxCapacity;
    const struct {
        Reaction answer;
        int32_t expected;
        std::string reason;
    } cases[] = {
        {Writing(Changed(0, "v")), IPC_PROTOCOL_ERROR, "the magic is wrong"},
        {Writing(Changed(4, BytesOf(uint16_t{2}))), IPC_PROTOCOL_ERROR, "the version is unknown"},
        {Writing(Changed(6, BytesOf(uint16_t{1}))), IPC_PROTOCOL_ERROR, "it is not a reply"},
        {Writing(Changed(8, BytesOf(CODE + 1))), IPC_PROTOCOL_ERROR, "it answers another request"},
        {Writing(Changed(16, BytesOf(uint32_t{0}))), IPC_PROTOCOL_ERROR, "there are bytes behind it"},
        {Writing(Changed(16, BytesOf(UINT32_MAX))), IPC_TOO_LARGE, "the reply is longer than a parcel may be"},
        {Writing(Changed(16, BytesOf(MOST + 1))), IPC_TOO_LARGE, "the reply is longer than a parcel may be"},
        {Writing(Changed(16, BytesOf(MOST)), false), IPC_DEAD_OBJECT, "the service closed the conn"},
    };
    HostileService service(Path());
    EXPECT_EQ(0, Ask());
    ResetPeak(::getpid());
    const size_t peak = ReadSize(::getpid(), "VmHWM");
    for (const auto& hostile : cases) {
        SCOPED_TRACE(hostile.reason);
        service.Become(hostile.answer);
        EXPECT_EQ(hostile.expected, Ask());
        ExpectLogged("request 3 to " + Path() + " failed while receiving: " + hostile.reason);
        ExpectRecovery(service);
    }
    const std::string reply = MakeFrame(CODE, "12345678", 2);
    for (size_t size = 0; size < reply.size(); ++size) {
        service.Become(Writing(reply.substr(0, size), false));
        EXPECT_EQ(IPC_DEAD_OBJECT, Ask()) << "it ends at byte " << size;
    }
    EXPECT_LT(ReadSize(::getpid(), "VmHWM"), peak + size_t{8} * 1024 * 1024) << "an announced length took memory";
}

TEST_F(ClientAbuseTest, NothingLastsLongerThanTheWaitTime)
{
    HostileService service(Path());
    EXPECT_EQ(0, Ask(60));
    service.Become([](const auto& connection) { return !connection.Sees(POLLRDHUP); });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(IPC_TIMED_OUT, Ask(1)) << "silence";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "as long as the call before it";
    EXPECT_EQ(IPC_TIMED_OUT, Ask(1, 20000000)) << "a request that is not read";
    service.Become([](const auto& connection) {
        constexpr std::chrono::milliseconds PACE{20};
        const std::string reply = MakeFrame(CODE, std::string(100000, 'x'), 2);
        for (size_t sent = 0; !connection.Sees(POLLRDHUP, PACE); ++sent) {
            connection.Send(reply.substr(sent, 1));
        }
        return false;
    });
    EXPECT_EQ(IPC_TIMED_OUT, Ask(1)) << "a trickle";
    ExpectLogged("failed while receiving: Connection timed out (errno 110)");
    ExpectRecovery(service);
}

TEST_F(ClientAbuseTest, RequestWaitsWhileNoConnectionIsTaken)
{
    const RawServer service(Path());
    const sptr<IRemoteObject> object = Load();
    ASSERT_NE(nullptr, object);
    ::close(::accept(service.GetFd(), nullptr, nullptr));
    std::deque<RawClient> queue;
    for (int place = 0; place <= RawServer::BACKLOG; ++place) {
        queue.emplace_back(Path());
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(IPC_TIMED_OUT, Ask(1, 4, object));
    EXPECT_LE(std::chrono::seconds(1), std::chrono::steady_clock::now() - begin);
    ExpectLogged("failed while connecting: connect to " + Path() + ": Resource temporarily unavailable (errno 11)");
    std::filesystem::remove(Path());
}

TEST_F(ClientAbuseTest, BytesThatNobodyAskedFor)
{
    HostileService service(Path());
    std::promise<const RawSocket*> idle;
    service.Become([&idle](const auto& connection) {
        honestAnswer(connection);
        idle.set_value(&connection);
        return true;
    });
    EXPECT_EQ(0, Ask());
    EXPECT_TRUE(idle.get_future().get()->Send(MakeFrame(CODE, "not asked for", 2)));
    ExpectRecovery(service);
    ExpectLogged("a service sent bytes that nobody had asked for; the connection is dropped");
}

// The child's other descriptors get the numbers of those that the fork closed: nothing may be written there, and nobody
// else may close them, nor a child of the child. A connection is never taken for a closed standard error either.
TEST_F(ClientAbuseTest, ForkedChildHasAConnectionOfItsOwnAndWritesNowhereElse)
{
    HostileService service(Path());
    service.Become(Writing("", false));
    EXPECT_EQ(IPC_DEAD_OBJECT, Ask());
    const int reused = ::dup(STDIN_FILENO);  // has the number of the connection that ended
    service.Become(honestAnswer);
    EXPECT_EQ(0, Ask());
    const sptr<IRemoteObject> kept = Load(4);
    const int unused = ::dup(STDIN_FILENO);
    ::close(unused);
    const pid_t child = ::fork();
    if (child == 0) {
        bool isRight = ::fcntl(reused, F_GETFD) >= 0;
        int others[2] = {};
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, others);
        const RawSocket first(others[0]);
        const RawSocket second(others[1]);
        ::close(STDERR_FILENO);
        SetLogSink({});
        isRight = isRight && others[0] < unused && Ask(5, 4, kept) == 0;
        VoLogPrint(0, LOG_LEVEL_ERROR, 0, "TEST", "a line that nobody sees");
        isRight = isRight && Ask(5) == 0 && ::fcntl(STDERR_FILENO, F_GETFD) < 0;
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            ::_exit(first.Send("y") && second.Send("x") ? 0 : 1);
        }
        ::waitpid(grandchild, nullptr, 0);
        ::shutdown(others[0], SHUT_WR);
        ::shutdown(others[1], SHUT_WR);
        ::_exit(isRight && first.Receive(2) == "x" && second.Receive(2) == "y" ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, Ask());
    EXPECT_EQ(3U, service.Connections()) << "the parent's went on, the child made one";
    EXPECT_EQ(5, service.Requests());
    ::close(reused);
}

// All are in the service at once, while the lock of the client is held; afterwards one connection's end is not
// another's.
TEST_F(ClientAbuseTest, ThreadsShareWhatConnectGaveSideBySide)
{
    constexpr size_t THREADS = 4;
    HostileService service(Path());
    std::atomic<size_t> inside{0};
    service.Become([&inside](const auto& connection) {
        ++inside;
        return Eventually([&] { return inside == THREADS; }) && honestAnswer(connection);
    });
    SecurityPrivacyClient::GetInstance().WithSystemAbilityProxy([&](const auto&) {
        const sptr<SecurityPrivacyServiceIntf> shared = Connect(4).service;
        ASSERT_NE(nullptr, shared);
        std::vector<std::future<void>> threads(THREADS);
        for (std::future<void>& thread : threads) {
            thread =
                std::async(std::launch::async, [&] { EXPECT_EQ(0, Testing::CallOperation(*shared, CODE).result); });
        }
    });
    EXPECT_EQ(THREADS, service.Peers().size());
    const sptr<IRemoteObject> object = Load(4);
    service.Become(Writing("", false));
    EXPECT_EQ(IPC_DEAD_OBJECT, std::async(std::launch::async, [this] { return Ask(); }).get());
    EXPECT_FALSE(object->IsObjectDead()) << "another thread's failure";
    EXPECT_EQ(IPC_DEAD_OBJECT, Ask());
    EXPECT_TRUE(object->IsObjectDead());
    service.Become(honestAnswer);
    EXPECT_FALSE(Load(4)->IsObjectDead());
}

TEST_F(ClientAbuseTest, NoConnectionIsUsedAsSomebodyElseAndNoStrangerIsTrusted)
{
    constexpr uid_t NOBODY = 65534;
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may become another user";
    }
    {
        HostileService service(Path());
        EXPECT_EQ(0, ::chmod(Path().c_str(), 0777));
        const std::vector<std::pair<uid_t, gid_t>> users = {{0, 0}, {NOBODY, 0}, {NOBODY, NOBODY}, {0, NOBODY}, {0, 0}};
        for (const auto& [user, group] : users) {
            const AsUser other(user, group);
            EXPECT_EQ(0, Ask());
            EXPECT_EQ(0, Ask());
        }
        EXPECT_EQ(users, service.Peers());
    }
    const RawServer stranger(Path());
    {
        const AsUser other(NOBODY, 0);
        EXPECT_EQ(0, ::listen(stranger.GetFd(), 8));
    }
    EXPECT_EQ(nullptr, Load(4));
    std::filesystem::remove(Path());
    ExpectLogged("the service at " + Path() + " runs as user 65534, not as root or as user 0");
}

TEST_F(ClientAbuseTest, DescriptorsDoNotComeIn)
{
    HostileService service(Path());
    std::atomic<ssize_t> sent{0};
    service.Become([&sent](const auto& connection) {
        sent = SendDescriptor(connection.GetFd(), MakeFrame(CODE, "", 2), connection.GetFd());
        return sent > 0 || honestAnswer(connection);
    });
    EXPECT_EQ(0, Ask());
    EXPECT_EQ(CanRefuseDescriptors(RawClient(Path()).GetFd()), sent < 0);
}

}  // namespace
}  // namespace VARN::Host
