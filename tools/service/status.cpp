// SPDX-License-Identifier: Apache-2.0
//
// A worker appends a line for its finished request to what each watcher is still to be sent, if there is room, and
// wakes the thread, which gives the sockets what they take. Whatever does not fit is counted. So memory and the time
// that a worker spends here are bounded, however slow a watcher is.
#include "service/status.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <system_error>

#include "security_privacy/security_privacy_service_intf.h"
#include "security_privacy/version.h"

namespace SecurityPrivacyTools {
namespace {

using MessageCode = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf::MessageCode;
using nlohmann::ordered_json;
using namespace std::chrono_literals;

constexpr size_t MAX_WATCHERS = 16;
constexpr size_t MAX_PENDING_BYTES = size_t{256} * 1024;
constexpr int BACKLOG = 16;

std::string LostLine(uint64_t count)
{
    return "{\"lost\":" + std::to_string(count) + "}\n";
}

bool MayWatch(int socket)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

ordered_json Holdings(const VARN::Host::ServerStatistics& statistics)
{
    ordered_json users = ordered_json::array();
    for (const VARN::Host::UserStatistics& user : statistics.users) {
        users.push_back({{"uid", user.uid},
                         {"connections", user.connections},
                         {"requestBytes", user.requestBytes},
                         {"replyBytes", user.replyBytes},
                         {"workersAtWork", user.workersAtWork},
                         {"waiting", user.waiting},
                         {"refused", user.refused}});
    }
    return {{"connections", statistics.connections},
            {"requestBytes", statistics.requestBytes},
            {"replyBytes", statistics.replyBytes},
            {"workers", statistics.workers},
            {"workersAtWork", statistics.workersAtWork},
            {"workersStuck", statistics.workersStuck},
            {"waiting", statistics.waiting},
            {"refused", statistics.refused},
            {"users", users}};
}

std::string Line(const VARN::Host::Transaction& transaction)
{
    const ordered_json line{{"time", Now()},
                            {"uid", transaction.caller.uid},
                            {"pid", transaction.caller.pid},
                            {"name", MessageCode::ToString(transaction.code)},
                            {"code", transaction.code},
                            {"bytesIn", transaction.requestBytes},
                            {"bytesOut", transaction.replyBytes},
                            {"status", transaction.status},
                            {"durationUs", transaction.duration / 1us}};
    return line.dump() + "\n";
}

}  // namespace

int64_t Now()
{
    return std::chrono::system_clock::now().time_since_epoch() / 1ms;
}

void Status::Count(const VARN::Host::Transaction& transaction)
{
    const bool isKnown = MessageCode::ToString(transaction.code) != "UNKNOWN";
    const std::lock_guard<std::mutex> lock(mutex_);
    Counter& counter = counters_[isKnown ? transaction.code : 0];
    ++counter.requests;
    counter.errors += transaction.status != 0 ? 1 : 0;
    counter.requestBytes += transaction.requestBytes;
    counter.replyBytes += transaction.replyBytes;
    counter.total += transaction.duration;
    counter.longest = std::max(counter.longest, transaction.duration);
    const std::string line = watchers_.empty() ? "" : Line(transaction);
    for (Watcher& watcher : watchers_) {
        if (watcher.pending.size() + line.size() > MAX_PENDING_BYTES) {
            ++watcher.lost;
            continue;
        }
        // With something pending, the thread is on its way already.
        if (watcher.pending.empty()) {
            ::eventfd_write(wake_, 1);
        }
        if (watcher.lost != 0) {
            watcher.pending += LostLine(std::exchange(watcher.lost, 0));
        }
        watcher.pending += line;
    }
}

std::string Status::Document() const
{
    std::unique_lock<std::mutex> lock(mutex_);
    const std::map<uint32_t, Counter> counters = counters_;
    lock.unlock();
    ordered_json requests = ordered_json::array();
    for (const auto& [code, counter] : counters) {
        requests.push_back({{"name", MessageCode::ToString(code)},
                            {"code", code},
                            {"count", counter.requests},
                            {"errors", counter.errors},
                            {"bytesIn", counter.requestBytes},
                            {"bytesOut", counter.replyBytes},
                            {"totalUs", counter.total / 1us},
                            {"longestUs", counter.longest / 1us}});
    }
    const ordered_json document{{"service", "security-privacy-service"},
                                {"version", SECURITY_PRIVACY_VERSION},
                                {"pid", ::getpid()},
                                {"startedAt", startedAt_},
                                {"time", Now()},
                                {"requests", requests},
                                {"server", Holdings(statistics_())}};
    return document.dump();
}

Status::~Status()
{
    if (thread_.joinable()) {
        isStopping_ = true;
        ::eventfd_write(wake_, 1);
        thread_.join();
    }
    // Each fails, and no more, where there is nothing.
    ::close(listener_);
    ::close(wake_);
    ::unlink(path_.c_str());
}

void Status::Serve(int listener, const std::string& path)
{
    listener_ = listener;
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_ < 0 || (listener_ < 0 && !Bind(path)) || ::fcntl(listener_, F_SETFL, O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    thread_ = std::thread(&Status::Run, this);
}

bool Status::Bind(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    path.copy(address.sun_path, path.size());
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // The server of the requests owns the name: what is in its place was left behind. The mode is set before anybody
    // can see the file.
    if (listener_ < 0 || ::fchmod(listener_, S_IRUSR | S_IWUSR) != 0 ||
        (::unlink(path.c_str()) != 0 && errno != ENOENT) ||
        ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return false;
    }
    path_ = path;
    return ::listen(listener_, BACKLOG) == 0;
}

void Status::Run()
{
    while (!isStopping_) {
        std::vector<pollfd> polled{{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
        std::unique_lock<std::mutex> lock(mutex_);
        for (const Watcher& watcher : watchers_) {
            polled.push_back({watcher.socket, static_cast<short>(watcher.pending.empty() ? 0 : POLLOUT), 0});
        }
        lock.unlock();
        ::poll(polled.data(), polled.size(), -1);
        eventfd_t woken = 0;
        ::eventfd_read(wake_, &woken);
        lock.lock();
        for (size_t index = watchers_.size(); index > 0; --index) {
            const bool hasHungUp = (polled[index + 1].revents & (POLLHUP | POLLERR)) != 0;
            if (hasHungUp || !Flush(watchers_[index - 1])) {
                ::close(watchers_[index - 1].socket);
                watchers_.erase(watchers_.begin() + static_cast<std::ptrdiff_t>(index - 1));
            }
        }
        lock.unlock();
        if (polled[1].revents != 0) {
            Accept();
        }
    }
    for (const Watcher& watcher : watchers_) {
        ::close(watcher.socket);
    }
}

void Status::Accept()
{
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0) {
        // Out of descriptors, perhaps: the connection stays where it is, and must not keep this thread busy.
        std::this_thread::sleep_for(100ms);
        return;
    }
    if (watchers_.size() == MAX_WATCHERS || !MayWatch(socket)) {
        ::close(socket);
        return;
    }
    // Nothing that it sends is ever taken in.
    ::shutdown(socket, SHUT_RD);
    Watcher watcher{socket, Document() + "\n", 0};
    const std::lock_guard<std::mutex> lock(mutex_);
    watchers_.push_back(std::move(watcher));
}

bool Status::Flush(Watcher& watcher)
{
    for (;;) {
        if (watcher.pending.empty() && watcher.lost != 0) {
            watcher.pending = LostLine(std::exchange(watcher.lost, 0));
        }
        if (watcher.pending.empty()) {
            return true;
        }
        const ssize_t sent =
            ::send(watcher.socket, watcher.pending.data(), watcher.pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        watcher.pending.erase(0, static_cast<size_t>(sent));
    }
}

}  // namespace SecurityPrivacyTools
