// SPDX-License-Identifier: Apache-2.0
#include "host/log/standard_error.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <string>

#include "host/base/unique_fd.h"

namespace VARN::Host {

namespace {

// Writes if standard error is ready. A pipe then has room for a page, unless another writer comes first.
ssize_t WriteIfReady(std::string_view text) noexcept
{
    pollfd entry = {STDERR_FILENO, POLLOUT, 0};
    const bool isReady = ::poll(&entry, 1, 0) == 1 && entry.revents == POLLOUT;
    return isReady ? ::write(STDERR_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF)) : -1;
}

// A terminal that is nearly full is ready, and has its writer wait all the same. So it is opened anew, for not waiting.
ssize_t WriteToTerminal(std::string_view text) noexcept
{
    const UniqueFd own(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return own ? ::write(own.Get(), text.data(), text.size()) : WriteIfReady(text);
}

// Writes what is taken at once. Where this kernel cannot, `other` does.
ssize_t WriteAtOnce(std::string_view text, ssize_t (*other)(std::string_view)) noexcept
{
    const iovec piece = {const_cast<char*>(text.data()), text.size()};
    const ssize_t written = ::pwritev2(STDERR_FILENO, &piece, 1, -1, RWF_NOWAIT);
    const bool isUnknown = written < 0 && (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL);
    return isUnknown ? other(text) : written;
}

// The same, but a pipe without a reader fails and does nothing else: SIGPIPE is held back, and taken away if the write
// brought it.
ssize_t WriteToPipe(std::string_view text) noexcept
{
    constexpr timespec AT_ONCE = {};
    sigset_t pipe;
    sigset_t pending;
    sigset_t before;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    const bool wasPending = ::sigpending(&pending) == 0 && ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &pipe, &before);
    const ssize_t written = WriteAtOnce(text, WriteIfReady);
    if (!wasPending) {
        while (::sigtimedwait(&pipe, nullptr, &AT_ONCE) < 0 && errno == EINTR) {
        }
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written;
}

}  // namespace

size_t WriteToStandardError(std::string_view text) noexcept
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0) {
        return 0;
    }
    ssize_t written = -1;
    if (S_ISSOCK(status.st_mode)) {
        written = ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (S_ISFIFO(status.st_mode)) {
        written = WriteToPipe(text);
    } else if (S_ISCHR(status.st_mode)) {
        written = WriteAtOnce(text, WriteToTerminal);
    } else {
        written = ::write(STDERR_FILENO, text.data(), text.size());
    }
    return written < 0 ? 0 : static_cast<size_t>(written);
}

bool IsJournal()
{
    static const bool isJournal = [] {
        const char* stream = std::getenv("JOURNAL_STREAM");
        struct stat status = {};
        return stream != nullptr && ::fstat(STDERR_FILENO, &status) == 0 &&
               std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
    }();
    return isJournal;
}

}  // namespace VARN::Host
