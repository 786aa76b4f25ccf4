// SPDX-License-Identifier: Apache-2.0
#include "faults/interposer.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace VARN::Host {
namespace {

std::atomic<const char*> armedCall{nullptr};
std::atomic<int> armedError{0};
std::atomic<int> countdown{0};

// What is to happen to this call: 0, an errno (set already) or COMES_SHORT.
int Strike(const char* call)
{
    const char* armed = armedCall.load();
    if (armed == nullptr || std::strcmp(armed, call) != 0 || countdown.fetch_sub(1) != 1) {
        return 0;
    }
    const int error = armedError.load();
    errno = error != COMES_SHORT ? error : errno;
    return error;
}

}  // namespace

void Arm(const char* call, int error, int number)
{
    armedError = error;
    countdown = number;
    armedCall = call;
}

bool Disarm()
{
    armedCall = nullptr;
    return countdown.load() <= 0;
}

}  // namespace VARN::Host

using VARN::Host::COMES_SHORT;
using VARN::Host::Strike;

// The function of that name behind this one: the C library's, or a sanitizer's in front of it.
#define REAL(name) static const auto real = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))

#define INTERPOSE(name, exceptions, parameters, ...)   \
    extern "C" int name parameters exceptions          \
    {                                                  \
        REAL(name);                                    \
        return Strike(#name) ? -1 : real(__VA_ARGS__); \
    }

#define THROWS
INTERPOSE(accept4, THROWS, (int fd, sockaddr* address, socklen_t* size, int flags), fd, address, size, flags)
INTERPOSE(bind, __THROW, (int fd, const sockaddr* address, socklen_t size), fd, address, size)
INTERPOSE(fchmodat, __THROW, (int folder, const char* path, mode_t mode, int flags), folder, path, mode, flags)
INTERPOSE(connect, THROWS, (int fd, const sockaddr* address, socklen_t size), fd, address, size)
INTERPOSE(epoll_create1, __THROW, (int flags), flags)
INTERPOSE(epoll_ctl, __THROW, (int set, int operation, int fd, epoll_event* event), set, operation, fd, event)
INTERPOSE(epoll_wait, THROWS, (int set, epoll_event* events, int room, int time), set, events, room, time)
INTERPOSE(eventfd, __THROW, (unsigned count, int flags), count, flags)
INTERPOSE(flock, __THROW, (int fd, int operation), fd, operation)
INTERPOSE(getsockopt, __THROW, (int fd, int level, int option, void* value, socklen_t* size), fd, level, option, value,
          size)
INTERPOSE(listen, __THROW, (int fd, int backlog), fd, backlog)
INTERPOSE(poll, THROWS, (pollfd * entries, nfds_t count, int time), entries, count, time)
INTERPOSE(setsockopt, __THROW, (int fd, int level, int option, const void* value, socklen_t size), fd, level, option,
          value, size)
INTERPOSE(socket, __THROW, (int domain, int type, int protocol), domain, type, protocol)
INTERPOSE(stat, __THROW, (const char* path, struct stat* status), path, status)

extern "C" ssize_t recv(int fd, void* to, size_t room, int flags)
{
    REAL(recv);
    const int strike = Strike("recv");
    return strike > 0 ? -1 : real(fd, to, strike == COMES_SHORT ? std::min<size_t>(room, 1) : room, flags);
}

extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    REAL(sendmsg);
    const int strike = Strike("sendmsg");
    msghdr copy = *message;
    iovec piece = message->msg_iov[0].iov_len > 0 ? message->msg_iov[0] : message->msg_iov[1];
    if (strike == COMES_SHORT) {
        piece.iov_len = std::min<size_t>(piece.iov_len, 1);
        copy.msg_iov = &piece;
        copy.msg_iovlen = 1;
    }
    return strike > 0 ? -1 : real(fd, &copy, flags);
}

#if defined(INTERPOSES_THREADS)
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*run)(void*), void* with) __THROWNL
{
    REAL(pthread_create);
    const int error = Strike("pthread_create");
    return error != 0 ? error : real(thread, how, run, with);
}
#endif

#if defined(INTERPOSES_MALLOC)
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);

extern "C" void* malloc(size_t size)
{
    return Strike("malloc") ? nullptr : __libc_malloc(size);
}

extern "C" void* realloc(void* memory, size_t size)
{
    return Strike("realloc") ? nullptr : __libc_realloc(memory, size);
}

// Not by way of the malloc above: who calls this does not expect null.
void* operator new(size_t size)
{
    void* memory = __libc_malloc(std::max<size_t>(size, 1));
    return memory != nullptr ? memory : throw std::bad_alloc();
}
#endif
