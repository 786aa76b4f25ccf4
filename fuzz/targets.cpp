// SPDX-License-Identifier: Apache-2.0
// What is fuzzed: each target takes the bytes of a run and ends the process when it finds something. FUZZ_TARGET names
// the one that this program feeds.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "host/server/connection.h"
#include "parcel_buffer.h"
#include "support/calls.h"
#include "varn/host/log_sink.h"

namespace VARN::Host {
namespace {

using namespace AppSecurityPrivacy::SecurityPrivacyServer;

// Lines are made, since making one is code under test as well, and not shown.
[[maybe_unused]] const bool isQuiet = (SetLogSink([](const LogLine&) {}), true);

// What is asked for beyond the end is 0.
template <class T>
T Take(std::string_view& input)
{
    T value = 0;
    const size_t size = std::min(sizeof(value), input.size());
    std::memcpy(&value, input.data(), size);
    input.remove_prefix(size);
    return value;
}

// Everything that is left, as the contents of a parcel.
void TakeParcel(std::string_view& input, Parcel& parcel)
{
    while (!input.empty()) {
        parcel.WriteInt32(Take<int32_t>(input));
    }
}

// Ends the run as a finding.
void Require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

// A read that fails leaves the cursor and its target; one that succeeds gives no more than was there.
template <class T>
void Check(Parcel& parcel, bool (Parcel::*read)(T&), T value)
{
    const T before = value;
    const size_t readable = parcel.GetReadableBytes();
    if ((parcel.*read)(value)) {
        Require(parcel.GetReadableBytes() < readable);
        if constexpr (!std::is_arithmetic_v<T>) {
            Require(value.size() < parcel.GetDataSize());
        }
    } else {
        Require(parcel.GetReadableBytes() == readable && value == before);
    }
}

constexpr void (*CHECKS[])(Parcel&) = {
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadBool, true); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadInt32, -7); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadInt64, int64_t{-7}); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadString, std::string("kept")); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadString16, std::u16string(u"kept")); },
};

// The first byte of the input says how many reads follow, each chosen by one byte; the rest is the parcel.
void FeedParcel(std::string_view input)
{
    const auto reads = Take<uint8_t>(input);
    std::string_view choices = input;
    input.remove_prefix(std::min<size_t>(reads, input.size()));
    // Lent, since what arrives need not be a multiple of a word.
    std::vector<uint8_t> contents(input.begin(), input.end());
    Parcel parcel;
    ParcelBuffer::Lend(parcel, contents.data(), contents.size());
    for (size_t index = 0; index < reads; ++index) {
        CHECKS[Take<uint8_t>(choices) % std::size(CHECKS)](parcel);
    }
}

// The first byte of the input is the request code, the second says whether the token is the right one; the rest are the
// arguments. Whatever they are, the stub answers with one of its statuses.
void FeedStub(std::string_view input)
{
    const uint32_t code = Take<uint8_t>(input) % 16;
    MessageParcel data;
    if (Take<uint8_t>(input) != 0) {
        data.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor());
    }
    TakeParcel(input, data);
    const sptr<Testing::FakeService> service(new Testing::FakeService());
    MessageParcel reply;
    MessageOption option;
    const int32_t status = service->SendRequest(code, data, reply, option);
    Require(status == 0 || status == 1 || status == 4 || status == 5 || status == 401);
    Require(service->Calls().size() == (status == 0 ? 1U : 0U));
}

// The first byte of the input chooses the operation; the rest is the reply. A record takes a presence word at least, so
// no reply gives more of them than it has words.
void FeedProxy(std::string_view input)
{
    const auto code = Take<uint8_t>(input);
    const size_t most = input.size() / sizeof(int32_t) + 1;
    const sptr<IRemoteObject> service(new ScriptedStub([&](uint32_t, auto&, auto& reply, auto&) {
        TakeParcel(input, reply);
        return 0;
    }));
    const Testing::Outcome outcome = Testing::CallOperation(*Testing::ProxyOver(service), code);
    const Testing::Outcome before;
    Require(outcome.groups.size() <= before.groups.size() + most);
    Require(outcome.records.size() <= before.records.size() + most);
    Require(outcome.rows.size() <= most);
}

constexpr size_t MAX_REQUEST_BYTES = 20000;

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

// The first byte of the input says whether the peer reads. Two words follow, the lengths of the pieces in which the
// rest comes, in turn. The first may be 0, an event without bytes; the second is one more than its word says.
void FeedConnection(std::string_view input)
{
    static std::array<char, 65536> sink;
    const bool doesRead = Take<uint8_t>(input) % 2 == 0;
    const size_t lengths[] = {Take<uint16_t>(input), size_t{1} + Take<uint16_t>(input)};
    std::array<int, 2> ends{};
    Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0);
    const UniqueFd peer(ends[1]);
    std::vector<uint32_t> executed;
    // Answers with as many bytes as the request asks for, so that long replies come up as well.
    const sptr<IPCObjectStub> echo(new ScriptedStub([&executed](uint32_t code, auto& data, auto& reply, auto&) {
        executed.push_back(code);
        reply.WriteString(data.ReadString());
        reply.WriteString(std::string(static_cast<size_t>(data.ReadInt32() & 0xFFFFF), 'x'));
        return static_cast<int32_t>(code);
    }));
    AbilityServerOptions options;
    options.maxRequestBytes = MAX_REQUEST_BYTES;
    // Bites on the longest replies when they are not read.
    options.maxWaitingReplyBytesPerUser = size_t{doesRead ? 2U : 1U} << 20;
    ServiceContext context(1, echo, options);
    Worker worker;
    Account account(1);
    std::atomic<int64_t> deadline{0};
    std::vector<uint8_t> sent;
    {
        Connection connection(context, PeerSocket(UniqueFd{ends[0]}), Caller{1, 1, 1}, account, deadline);
        auto next = Connection::Next::INPUT;
        for (size_t number = 0; next != Connection::Next::CLOSE && !input.empty(); ++number) {
            const std::string_view piece = input.substr(0, lengths[number % 2]);
            input.remove_prefix(piece.size());
            const ssize_t part = ::send(peer.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
            sent.insert(sent.end(), piece.begin(), piece.begin() + std::max<ssize_t>(part, 0));
            do {
                const size_t before = executed.size();
                next = connection.Serve(worker, input.empty());
                Require(executed.size() <= before + 1);
                while (doesRead && ::recv(peer.Get(), sink.data(), sink.size(), 0) > 0) {
                }
            } while (next == Connection::Next::TURN || (doesRead && next == Connection::Next::OUTPUT));
            Require(next == Connection::Next::CLOSE || !connection.HasOutput() || deadline != 0);
        }
    }
    // What was not sent counts too: a connection must not end before it has to.
    sent.insert(sent.end(), input.begin(), input.end());
    const std::vector<uint32_t> expected = Expected(sent);
    Require(executed.size() <= expected.size() && (!doesRead || executed.size() == expected.size()));
    Require(std::equal(executed.begin(), executed.end(), expected.begin()));
    Require(account.bytes == 0 && account.replyBytes == 0 && account.requestBytes == 0 && deadline == 0);
}

using Feed = void (*)(std::string_view input);
const std::map<std::string, Feed> targets = {
    {"parcel", FeedParcel}, {"stub", FeedStub}, {"proxy", FeedProxy}, {"connection", FeedConnection}};

}  // namespace
}  // namespace VARN::Host

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static const VARN::Host::Feed feed = VARN::Host::targets.at(std::getenv("FUZZ_TARGET"));
    feed({reinterpret_cast<const char*>(bytes), size});
    return 0;
}
