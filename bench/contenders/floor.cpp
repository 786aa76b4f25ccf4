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

class FloorClient final : public Client {
public:
    FloorClient(const std::string& directory, const Workload& workload)
        : socket_(ConnectTo(directory)), request_(MakeMessage(workload.requestBytes))
    {
    }

    void Call() override { socket_.Call(request_); }
    void Forget() override {}
    bool IsAnswerRight() const override { return true; }

private:
    MessageSocket socket_;
    const std::string request_;
};

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    const std::string reply = MakeMessage(workload.replyBytes);
    const int listener = ListenAt(directory);
    AnnounceReady();
    ServeOnThreads(listener, [&reply](int descriptor) {
        MessageSocket(descriptor).Serve([&reply](std::string_view) { return std::string_view(reply); });
    });
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return std::make_unique<FloorClient>(directory, workload);
}

}  // namespace bench
