// SPDX-License-Identifier: Apache-2.0
// What the kernel charges for two messages: as many bytes as ours, there and back, with nothing in them.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/contender.h"
#include "bench/contenders/unix_socket.h"

namespace bench {
namespace {

std::string MakeMessage(size_t bytes)
{
    std::string message(std::max(bytes, sizeof(uint32_t)), 'x');
    const auto length = static_cast<uint32_t>(message.size());
    std::memcpy(message.data(), &length, sizeof(length));
    return message;
}

class FloorClient final : public Client {
public:
    FloorClient(const std::string& directory, const Workload& workload)
        : socket_(ConnectTo(SocketPath(directory))), request_(MakeMessage(workload.requestBytes))
    {
    }

    void Call() override
    {
        if (!socket_.Send(request_) || socket_.Receive().empty()) {
            throw std::runtime_error("the server is gone");
        }
    }

    bool IsAnswerRight() const override { return true; }

private:
    MessageSocket socket_;
    const std::string request_;
};

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    const std::string reply = MakeMessage(workload.replyBytes);
    const int listener = ListenOn(SocketPath(directory));
    AnnounceReady();
    ServeOnThreads(listener, [&reply](int descriptor) {
        MessageSocket socket(descriptor);
        while (!socket.Receive().empty() && socket.Send(reply)) {
        }
    });
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return std::make_unique<FloorClient>(directory, workload);
}

}  // namespace bench
