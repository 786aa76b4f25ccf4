// SPDX-License-Identifier: Apache-2.0
// What the kernel charges for two messages: as many bytes as ours, there and back, with nothing in them.
#include <algorithm>
#include <cstring>
#include <string>

#include "bench/contenders/unix_socket.h"
#include "bench/harness.h"

namespace bench {
namespace {

std::string MakeMessage(size_t bytes)
{
    std::string message(std::max(bytes, sizeof(uint32_t)), 'x');
    const auto length = static_cast<uint32_t>(message.size());
    std::memcpy(message.data(), &length, sizeof(length));
    return message;
}

class Peer {
public:
    explicit Peer(const Workload& workload) : socket_(workload.directory), request_(MakeMessage(workload.requestBytes))
    {
    }

    template <class Request>
    bool Ask(const Request&)
    {
        return !socket_.Call(request_).empty();
    }

private:
    MessageSocket socket_;
    const std::string request_;
};

}  // namespace

void Serve(const Workload& workload)
{
    const std::string reply = MakeMessage(workload.replyBytes);
    ServeOnThreads(workload.directory, [&reply](int descriptor) {
        MessageSocket(descriptor).Serve([&reply](std::string_view) { return std::string_view(reply); });
    });
}

std::unique_ptr<Client> Connect(const Workload& workload)
{
    return MakeClient<Peer, InfoRequest, SetRequest, UsageRequest, RowRequest>(workload);
}

}  // namespace bench
