// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "fuzz/input.h"
#include "host/connection.h"
#include "varn/host/log_sink.h"

namespace {

using VARN::MessageParcel;
using namespace VARN::Host;

// Answers with as many words as the request asks for, so that long replies come up as well.
class Echo : public VARN::IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, VARN::MessageOption&) override
    {
        const std::string text = data.ReadString();
        const int32_t words = data.ReadInt32() & 0x3FFFF;
        reply.WriteString(text);
        for (int32_t word = 0; word < words; ++word) {
            reply.WriteInt32(word);
        }
        return static_cast<int32_t>(code);
    }
};

// However a frame is cut, the reader ends in the same state.
void CheckPieces(const uint8_t* bytes, size_t size)
{
    constexpr size_t LIMIT = 4096;
    FrameReader whole(LIMIT);
    FrameReader pieces(LIMIT);
    size_t taken = 0;
    const FrameReader::State state = whole.Feed(bytes, size, taken);
    size_t position = 0;
    FrameReader::State last = FrameReader::State::PARTIAL;
    while (position < size && last == FrameReader::State::PARTIAL) {
        size_t part = 0;
        last = pieces.Feed(bytes + position, size - position < 3 ? 1 : 3, part);
        position += part;
    }
    fuzz::Require(last == state && position == taken);
    fuzz::Require(whole.GetBody().GetDataSize() == pieces.GetBody().GetDataSize());
}

}  // namespace

// The first byte of the input says whether the peer reads; then follow pieces, each behind a byte with its length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static const bool isQuiet = (SetLogSink([](const LogLine&) {}), true);
    CheckPieces(bytes, size);
    std::array<int, 2> ends{};
    fuzz::Require(isQuiet && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0);
    const UniqueFd peer(ends[1]);
    AbilityServerOptions options;
    options.maxRequestBytes = 4096;
    options.maxWaitingReplyBytesPerUser = size_t{1} << 20;
    ServiceContext context{VARN::sptr<VARN::IPCObjectStub>(new Echo), options, RefusalLog(1)};
    WorkerBuffers buffers;
    UserAccount account;
    std::atomic<int64_t> deadline{0};
    {
        Connection connection(UniqueFd{ends[0]}, Caller{1, 1, 1}, account, deadline);
        fuzz::Input input(bytes, size);
        const bool doesRead = input.TakeByte() % 2 == 0;
        auto next = Connection::Next::INPUT;
        while (next != Connection::Next::CLOSE && input.GetSize() != 0) {
            fuzz::Input piece = input;
            const size_t length = piece.TakeByte();
            const uint8_t* from = piece.GetBytes();
            const size_t there = piece.Skip(length);
            input = piece;
            if (::send(peer.Get(), from, there, MSG_NOSIGNAL) < 0) {
                break;
            }
            next = Connection::Next::TURN;
            for (int turn = 0; turn < 1000 && next == Connection::Next::TURN; ++turn) {
                next = connection.Serve(context, buffers, input.GetSize() == 0);
                std::array<char, 65536> sink{};
                while (doesRead && ::recv(peer.Get(), sink.data(), sink.size(), 0) > 0) {
                }
            }
            // Whatever it waits for in a hurry has its deadline, and nothing else has one.
            fuzz::Require(next == Connection::Next::CLOSE || !connection.HasOutput() || deadline != 0);
        }
    }
    fuzz::Require(account.waitingReplyBytes == 0 && deadline == 0);
    return 0;
}
