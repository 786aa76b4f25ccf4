// SPDX-License-Identifier: Apache-2.0
// The small steps by themselves, without a socket.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/contenders/library.h"
#include "security_privacy/gtoken_info.h"
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

void WriteTexts(State& state)
{
    const std::string text(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        Parcel parcel;
        for (int count = 0; count < 8; ++count) {
            benchmark::DoNotOptimize(parcel.WriteString(text));
        }
    }
}
BENCHMARK(WriteTexts)->Arg(5)->Arg(22)->Arg(1000);

GTokenInfo MakeTokenInfo()
{
    GTokenInfo info;
    for (size_t index = 0; index < kListed; ++index) {
        GTokenPolicy& policy = info.policies.emplace_back();
        policy.policyName = "policy" + std::to_string(index);
    }
    return info;
}

template <class Record, class Plain>
Record MakeRecord()
{
    Plain plain;
    Make(1, plain);
    Record record;
    Copy(plain, record);
    return record;
}

template <class T>
void Marshalling(State& state, T record)
{
    for (auto _ : state) {
        Parcel parcel;
        benchmark::DoNotOptimize(record.Marshalling(parcel));
    }
}

// A new parcel whenever the last one is used up.
template <class T>
void Unmarshalling(State& state, T record)
{
    constexpr int kRecords = 10000;
    std::unique_ptr<Parcel> parcel;
    for (auto _ : state) {
        if (parcel == nullptr || parcel->GetReadableBytes() == 0) {
            state.PauseTiming();
            parcel = std::make_unique<Parcel>();
            for (int count = 0; count < kRecords; ++count) {
                record.Marshalling(*parcel);
            }
            state.ResumeTiming();
        }
        delete T::Unmarshalling(*parcel);
    }
}

template <class T>
void RegisterRecord(const std::string& name, const T& record)
{
    benchmark::RegisterBenchmark((name + "/Marshalling").c_str(), Marshalling<T>, record);
    benchmark::RegisterBenchmark((name + "/Unmarshalling").c_str(), Unmarshalling<T>, record);
}

void RegisterRecords()
{
    RegisterRecord("AppPermissionGroupInfo", MakeRecord<Permission::AppPermissionGroupInfo, Info>());
    RegisterRecord("CheckedStateParameter", ToParameter(MakeSetRequest()));
    RegisterRecord("PermissionUsageRecord", MakeRecord<Record::PermissionUsageRecord, Usage>());
    RegisterRecord("PermissionUsageRecordQuery", ToQuery(MakeUsageRequest()));
    RegisterRecord("GTokenInfo/10", MakeTokenInfo());
    RegisterRecord("GTokenResult", MakeRecord<GTokenResult, Row>());
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

// `level`: below what is written by default, or not.
void LogLine(State& state, int level)
{
    size_t bytes = 0;
    VARN::Host::SetLogSink([&bytes](const VARN::Host::LogLine& line) { bytes += line.text.size(); });
    int64_t number = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            VoLogPrint(0, level, 1, "bench", "value=%{public}s", std::to_string(++number).c_str()));
    }
    VARN::Host::SetLogSink({});
    benchmark::DoNotOptimize(bytes);
}
BENCHMARK_CAPTURE(LogLine, Dropped, 3);
BENCHMARK_CAPTURE(LogLine, Written, 6);

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    bench::RegisterRecords();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
