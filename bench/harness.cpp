// SPDX-License-Identifier: Apache-2.0
// The program around every contender:
//
//   serve DIRECTORY CASE RECORDS REQUEST_BYTES REPLY_BYTES   prints "ready", serves until it is ended
//   call DIRECTORY CASE RECORDS REQUEST_BYTES REPLY_BYTES    prints "ready", then answers commands on standard input
//
// Commands of `call`, each answered by a line:
//
//   run MILLISECONDS   calls for that long, at least kLeastCalls times: "<calls> <elapsed> <median> <p99>", times in ns
//   work CALLS         calls that often: the same of this thread's CPU time, the disposal of answers not counted
//   times CALLS        calls that often: "done"
#include <sys/prctl.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>
#include <iostream>
#include <numeric>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "bench/harness.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kLeastCalls = 5;
constexpr size_t kMostCalls = 200000;
// Enough for the buffers, the allocator and the branch predictor to know the workload.
constexpr std::chrono::milliseconds kWarmUp{20};

// Calls until `duration` is over; the times of the calls, in nanoseconds.
void CallFor(const std::function<void()>& call, Clock::duration duration, std::vector<uint32_t>& times)
{
    times.clear();
    const auto end = Clock::now() + duration;
    for (auto before = Clock::now(); times.size() < kMostCalls && (before < end || times.size() < kLeastCalls);) {
        call();
        const auto after = Clock::now();
        times.push_back(static_cast<uint32_t>(std::chrono::nanoseconds(after - before).count()));
        before = after;
    }
}

uint32_t CpuNanoseconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<uint32_t>(time.tv_sec * 1000000000 + time.tv_nsec);  // a difference survives that it wraps
}

// The CPU times of so many calls, without the disposal of their answers.
void Work(const std::function<void()>& call, const std::function<void()>& forget, uint64_t calls,
          std::vector<uint32_t>& times)
{
    times.clear();
    while (times.size() < calls) {
        forget();
        const uint32_t before = CpuNanoseconds();
        call();
        times.push_back(CpuNanoseconds() - before);
    }
}

int Check(int result, const char* step)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
    return result;
}

}  // namespace

void Obey(const std::function<void()>& call, const std::function<void()>& forget)
{
    std::vector<uint32_t> times;
    CallFor(call, kWarmUp, times);
    AnnounceReady();

    std::string command;
    uint64_t number = 0;
    while (std::cin >> command >> number) {
        if (command == "times") {
            for (uint64_t calls = 0; calls < number; ++calls) {
                call();
            }
            std::cout << "done" << std::endl;
            continue;
        }
        if (command == "run") {
            CallFor(call, std::chrono::milliseconds(number), times);
        } else {
            Work(call, forget, number, times);
        }
        std::sort(times.begin(), times.end());
        std::cout << times.size() << ' ' << std::accumulate(times.begin(), times.end(), uint64_t{0}) << ' '
                  << times.at(times.size() / 2) << ' ' << times.at(times.size() * 99 / 100) << std::endl;
    }
}

void AnnounceReady()
{
    std::cout << "ready" << std::endl;
}

int SocketWith(decltype(connect)* attach, const std::string& path)
{
    sockaddr_un address{AF_UNIX, {}};
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    path.copy(address.sun_path, path.size());
    const int descriptor = Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    Check(attach(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), path.c_str());
    return descriptor;
}

void ServeOnThreads(const std::string& path, const std::function<void(int)>& handle)
{
    const int listener = SocketWith(bind, path);
    Check(listen(listener, SOMAXCONN), "listen");
    AnnounceReady();
    for (;;) {
        std::thread(handle, Check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept")).detach();
    }
}

}  // namespace bench

int main(int argc, char** argv)
try {
    using namespace bench;
    if (argc != 7) {
        std::cerr << "serve|call DIRECTORY CASE RECORDS REQUEST_BYTES REPLY_BYTES\n";
        return 2;
    }
    // No process is left behind when the driver ends.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Workload workload{argv[2], MakeRequest(argv[3]), std::stoul(argv[4]), std::stoul(argv[5]),
                            std::stoul(argv[6])};
    (argv[1] == std::string("serve") ? Serve : Connect)(workload);
    return 0;
} catch (const std::exception& exception) {
    std::cerr << argv[0] << ": " << exception.what() << '\n';
    return 1;
}
