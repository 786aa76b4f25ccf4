// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <vector>

#include "fuzz/input.h"
#include "host/server/connection.h"

namespace {

using namespace VARN;
using namespace VARN::Host;

constexpr size_t MAX_REQUEST_BYTES = 20000;

// Answers with as many bytes as the request asks for, so that long replies come up as well.
class Echo : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        executed.push_back(code);
        reply.WriteString(data.ReadString());
        reply.WriteString(std::string(static_cast<size_t>(data.ReadInt32() & 0xFFFFF), 'x'));
        return static_cast<int32_t>(code);
    }

    std::vector<uint32_t> executed;
};

// What is to come of the bytes, however they were cut: the requests before the first that is none or is not whole.
std::vector<uint32_t> Expected(const std::vector<uint8_t>& bytes)
{
    std::vector<uint32_t> codes;
    FrameHeader header;
    for (size_t at = 0; bytes.size() - at >= sizeof(header); at += sizeof(header) + header.length) {
        std::memcpy(&header, &bytes[at], sizeof(header));
        if (header.Check(FrameKind::REQUEST) != nullptr || header.length > MAX_REQUEST_BYTES ||
            bytes.size() - at - sizeof(header) < header.length) {
            break;
        }
        codes.push_back(header.code);
    }
    return codes;
}

}  // namespace

// The first byte of the input says whether the peer reads; then follow pieces, each behind a word with its length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static std::array<char, 65536> sink;
    std::string_view input = fuzz::MakeInput(bytes, size);
    const bool doesRead = fuzz::Take<uint8_t>(input) % 2 == 0;
    std::array<int, 2> ends{};
    fuzz::Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0);
    const UniqueFd peer(ends[1]);
    const sptr<Echo> echo(new Echo);
    AbilityServerOptions options;
    options.maxRequestBytes = MAX_REQUEST_BYTES;
    // Bites on the longest replies when they are not read.
    options.maxWaitingReplyBytesPerUser = size_t{doesRead ? 2U : 1U} << 20;
    ServiceContext context(1, echo, options);
    Running running;
    WorkerBuffers buffers(running);
    Account account(1);
    std::atomic<int64_t> deadline{0};
    std::vector<uint8_t> sent;
    {
        Connection connection(context, PeerSocket(UniqueFd{ends[0]}), Caller{1, 1, 1}, account, deadline);
        auto next = Connection::Next::INPUT;
        while (next != Connection::Next::CLOSE && !input.empty()) {
            const auto length = fuzz::Take<uint16_t>(input);
            const std::string_view piece = input.substr(0, length);
            input.remove_prefix(piece.size());
            const ssize_t part = ::send(peer.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
            sent.insert(sent.end(), piece.begin(), piece.begin() + std::max<ssize_t>(part, 0));
            do {
                const size_t before = echo->executed.size();
                next = connection.Serve(buffers, input.empty());
                fuzz::Require(echo->executed.size() <= before + 1);
                while (doesRead && ::recv(peer.Get(), sink.data(), sink.size(), 0) > 0) {
                }
            } while (next == Connection::Next::TURN || (doesRead && next == Connection::Next::OUTPUT));
            fuzz::Require(next == Connection::Next::CLOSE || !connection.HasOutput() || deadline != 0);
        }
    }
    const std::vector<uint32_t> expected = Expected(sent);
    fuzz::Require(echo->executed.size() <= expected.size() && (!doesRead || echo->executed.size() == expected.size()));
    fuzz::Require(std::equal(echo->executed.begin(), echo->executed.end(), expected.begin()));
    fuzz::Require(account.bytes == 0 && account.replyBytes == 0 && account.requestBytes == 0 && deadline == 0);
    return 0;
}
