// SPDX-License-Identifier: Apache-2.0
// The small steps by themselves, without a socket.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/contenders/library_peer.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record_query.h"
#include "varn/host/ability_manager.h"
#include "varn/host/log_sink.h"
#include "varn/log.h"
#include "varn/message_parcel.h"

namespace bench {
namespace {

using benchmark::State;
using VARN::MessageParcel;
using VARN::Parcel;

constexpr size_t kSmallRecords = 8;
constexpr size_t kListed = 10;

void WriteNumbers(State& state)
{
    for (auto _ : state) {
        Parcel parcel;
        for (int32_t value = 0; value < 16; ++value) {
            benchmark::DoNotOptimize(parcel.WriteInt32(value));
            benchmark::DoNotOptimize(parcel.WriteInt64(value));
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 32);
}
BENCHMARK(WriteNumbers);

// Reads everything that `write` put into a parcel; a new parcel whenever it is used up.
template <class Write, class Read>
void MeasureReads(State& state, Write write, Read read)
{
    constexpr int kValues = 10000;
    std::unique_ptr<Parcel> parcel;
    for (auto _ : state) {
        if (parcel == nullptr || parcel->GetReadableBytes() == 0) {
            state.PauseTiming();
            parcel = std::make_unique<Parcel>();
            for (int value = 0; value < kValues; ++value) {
                write(*parcel);
            }
            state.ResumeTiming();
        }
        read(*parcel);
    }
}

void ReadInt64(State& state)
{
    MeasureReads(
        state, [](Parcel& parcel) { parcel.WriteInt64(-1); },
        [](Parcel& parcel) {
            int64_t value = 0;
            benchmark::DoNotOptimize(parcel.ReadInt64(value));
        });
}
BENCHMARK(ReadInt64);

void WriteText(State& state)
{
    const std::string text(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        Parcel parcel;
        for (int count = 0; count < 8; ++count) {
            benchmark::DoNotOptimize(parcel.WriteString(text));
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 8);
}
BENCHMARK(WriteText)->Arg(5)->Arg(22)->Arg(1000);

void ReadText(State& state)
{
    const std::string text(static_cast<size_t>(state.range(0)), 'x');
    std::string read;
    MeasureReads(
        state, [&text](Parcel& parcel) { parcel.WriteString(text); },
        [&read](Parcel& parcel) { benchmark::DoNotOptimize(parcel.ReadString(read)); });
}
BENCHMARK(ReadText)->Arg(5)->Arg(22)->Arg(1000);

void InterfaceToken(State& state)
{
    const std::u16string& descriptor = SecurityPrivacyServiceIntf::GetDescriptor();
    for (auto _ : state) {
        MessageParcel parcel;
        parcel.WriteInterfaceToken(descriptor);
        benchmark::DoNotOptimize(parcel.ReadInterfaceToken() == descriptor);
    }
}
BENCHMARK(InterfaceToken);

Permission::CheckedStateParameter MakeParameter()
{
    const SetRequest request = MakeSetRequest();
    Permission::CheckedStateParameter parameter;
    parameter.checkedState = request.checkedState;
    parameter.flagsMask = request.flagsMask;
    parameter.flagsValue = request.flagsValue;
    return parameter;
}

Record::PermissionUsageRecordQuery MakeQuery()
{
    const UsageRequest request = MakeUsageRequest();
    Record::PermissionUsageRecordQuery query;
    query.SetBundleNames(request.bundleNames);
    query.SetUserIds(request.userIds);
    query.SetOperationGroups(request.operationGroups);
    query.SetLimit(request.limit);
    return query;
}

GTokenPolicy MakePolicy(size_t index)
{
    GTokenPolicy policy;
    policy.policyName = "policy" + std::to_string(index);
    policy.policyValue = static_cast<int64_t>(index);
    return policy;
}

GTokenInfo MakeTokenInfo()
{
    const Row row = MakeRow(1);
    GTokenInfo info;
    info.bundleName = row.bundleName;
    info.fingerprint = row.fingerprint;
    info.versionCode = row.versionCode;
    for (size_t index = 0; index < kListed; ++index) {
        info.policies.push_back(MakePolicy(index));
    }
    return info;
}

GTokenResultWithRet MakeResult()
{
    GTokenResultWithRet result;
    for (size_t index = 0; index < kListed; ++index) {
        result.gTokenResults.push_back(ToRecord(MakeRow(index)));
    }
    return result;
}

template <class T>
void Marshalling(State& state, T record)
{
    for (auto _ : state) {
        Parcel parcel;
        benchmark::DoNotOptimize(record.Marshalling(parcel));
    }
}

template <class T>
void Unmarshalling(State& state, T record)
{
    MeasureReads(
        state, [&record](Parcel& parcel) { record.Marshalling(parcel); },
        [](Parcel& parcel) { delete T::Unmarshalling(parcel); });
}

template <class T>
void RegisterRecord(const std::string& name, const T& record)
{
    benchmark::RegisterBenchmark((name + "/Marshalling").c_str(), Marshalling<T>, record);
    benchmark::RegisterBenchmark((name + "/Unmarshalling").c_str(), Unmarshalling<T>, record);
}

void RegisterRecords()
{
    RegisterRecord("AppPermissionGroupInfo", ToRecord(MakeInfo(1)));
    RegisterRecord("CheckedStateParameter", MakeParameter());
    RegisterRecord("PermissionUsageRecord", ToRecord(MakeUsage(1)));
    RegisterRecord("PermissionUsageRecordQuery", MakeQuery());
    RegisterRecord("GTokenPolicy", MakePolicy(1));
    RegisterRecord("GTokenInfo/10", MakeTokenInfo());
    RegisterRecord("GTokenResult", ToRecord(MakeRow(1)));
    RegisterRecord("GTokenResultWithRet/10", MakeResult());
}

void Dispatch(State& state, Case kind)
{
    const Workload workload{kind, kind == Case::kSmall ? kSmallRecords : 0, 0, 0};
    const auto manager = VARN::Host::AbilityManager::Get();
    manager->AddSystemAbility(kAbilityId, MakeLibraryService(workload));
    TypedClient<LibraryPeer> client({}, workload);
    for (auto _ : state) {
        client.Call();
    }
    if (!client.IsAnswerRight()) {
        state.SkipWithError("the answer is wrong");
    }
    manager->RemoveSystemAbility(kAbilityId);
}
BENCHMARK_CAPTURE(Dispatch, Small, Case::kSmall);
BENCHMARK_CAPTURE(Dispatch, Least, Case::kLeast);

constexpr int kLogType = 0;
constexpr int kDebug = 3;
constexpr int kInfo = 4;
constexpr uint32_t kDomain = 1;

void DroppedLogLine(State& state)
{
    int64_t number = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            VoLogPrint(kLogType, kDebug, kDomain, "bench", "value=%{public}s", std::to_string(++number).c_str()));
    }
}
BENCHMARK(DroppedLogLine);

void WrittenLogLine(State& state)
{
    size_t bytes = 0;
    VARN::Host::SetLogSink([&bytes](const VARN::Host::LogLine& line) { bytes += line.text.size(); });
    for (auto _ : state) {
        VoLogPrint(kLogType, kInfo, kDomain, "bench", "value=%{public}s", "17");
    }
    VARN::Host::SetLogSink({});
    benchmark::DoNotOptimize(bytes);
}
BENCHMARK(WrittenLogLine);

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    bench::RegisterRecords();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
