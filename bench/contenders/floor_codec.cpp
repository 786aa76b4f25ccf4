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

class FloorCodecPeer {
public:
    explicit FloorCodecPeer(const std::string& directory) : socket_(ConnectTo(directory)) {}

    template <class Request>
    auto Ask(const Request& request)
    {
        writer_.Begin();
        writer_.Put(Request::kOperation);
        writer_.Put(request);
        Reader reader(socket_.Call(writer_.Finish()));
        int32_t result = 0;
        reader.Get(result);
        if (result != 0) {
            throw std::runtime_error("the request failed");
        }
        typename Request::Answer answer{};
        reader.Get(answer);
        return answer;
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
        case InfoRequest::kOperation:
            return Reply<InfoRequest>(reader, writer, answers.infos);
        case SetRequest::kOperation:
            return Reply<SetRequest>(reader, writer, answers.isSet);
        case UsageRequest::kOperation:
            return Reply<UsageRequest>(reader, writer, answers.usages);
        case RowRequest::kOperation:
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
    return MakeClient<FloorCodecPeer>(directory, workload);
}

}  // namespace bench
