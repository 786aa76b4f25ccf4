// SPDX-License-Identifier: Apache-2.0
// The floor with the plain codec: what one would write by hand instead of using a library. Built twice: `floor-codec`
// writes the records from where the service keeps them; `floor-list` has the service fill a list first, as our
// interface has it.
#include <stdexcept>
#include <string>

#include "bench/contenders/plain_codec.h"
#include "bench/contenders/unix_socket.h"
#include "bench/typed_client.h"

namespace bench {
namespace {

using plain::Reader;
using plain::Writer;

// A message begins with its operation.
template <class Request>
constexpr uint32_t kOperation = 0;
template <>
constexpr uint32_t kOperation<InfoRequest> = 1;
template <>
constexpr uint32_t kOperation<SetRequest> = 2;
template <>
constexpr uint32_t kOperation<UsageRequest> = 3;
template <>
constexpr uint32_t kOperation<RowRequest> = 4;

class FloorCodecPeer : public PlainTypes {
public:
    explicit FloorCodecPeer(const std::string& directory) : socket_(ConnectTo(directory)) {}

    template <class Request, class Answer>
    void Ask(const Request& request, Answer& answer)
    {
        writer_.Begin();
        writer_.Put(kOperation<Request>);
        writer_.Put(request);
        Reader reader(socket_.Call(writer_.Finish()));
        int32_t result = 0;
        reader.Get(result);
        if (result != 0) {
            throw std::runtime_error("the request failed");
        }
        reader.Get(answer);
    }

private:
    MessageSocket socket_;
    Writer writer_;
};

template <class Request, class Answer>
void Reply(Reader& reader, Writer& writer, const Answer& kept)
{
    {
        Request request;
        reader.Get(request);
    }
    if constexpr (BENCH_FILLS_LIST) {
        writer.Put(Answer(kept));
    } else {
        writer.Put(kept);
    }
}

void Handle(const Answers& answers, std::string_view message, Writer& writer)
{
    Reader reader(message);
    uint32_t operation = 0;
    reader.Get(operation);
    writer.Begin();
    writer.Put(int32_t{0});
    switch (operation) {
        case kOperation<InfoRequest>:
            return Reply<InfoRequest>(reader, writer, answers.infos);
        case kOperation<SetRequest>:
            return Reply<SetRequest>(reader, writer, answers.isSet);
        case kOperation<UsageRequest>:
            return Reply<UsageRequest>(reader, writer, answers.usages);
        case kOperation<RowRequest>:
            return Reply<RowRequest>(reader, writer, answers.rows);
        default:
            throw std::runtime_error("no such operation");
    }
}

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    const Answers answers(workload);
    const int listener = ListenAt(directory);
    AnnounceReady();
    ServeOnThreads(listener, [&answers](int descriptor) {
        Writer writer;
        MessageSocket(descriptor).Serve([&answers, &writer](std::string_view message) {
            Handle(answers, message, writer);
            return writer.Finish();
        });
    });
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return std::make_unique<TypedClient<FloorCodecPeer>>(directory, workload);
}

}  // namespace bench
