// SPDX-License-Identifier: Apache-2.0
// sd-bus between two processes without a daemon: a direct connection over a Unix socket, a thread for each on the
// server.
#include <systemd/sd-bus.h>

#include <string>
#include <system_error>

#include "bench/harness.h"

namespace bench {
namespace {

constexpr const char* kPath = "/bench";
constexpr const char* kInterface = "org.example.Bench";
constexpr const char* kMembers[] = {"Info", "Set"};  // by operation

int Check(int result)
{
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), "sd-bus");
    }
    return result;
}

template <class T>
constexpr char kBasic = std::is_same_v<T, bool>        ? 'b'
                        : sizeof(T) == sizeof(int32_t) ? 'i'
                                                       : 'x';
// Booleans are passed as int.
template <class T>
using Passed = std::conditional_t<std::is_same_v<T, bool>, int, T>;

// What D-Bus calls a list of records, and the fields of one.
constexpr const char* kRecord = "(sissasassx)";
constexpr const char* kFields = "sissasassx";

// A number, a text or a list of texts.
template <class T>
void Append(sd_bus_message* message, const T& value)
{
    if constexpr (std::is_arithmetic_v<T>) {
        const auto number = static_cast<Passed<T>>(value);
        Check(sd_bus_message_append_basic(message, kBasic<T>, &number));
    } else if constexpr (std::is_same_v<T, std::string>) {
        Check(sd_bus_message_append_basic(message, 's', value.c_str()));
    } else {
        Check(sd_bus_message_open_container(message, 'a', "s"));
        for (const std::string& text : value) {
            Append(message, text);
        }
        Check(sd_bus_message_close_container(message));
    }
}
template <class... T>
void Append(sd_bus_message* message, const std::tuple<T...>& values)
{
    std::apply([message](const auto&... value) { (Append(message, value), ...); }, values);
}
void Append(sd_bus_message* message, const std::vector<Info>& infos)
{
    Check(sd_bus_message_open_container(message, 'a', kRecord));
    for (const Info& info : infos) {
        Check(sd_bus_message_open_container(message, 'r', kFields));
        Append(message, info);
        Check(sd_bus_message_close_container(message));
    }
    Check(sd_bus_message_close_container(message));
}

// False at the end of a list.
template <class T>
bool Read(sd_bus_message* message, T& value)
{
    if constexpr (std::is_arithmetic_v<T>) {
        Passed<T> number{};
        Check(sd_bus_message_read_basic(message, kBasic<T>, &number));
        value = static_cast<T>(number);
    } else if constexpr (std::is_same_v<T, std::string>) {
        const char* text = nullptr;
        if (Check(sd_bus_message_read_basic(message, 's', &text)) == 0) {
            return false;
        }
        value = text;
    } else {
        Check(sd_bus_message_enter_container(message, 'a', "s"));
        for (std::string text; Read(message, text); text = {}) {
            value.insert(value.end(), std::move(text));
        }
        Check(sd_bus_message_exit_container(message));
    }
    return true;
}
template <class... T>
void Read(sd_bus_message* message, std::tuple<T...>& values)
{
    std::apply([message](auto&... value) { (Read(message, value), ...); }, values);
}
void Read(sd_bus_message* message, std::vector<Info>& infos)
{
    Check(sd_bus_message_enter_container(message, 'a', kRecord));
    while (Check(sd_bus_message_enter_container(message, 'r', kFields)) > 0) {
        Read(message, infos.emplace_back());
        Check(sd_bus_message_exit_container(message));
    }
    Check(sd_bus_message_exit_container(message));
}

class Peer {
public:
    explicit Peer(const Workload& workload)
    {
        Check(sd_bus_new(&bus_));
        Check(sd_bus_set_address(bus_, ("unix:path=" + workload.SocketPath()).c_str()));
        Check(sd_bus_start(bus_));
    }

    template <class Request>
    auto Ask(const Request& request)
    {
        [[gnu::cleanup(sd_bus_message_unrefp)]] sd_bus_message* call = nullptr;
        Check(sd_bus_message_new_method_call(bus_, &call, nullptr, kPath, kInterface, kMembers[Request::kOperation]));
        Append(call, request.arguments);
        [[gnu::cleanup(sd_bus_message_unrefp)]] sd_bus_message* reply = nullptr;
        Check(sd_bus_call(bus_, call, 0, nullptr, &reply));
        int32_t result = 0;
        Read(reply, result);
        typename Request::Answer answer{};
        Read(reply, answer);
        return answer;
    }

private:
    sd_bus* bus_ = nullptr;  // ends with the process
};

// Answers with result 0 and what the service keeps for this request.
template <class Request>
int Handle(sd_bus_message* call, void* answers, sd_bus_error*)
{
    decltype(Request::arguments) arguments;
    Read(call, arguments);
    [[gnu::cleanup(sd_bus_message_unrefp)]] sd_bus_message* reply = nullptr;
    Check(sd_bus_message_new_method_return(call, &reply));
    Append(reply, int32_t{0});
    Append(reply, std::get<typename Request::Answer>(*static_cast<const Answers*>(answers)));
    return sd_bus_send(nullptr, reply, nullptr);
}

const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(kMembers[0], "sias", "ia(sissasassx)", Handle<InfoRequest>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(kMembers[1], "sissxx", "ib", Handle<SetRequest>, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

}  // namespace

void Serve(const Workload& workload)
{
    const Answers answers = MakeAnswers(workload);
    ServeOnThreads(workload.SocketPath(), [&answers](int descriptor) {
        [[gnu::cleanup(sd_bus_flush_close_unrefp)]] sd_bus* bus = nullptr;
        Check(sd_bus_new(&bus));
        sd_id128_t id{};
        Check(sd_id128_randomize(&id));
        Check(sd_bus_set_fd(bus, descriptor, descriptor));
        Check(sd_bus_set_server(bus, 1, id));
        Check(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, table, const_cast<Answers*>(&answers)));
        Check(sd_bus_start(bus));
        int processed = 0;
        while ((processed = sd_bus_process(bus, nullptr)) >= 0) {  // until the client is gone
            if (processed == 0) {
                Check(sd_bus_wait(bus, UINT64_MAX));
            }
        }
    });
}

void Connect(const Workload& workload)
{
    RunClient<Peer, InfoRequest, SetRequest>(workload);
}

}  // namespace bench
