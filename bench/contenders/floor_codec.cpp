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

enum class Operation : uint32_t { kByApp = 1, kByPermission, kSetCheckedState, kTimeline, kGetPolicy };

class FloorCodecPeer : public PlainTypes {
public:
    explicit FloorCodecPeer(const std::string& directory) : socket_(ConnectTo(SocketPath(directory))) {}

    void ByApp(const InfoRequest& request, std::vector<Info>& infos) { Fetch(Operation::kByApp, request, infos); }
    void ByPermission(const InfoRequest& request, std::vector<Info>& infos)
    {
        Fetch(Operation::kByPermission, request, infos);
    }
    bool SetCheckedState(const SetRequest& request)
    {
        Reader reader = Send(Operation::kSetCheckedState, request);
        bool isSet = false;
        reader.Get(isSet);
        return isSet;
    }
    void Timeline(const UsageRequest& request, std::vector<Usage>& usages)
    {
        Fetch(Operation::kTimeline, request, usages);
    }
    void GetPolicy(const RowRequest& request, std::vector<Row>& rows) { Fetch(Operation::kGetPolicy, request, rows); }

private:
    // Sends the request; the reply behind its result.
    template <class Request>
    Reader Send(Operation operation, const Request& request)
    {
        writer_.Begin();
        writer_.Put(static_cast<uint32_t>(operation));
        plain::Put(writer_, request);
        if (!socket_.Send(writer_.Finish())) {
            throw std::runtime_error("the server is gone");
        }
        const std::string_view reply = socket_.Receive();
        if (reply.empty()) {
            throw std::runtime_error("the server is gone");
        }
        Reader reader(reply);
        int32_t result = 0;
        reader.Get(result);
        if (result != 0) {
            throw std::runtime_error("the request failed");
        }
        return reader;
    }

    template <class Request, class Record>
    void Fetch(Operation operation, const Request& request, std::vector<Record>& records)
    {
        Reader reader = Send(operation, request);
        plain::GetMany(reader, records);
    }

    MessageSocket socket_;
    Writer writer_;
};

constexpr bool kFillsList = BENCH_FILLS_LIST;

template <class Record>
void PutAnswer(Writer& writer, const std::vector<Record>& kept)
{
    if constexpr (kFillsList) {
        plain::PutMany(writer, std::vector<Record>(kept));
    } else {
        plain::PutMany(writer, kept);
    }
}

class Service {
public:
    explicit Service(const Workload& workload) : answers_(workload) {}

    void Answer(std::string_view message, Writer& writer) const
    {
        Reader reader(message);
        uint32_t operation = 0;
        reader.Get(operation);
        writer.Begin();
        writer.Put(int32_t{0});
        switch (static_cast<Operation>(operation)) {
            case Operation::kByApp:
            case Operation::kByPermission:
                Read<InfoRequest>(reader);
                return PutAnswer(writer, answers_.infos);
            case Operation::kSetCheckedState:
                Read<SetRequest>(reader);
                return writer.Put(true);
            case Operation::kTimeline:
                Read<UsageRequest>(reader);
                return PutAnswer(writer, answers_.usages);
            case Operation::kGetPolicy:
                Read<RowRequest>(reader);
                return PutAnswer(writer, answers_.rows);
        }
        throw std::runtime_error("no such operation");
    }

private:
    template <class Request>
    static Request Read(Reader& reader)
    {
        Request request;
        plain::Get(reader, request);
        return request;
    }

    const Answers answers_;
};

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    const Service service(workload);
    const int listener = ListenOn(SocketPath(directory));
    AnnounceReady();
    ServeOnThreads(listener, [&service](int descriptor) {
        MessageSocket socket(descriptor);
        Writer writer;
        for (std::string_view message = socket.Receive(); !message.empty(); message = socket.Receive()) {
            service.Answer(message, writer);
            if (!socket.Send(writer.Finish())) {
                return;
            }
        }
    });
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return std::make_unique<TypedClient<FloorCodecPeer>>(directory, workload);
}

}  // namespace bench
