// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

std::string SocketPath(const std::string& directory);

// Listens in `directory`, announces that, and accepts for ever; each connection gets a thread that runs `handle` and
// owns the descriptor.
[[noreturn]] void ServeOnThreads(const std::string& directory, const std::function<void(int)>& handle);

// One end of a connection with blocking reads and writes. Messages go back and forth in turn; each begins with its
// length in all, in 4 bytes, so that a short message takes one read and one write.
class MessageSocket {
public:
    explicit MessageSocket(int descriptor) : descriptor_(descriptor), buffer_(kFirstBuffer) {}
    // Connects; throws when the system refuses.
    explicit MessageSocket(const std::string& directory);
    ~MessageSocket();

    MessageSocket(const MessageSocket&) = delete;
    MessageSocket& operator=(const MessageSocket&) = delete;

    // Sends a request; the reply with its length, valid until the next call. Throws when the peer is gone.
    std::string_view Call(std::string_view request);

    // Sends what `answer` makes of each message until the peer is gone.
    template <class Answer>
    void Serve(Answer answer)
    {
        for (auto message = Receive(); !message.empty() && Send(answer(message)); message = Receive()) {
        }
    }

private:
    // Empty when the peer is gone.
    std::string_view Receive();

    // False when the peer is gone.
    bool Send(std::string_view message) const;

    static constexpr size_t kFirstBuffer = size_t{64} * 1024;

    const int descriptor_;
    std::vector<char> buffer_;  // never shrinks
};

}  // namespace bench
