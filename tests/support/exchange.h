// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/log_capture.h"
#include "support/parcels.h"
#include "support/records.h"
#include "varn/host/ability_server.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// What is fixed about one request, beyond its layout.
struct Operation {
    uint32_t code;
    std::string codeName;
    std::string method;           // of client and proxy
    std::string nullProxyMethod;  // the name under which the client reports that it has no proxy
    std::string calledByClient;   // the client's own first line, if any
    std::string startedByProxy;   // the proxy's first line, for the arguments of `CallOperation`
    int startLevel;               // of that line
    std::string sendFailed;       // the proxy's own line after the frame's, if any

    // Their lines.
    std::vector<std::string> ClientLines() const;
    std::vector<std::string> ProxyLines() const;
    std::vector<std::string> SendFailedLines() const;
};
const std::vector<Operation>& Operations();
const Operation& OperationOf(uint32_t code);

// The dispatcher's lines before and after the handler ran.
std::vector<std::string> DispatchLines(uint32_t code);
std::string DoneLine(uint32_t code, int32_t status);

// What a request gave back. It starts with contents, so that "untouched" and "appended" can be told.
struct Outcome {
    int64_t result = 4711;
    std::vector<Permission::AppPermissionGroupInfo> groups = {MakeAppPermissionGroupInfo()};
    bool returns = true;
    std::vector<Record::PermissionUsageRecord> records = {MakePermissionUsageRecord()};
    std::vector<GTokenResult> rows;
};

// Sends the request of `code` through a client or a proxy, with the arguments of its family that MakeX() gives.
template <class Target>
Outcome CallOperation(Target& target, uint32_t code)
{
    Outcome outcome;
    switch (code) {
        case 1:
            outcome.result = target.GetAppPermissionGroupInfosByApp("app", -100, {"it's"}, outcome.groups);
            break;
        case 2:
            outcome.result = target.GetAppPermissionGroupInfosByPermission("group", 101, {"app"}, outcome.groups);
            break;
        case 3:
            outcome.result = target.SetAppPermissionGroupCheckedState("app", 20, "group", MakeCheckedStateParameter(),
                                                                      outcome.returns);
            break;
        case 4:
            outcome.result = target.GetPermissionUsageSummary(MakePermissionUsageRecordQuery(), outcome.records);
            break;
        case 5:
            outcome.result = target.GetPermissionUsageTimeline(MakePermissionUsageRecordQuery(), outcome.records);
            break;
        case 11:
            outcome.result = target.GTokenPolicyAddPolicy({MakeGTokenInfo()});
            break;
        case 12: {
            const GTokenResultWithRet results = target.GTokenPolicyGetPolicy("policy", {"app", "other"});
            outcome.result = results.ret;
            outcome.rows = results.gTokenResults;
            break;
        }
        default:
            outcome.result = target.GTokenPolicyRemovePolicy({"app", "other"});
            break;
    }
    return outcome;
}

// A remote object that plays a script and remembers how it was spoken to.
class ScriptedObject : public IRemoteObject {
public:
    using Script = std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply)>;
    explicit ScriptedObject(Script script) : script_(std::move(script)) {}

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    struct Sent {
        uint32_t code;
        int32_t flags;
        int32_t waitTime;
    };
    std::vector<Sent> sent;

private:
    const Script script_;
};

// One that answers every request with status 0 and these values.
template <class... T>
sptr<ScriptedObject> Replying(const T&... values)
{
    return sptr<ScriptedObject>(new ScriptedObject([=](uint32_t, MessageParcel&, MessageParcel& reply) {
        PutAll(reply, values...);
        return 0;
    }));
}

// The proxy that the library has registered, over any object.
sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object);

// Runs each test twice: with the service in this process, and with the service behind a socket.
enum class Road { IN_PROCESS, SOCKET };

class ExchangeTest : public ::testing::TestWithParam<Road> {
protected:
    void SetUp() override;
    void TearDown() override;

    // The object that the client finds: the service itself or the stand-in for it.
    static sptr<IRemoteObject> Load();

    // Sends a hand-made request, whose status it returns and whose answer it leaves in `reply`.
    template <class... T>
    int32_t Send(uint32_t code, const T&... values)
    {
        MessageParcel data;
        EXPECT_TRUE(PutAll(data, SecurityPrivacyServiceIntf::GetDescriptor(), values...));
        reply.emplace();
        MessageOption option;
        return Load()->SendRequest(code, data, *reply, option);
    }

    // The last call that reached the service; at least one must have.
    FakeCall LastCall() const { return service->Calls().back(); }

    SecurityPrivacyClient& client = SecurityPrivacyClient::GetInstance();
    const sptr<FakeService> service{new FakeService()};
    std::optional<MessageParcel> reply;

private:
    std::unique_ptr<Host::AbilityServer> server_;
};

std::string RoadName(const ::testing::TestParamInfo<Road>& road);

// All texts of all elements.
template <class T>
std::vector<std::string> Texts(const std::vector<T>& records)
{
    std::vector<std::string> texts;
    texts.reserve(records.size());
    for (const T& record : records) {
        texts.push_back(record.ToString());
    }
    return texts;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
