// SPDX-License-Identifier: Apache-2.0
// sd-bus between two processes without a daemon: a direct connection over a Unix socket, a thread for each on the
// server.
#include <systemd/sd-bus.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "bench/contenders/unix_socket.h"
#include "bench/typed_client.h"

namespace bench {
namespace {

constexpr const char* kPath = "/bench";
constexpr const char* kInterface = "org.example.Bench";
constexpr const char* kInfo = "(sissasassx)";
constexpr const char* kUsage = "(sisiiiixx)";
constexpr const char* kRow = "(ssxx)";

int Check(int result)
{
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), "sd-bus");
    }
    return result;
}

struct Unref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Message = std::unique_ptr<sd_bus_message, Unref>;
using Bus = std::unique_ptr<sd_bus, Unref>;

template <class Texts>
void AppendTexts(sd_bus_message* message, const Texts& texts)
{
    Check(sd_bus_message_open_container(message, 'a', "s"));
    for (const std::string& text : texts) {
        Check(sd_bus_message_append_basic(message, 's', text.c_str()));
    }
    Check(sd_bus_message_close_container(message));
}

template <class Add>
void ReadTexts(sd_bus_message* message, Add add)
{
    Check(sd_bus_message_enter_container(message, 'a', "s"));
    const char* text = nullptr;
    while (Check(sd_bus_message_read_basic(message, 's', &text)) > 0) {
        add(text);
    }
    Check(sd_bus_message_exit_container(message));
}

void ReadTexts(sd_bus_message* message, std::vector<std::string>& texts)
{
    ReadTexts(message, [&texts](const char* text) { texts.emplace_back(text); });
}

void ReadTexts(sd_bus_message* message, std::unordered_set<std::string>& texts)
{
    ReadTexts(message, [&texts](const char* text) { texts.emplace(text); });
}

// `contents` is a record's type without its parentheses.
void OpenRecord(sd_bus_message* message, const std::string& type)
{
    Check(sd_bus_message_open_container(message, 'r', type.substr(1, type.size() - 2).c_str()));
}

void Append(sd_bus_message* message, const Info& info)
{
    Check(sd_bus_message_append(message, "siss", info.bundleName.c_str(), info.uid, info.permissionGroup.c_str(),
                                info.checkedState.c_str()));
    AppendTexts(message, info.shownStates);
    AppendTexts(message, info.disabledStates);
    Check(sd_bus_message_append(message, "sx", info.disabledReason.c_str(), info.flags));
}

void Read(sd_bus_message* message, Info& info)
{
    const char* bundleName = nullptr;
    const char* permissionGroup = nullptr;
    const char* checkedState = nullptr;
    const char* disabledReason = nullptr;
    Check(sd_bus_message_read(message, "siss", &bundleName, &info.uid, &permissionGroup, &checkedState));
    ReadTexts(message, info.shownStates);
    ReadTexts(message, info.disabledStates);
    Check(sd_bus_message_read(message, "sx", &disabledReason, &info.flags));
    info.bundleName = bundleName;
    info.permissionGroup = permissionGroup;
    info.checkedState = checkedState;
    info.disabledReason = disabledReason;
}

void Append(sd_bus_message* message, const Usage& usage)
{
    Check(sd_bus_message_append(message, "sisiiiixx", usage.bundleName.c_str(), usage.uid, usage.operationGroup.c_str(),
                                usage.times, usage.operationMode, usage.appState, usage.screenState,
                                usage.beginTimestamp, usage.endTimestamp));
}

void Read(sd_bus_message* message, Usage& usage)
{
    const char* bundleName = nullptr;
    const char* operationGroup = nullptr;
    Check(sd_bus_message_read(message, "sisiiiixx", &bundleName, &usage.uid, &operationGroup, &usage.times,
                              &usage.operationMode, &usage.appState, &usage.screenState, &usage.beginTimestamp,
                              &usage.endTimestamp));
    usage.bundleName = bundleName;
    usage.operationGroup = operationGroup;
}

void Append(sd_bus_message* message, const Row& row)
{
    Check(sd_bus_message_append(message, "ssxx", row.bundleName.c_str(), row.fingerprint.c_str(), row.versionCode,
                                row.policyValue));
}

void Read(sd_bus_message* message, Row& row)
{
    const char* bundleName = nullptr;
    const char* fingerprint = nullptr;
    Check(sd_bus_message_read(message, "ssxx", &bundleName, &fingerprint, &row.versionCode, &row.policyValue));
    row.bundleName = bundleName;
    row.fingerprint = fingerprint;
}

template <class Record>
void AppendMany(sd_bus_message* message, const std::vector<Record>& records, const char* type)
{
    Check(sd_bus_message_open_container(message, 'a', type));
    for (const Record& record : records) {
        OpenRecord(message, type);
        Append(message, record);
        Check(sd_bus_message_close_container(message));
    }
    Check(sd_bus_message_close_container(message));
}

template <class Record>
void ReadMany(sd_bus_message* message, std::vector<Record>& records, const std::string& type)
{
    const std::string contents = type.substr(1, type.size() - 2);
    Check(sd_bus_message_enter_container(message, 'a', type.c_str()));
    while (Check(sd_bus_message_enter_container(message, 'r', contents.c_str())) > 0) {
        Read(message, records.emplace_back());
        Check(sd_bus_message_exit_container(message));
    }
    Check(sd_bus_message_exit_container(message));
}

class SdBusPeer : public PlainTypes {
public:
    explicit SdBusPeer(const std::string& directory)
    {
        sd_bus* bus = nullptr;
        Check(sd_bus_new(&bus));
        bus_.reset(bus);
        Check(sd_bus_set_address(bus, ("unix:path=" + SocketPath(directory)).c_str()));
        Check(sd_bus_start(bus));
    }

    void ByApp(const InfoRequest& request, std::vector<Info>& infos)
    {
        ReadMany(Send("ByApp", request).get(), infos, kInfo);
    }
    void ByPermission(const InfoRequest& request, std::vector<Info>& infos)
    {
        ReadMany(Send("ByPermission", request).get(), infos, kInfo);
    }
    bool SetCheckedState(const SetRequest& request)
    {
        const Message call = NewCall("SetCheckedState");
        Check(sd_bus_message_append(call.get(), "sissxx", request.bundleName.c_str(), request.uid,
                                    request.permissionGroup.c_str(), request.checkedState.c_str(), request.flagsMask,
                                    request.flagsValue));
        const Message reply = Send(call.get());
        int isSet = 0;
        Check(sd_bus_message_read_basic(reply.get(), 'b', &isSet));
        return isSet != 0;
    }
    void Timeline(const UsageRequest& request, std::vector<Usage>& usages)
    {
        const Message call = NewCall("Timeline");
        AppendTexts(call.get(), request.bundleNames);
        Check(sd_bus_message_append_array(call.get(), 'i', request.userIds.data(),
                                          request.userIds.size() * sizeof(int32_t)));
        AppendTexts(call.get(), request.operationGroups);
        Check(sd_bus_message_append(call.get(), "xxii", request.beginTimestamp, request.endTimestamp, request.limit,
                                    request.order));
        ReadMany(Send(call.get()).get(), usages, kUsage);
    }
    void GetPolicy(const RowRequest& request, std::vector<Row>& rows)
    {
        const Message call = NewCall("GetPolicy");
        Check(sd_bus_message_append_basic(call.get(), 's', request.policyName.c_str()));
        AppendTexts(call.get(), request.bundleNames);
        ReadMany(Send(call.get()).get(), rows, kRow);
    }

private:
    Message NewCall(const char* member)
    {
        sd_bus_message* call = nullptr;
        Check(sd_bus_message_new_method_call(bus_.get(), &call, nullptr, kPath, kInterface, member));
        return Message(call);
    }
    // Sends the call; the reply behind its result.
    Message Send(sd_bus_message* call)
    {
        sd_bus_message* reply = nullptr;
        Check(sd_bus_call(bus_.get(), call, 0, nullptr, &reply));
        int32_t result = 0;
        Check(sd_bus_message_read_basic(reply, 'i', &result));
        return Message(reply);
    }
    Message Send(const char* member, const InfoRequest& request)
    {
        const Message call = NewCall(member);
        Check(sd_bus_message_append(call.get(), "si", request.name.c_str(), request.userId));
        AppendTexts(call.get(), request.interested);
        return Send(call.get());
    }

    Bus bus_;
};

// Answers with result 0 and what `append` adds.
template <class Append>
int Reply(sd_bus_message* call, Append append)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_return(call, &message));
    const Message reply(message);
    Check(sd_bus_message_append_basic(message, 'i', &static_cast<const int32_t&>(0)));
    append(message);
    return sd_bus_send(nullptr, message, nullptr);
}

int HandleInfos(sd_bus_message* call, void* answers, sd_bus_error*)
{
    InfoRequest request;
    const char* name = nullptr;
    Check(sd_bus_message_read(call, "si", &name, &request.userId));
    request.name = name;
    ReadTexts(call, request.interested);
    return Reply(call, [answers](sd_bus_message* reply) {
        AppendMany(reply, static_cast<const Answers*>(answers)->infos, kInfo);
    });
}

int HandleSet(sd_bus_message* call, void*, sd_bus_error*)
{
    SetRequest request;
    const char* bundleName = nullptr;
    const char* permissionGroup = nullptr;
    const char* checkedState = nullptr;
    Check(sd_bus_message_read(call, "sissxx", &bundleName, &request.uid, &permissionGroup, &checkedState,
                              &request.flagsMask, &request.flagsValue));
    request.bundleName = bundleName;
    request.permissionGroup = permissionGroup;
    request.checkedState = checkedState;
    return Reply(call, [](sd_bus_message* reply) { Check(sd_bus_message_append(reply, "b", 1)); });
}

int HandleTimeline(sd_bus_message* call, void* answers, sd_bus_error*)
{
    UsageRequest request;
    ReadTexts(call, request.bundleNames);
    const void* userIds = nullptr;
    size_t bytes = 0;
    Check(sd_bus_message_read_array(call, 'i', &userIds, &bytes));
    request.userIds.assign(static_cast<const int32_t*>(userIds),
                           static_cast<const int32_t*>(userIds) + bytes / sizeof(int32_t));
    ReadTexts(call, request.operationGroups);
    Check(sd_bus_message_read(call, "xxii", &request.beginTimestamp, &request.endTimestamp, &request.limit,
                              &request.order));
    return Reply(call, [answers](sd_bus_message* reply) {
        AppendMany(reply, static_cast<const Answers*>(answers)->usages, kUsage);
    });
}

int HandleGetPolicy(sd_bus_message* call, void* answers, sd_bus_error*)
{
    RowRequest request;
    const char* policyName = nullptr;
    Check(sd_bus_message_read_basic(call, 's', &policyName));
    request.policyName = policyName;
    ReadTexts(call, request.bundleNames);
    return Reply(call, [answers](sd_bus_message* reply) {
        AppendMany(reply, static_cast<const Answers*>(answers)->rows, kRow);
    });
}

const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("ByApp", "sias", "ia(sissasassx)", HandleInfos, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ByPermission", "sias", "ia(sissasassx)", HandleInfos, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SetCheckedState", "sissxx", "ib", HandleSet, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Timeline", "asaiasxxii", "ia(sisiiiixx)", HandleTimeline, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetPolicy", "sas", "ia(ssxx)", HandleGetPolicy, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

void ServeConnection(int descriptor, const Answers& answers)
{
    sd_bus* bus = nullptr;
    Check(sd_bus_new(&bus));
    const Bus owner(bus);
    sd_id128_t id{};
    Check(sd_id128_randomize(&id));
    Check(sd_bus_set_fd(bus, descriptor, descriptor));
    Check(sd_bus_set_server(bus, 1, id));
    Check(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, table, const_cast<Answers*>(&answers)));
    Check(sd_bus_start(bus));
    for (;;) {
        const int processed = sd_bus_process(bus, nullptr);
        if (processed < 0) {
            return;  // the client is gone
        }
        if (processed == 0) {
            Check(sd_bus_wait(bus, UINT64_MAX));
        }
    }
}

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    const Answers answers(workload);
    const int listener = ListenOn(SocketPath(directory));
    AnnounceReady();
    ServeOnThreads(listener, [&answers](int descriptor) { ServeConnection(descriptor, answers); });
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return std::make_unique<TypedClient<SdBusPeer>>(directory, workload);
}

}  // namespace bench
