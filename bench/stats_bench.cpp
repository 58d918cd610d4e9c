// What the lookup of one statistic costs on hosts of different sizes.
//
// Compare the ratio between the sizes within one run, which the program prints at its end: it fails when a
// ratio exceeds 2.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <iostream>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "apps/snmp/client/OrdaneClient.h"
#include "apps/snmp/client/StatsIndex.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"

namespace {

using ApiObjects::Performance;
using SNMP::OrdaneClient;
using Tessim::Ref;

constexpr int fewVms = 10;
constexpr int manyVms = 1000;
constexpr double maxRatio = 2.0;
constexpr unsigned seed = 20240229;

// What a rebuild looks up for each VM: two CPUs, the memory, two disks and two cards.
struct Lookup {
    std::string group;
    std::string counter;
    std::string instance;
};

std::vector<Lookup> LookupsOfAVm() {
    std::vector<Lookup> lookups = {{"cpu", "used", "0"}, {"cpu", "used", "1"}, {"mem", "active", ""}};
    for (const char* disk : {"disk-0:0", "disk-0:1"}) {
        for (const char* counter : {"numberRead", "read", "numberWrite", "write"}) {
            lookups.push_back({"disk", counter, disk});
        }
    }
    for (const char* card : {"4000", "4001"}) {
        for (const char* counter : {"packetsTx", "transmitted", "packetsRx", "received"}) {
            lookups.push_back({"net", counter, card});
        }
    }
    return lookups;
}

// The id that the catalogue of ApiObjects::AllCounters gives to the counter.
std::int32_t IdOf(const Lookup& lookup) {
    const auto catalogue = ApiObjects::AllCounters();
    for (const auto& counter : *catalogue) {
        if (counter->GetGroupInfo()->GetKey() == lookup.group &&
            counter->GetNameInfo()->GetKey() == lookup.counter) {
            return counter->GetKey();
        }
    }
    return -1;
}

// The results of a query for that many VMs, in their order.
std::vector<Ref<Performance::EntityMetric>> MakeResults(int vms) {
    const std::vector<Lookup> lookups = LookupsOfAVm();
    std::vector<Ref<Performance::EntityMetric>> results;
    results.reserve(static_cast<std::size_t>(vms));
    for (int vm = 0; vm < vms; ++vm) {
        std::vector<Ref<Performance::MetricSeries>> series;
        series.reserve(lookups.size());
        for (const Lookup& lookup : lookups) {
            series.push_back(ApiObjects::Series(IdOf(lookup), lookup.instance, {vm}));
        }
        results.push_back(ApiObjects::Metric(std::to_string(vm), series));
    }
    return results;
}

// The VMs in an order that is not that of the results.
std::vector<Ref<Ordane::MoRef>> ShuffledVms(int vms) {
    std::vector<Ref<Ordane::MoRef>> entities;
    entities.reserve(static_cast<std::size_t>(vms));
    for (int vm = 0; vm < vms; ++vm) {
        entities.push_back(ApiObjects::Reference("VirtualMachine", std::to_string(vm)));
    }
    std::shuffle(entities.begin(), entities.end(), std::mt19937(seed));
    return entities;
}

// Makes every lookup for every VM once per iteration, VM by VM as a rebuild does.
template <class Find>
void LookUpEveryStatistic(benchmark::State& state, int vms, Find find) {
    const std::vector<Ref<Ordane::MoRef>> entities = ShuffledVms(vms);
    const std::vector<Lookup> lookups = LookupsOfAVm();
    for (auto step : state) {
        static_cast<void>(step);
        for (const auto& entity : entities) {
            for (const Lookup& lookup : lookups) {
                benchmark::DoNotOptimize(find(entity.Get(), lookup));
            }
        }
    }
    // Seconds per statistic.
    state.counters["per_statistic"] =
        benchmark::Counter(static_cast<double>(vms) * static_cast<double>(lookups.size()),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void IndexFind(benchmark::State& state) {
    const int vms = static_cast<int>(state.range(0));
    SNMP::StatsIndex index;
    for (const auto& result : MakeResults(vms)) {
        index.Add(*result);
    }
    std::map<std::string, std::int32_t> ids;
    for (const Lookup& lookup : LookupsOfAVm()) {
        ids[lookup.counter] = IdOf(lookup);
    }
    LookUpEveryStatistic(state, vms, [&](Ordane::MoRef* entity, const Lookup& lookup) {
        return index.Find(entity, ids.find(lookup.counter)->second, lookup.instance.c_str());
    });
}

// A client that has collected the statistics of that many VMs from a daemon.
class CollectedClient {
  public:
    explicit CollectedClient(int vms) {
        daemon.host.counters = ApiObjects::AllCounters();
        for (int vm = 0; vm < vms; ++vm) {
            daemon.host.vms.push_back({std::to_string(vm), nullptr, nullptr, nullptr});
        }
        for (const auto& result : MakeResults(vms)) {
            daemon.host.metrics->Append(result);
        }
        Ref<Ordane::DataArray<Hask::VirtualMachine>> all;
        client->GetAllVM(all);
        client->CollectVMStats(all.Get());
    }
    OrdaneClient* Get() const { return client.Get(); }
    // Whether the last VM's last statistic is there.
    bool IsComplete(int vms) const {
        const auto last = ApiObjects::Reference("VirtualMachine", std::to_string(vms - 1));
        return client->RetrieveStats(last.Get(), "net", "received", "4001") == vms - 1;
    }

  private:
    TestSupport::FakeDaemon daemon;
    Ref<OrdaneClient> client = Tessim::MakeRef<OrdaneClient>();
};

template <class Retrieve>
void LookUpInClient(benchmark::State& state, Retrieve retrieve) {
    const int vms = static_cast<int>(state.range(0));
    const CollectedClient collected(vms);
    if (!collected.IsComplete(vms)) {
        state.SkipWithError("the statistics were not collected");
        return;
    }
    LookUpEveryStatistic(state, vms, [&](Ordane::MoRef* entity, const Lookup& lookup) {
        return retrieve(collected.Get(), entity, lookup);
    });
}

void RetrieveStats(benchmark::State& state) {
    LookUpInClient(state, [](OrdaneClient* client, Ordane::MoRef* entity, const Lookup& lookup) {
        return client->RetrieveStats(entity, lookup.group, lookup.counter, lookup.instance.c_str());
    });
}

void RetrieveHCStats(benchmark::State& state) {
    LookUpInClient(state, [](OrdaneClient* client, Ordane::MoRef* entity, const Lookup& lookup) {
        return client->RetrieveHCStats(entity, lookup.group, lookup.counter, lookup.instance.c_str());
    });
}

// The best of several repetitions counts: other load on the host is not measured.
constexpr int repetitions = 5;
BENCHMARK(IndexFind)->Arg(fewVms)->Arg(manyVms)->Repetitions(repetitions);
BENCHMARK(RetrieveStats)->Arg(fewVms)->Arg(manyVms)->Repetitions(repetitions);
BENCHMARK(RetrieveHCStats)->Arg(fewVms)->Arg(manyVms)->Repetitions(repetitions);

// A template, because newer versions of the library have `skipped` in place of `error_occurred`.
template <class Run>
bool HasFailed(const Run& run) {
    if constexpr (requires { run.error_occurred; }) {
        return run.error_occurred;
    } else {
        return run.skipped != decltype(run.skipped){};
    }
}

// Prints as always, and keeps the best time per statistic of each benchmark and size.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            failed = failed || HasFailed(run);
            if (run.run_type == Run::RT_Iteration && !HasFailed(run)) {
                const double seconds = run.counters.at("per_statistic");
                auto& best = perStatistic[run.run_name.function_name]
                                 .try_emplace(run.run_name.args, std::numeric_limits<double>::max())
                                 .first->second;
                best = std::min(best, seconds);
            }
        }
    }

    // Prints the ratio of each benchmark that ran with both sizes. Whether none is too large and nothing
    // failed.
    bool PrintRatios() const {
        bool good = !failed;
        for (const auto& [name, times] : perStatistic) {
            const auto few = times.find(std::to_string(fewVms));
            const auto many = times.find(std::to_string(manyVms));
            if (few != times.end() && many != times.end()) {
                const double ratio = many->second / few->second;
                good = good && ratio <= maxRatio;
                std::cout << name << " among " << manyVms << " VMs, to " << fewVms << " VMs: " << ratio
                          << " (at most " << maxRatio << ")\n";
            }
        }
        return good;
    }

  private:
    std::map<std::string, std::map<std::string, double>> perStatistic;  // seconds, by benchmark and VMs
    bool failed = false;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.PrintRatios() ? 0 : 1;
}
