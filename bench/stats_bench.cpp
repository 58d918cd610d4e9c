// What one performance figure costs on hosts of different sizes.
//
// The figure to watch is the ratio between the sizes within one run, which the program prints at its end: it
// must not exceed 2, or the program fails.
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

// What a rebuild asks of each machine: two processors, the memory, two disks and two cards.
struct Question {
    std::string group;
    std::string counter;
    std::string instance;
};

std::vector<Question> QuestionsOfAVm() {
    std::vector<Question> questions = {{"cpu", "used", "0"}, {"cpu", "used", "1"}, {"mem", "active", ""}};
    for (const char* disk : {"disk-0:0", "disk-0:1"}) {
        for (const char* counter : {"numberRead", "read", "numberWrite", "write"}) {
            questions.push_back({"disk", counter, disk});
        }
    }
    for (const char* card : {"4000", "4001"}) {
        for (const char* counter : {"packetsTx", "transmitted", "packetsRx", "received"}) {
            questions.push_back({"net", counter, card});
        }
    }
    return questions;
}

// The id that the catalogue of ApiObjects::AllCounters gives to the counter.
std::int32_t IdOf(const Question& question) {
    const auto catalogue = ApiObjects::AllCounters();
    for (const auto& counter : *catalogue) {
        if (counter->GetGroupInfo()->GetKey() == question.group &&
            counter->GetNameInfo()->GetKey() == question.counter) {
            return counter->GetKey();
        }
    }
    return -1;
}

// The results of a query for that many machines, in the machines' order.
std::vector<Ref<Performance::EntityMetric>> MakeResults(int vms) {
    const std::vector<Question> questions = QuestionsOfAVm();
    std::vector<Ref<Performance::EntityMetric>> results;
    results.reserve(static_cast<std::size_t>(vms));
    for (int vm = 0; vm < vms; ++vm) {
        std::vector<Ref<Performance::MetricSeries>> series;
        series.reserve(questions.size());
        for (const Question& question : questions) {
            series.push_back(ApiObjects::Series(IdOf(question), question.instance, {vm}));
        }
        results.push_back(ApiObjects::Metric(std::to_string(vm), series));
    }
    return results;
}

// The machines in an order that is not that of the results.
std::vector<Ref<Ordane::MoRef>> ShuffledVms(int vms) {
    std::vector<Ref<Ordane::MoRef>> entities;
    entities.reserve(static_cast<std::size_t>(vms));
    for (int vm = 0; vm < vms; ++vm) {
        entities.push_back(ApiObjects::Reference("VirtualMachine", std::to_string(vm)));
    }
    std::shuffle(entities.begin(), entities.end(), std::mt19937(seed));
    return entities;
}

// Asks every question of every machine once per iteration, machine by machine as a rebuild does.
template <class Ask>
void AskForEveryFigure(benchmark::State& state, int vms, Ask ask) {
    const std::vector<Ref<Ordane::MoRef>> entities = ShuffledVms(vms);
    const std::vector<Question> questions = QuestionsOfAVm();
    for (auto step : state) {
        static_cast<void>(step);
        for (const auto& entity : entities) {
            for (const Question& question : questions) {
                benchmark::DoNotOptimize(ask(entity.Get(), question));
            }
        }
    }
    // Seconds per figure.
    state.counters["per_figure"] =
        benchmark::Counter(static_cast<double>(vms) * static_cast<double>(questions.size()),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void IndexFind(benchmark::State& state) {
    const int vms = static_cast<int>(state.range(0));
    SNMP::StatsIndex index;
    for (const auto& result : MakeResults(vms)) {
        index.Add(*result);
    }
    std::map<std::string, std::int32_t> ids;
    for (const Question& question : QuestionsOfAVm()) {
        ids[question.counter] = IdOf(question);
    }
    AskForEveryFigure(state, vms, [&](Ordane::MoRef* entity, const Question& question) {
        return index.Find(entity, ids.find(question.counter)->second, question.instance.c_str());
    });
}

// A client that has collected the figures of that many machines from a daemon.
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
    // Whether the last machine's last figure is there.
    bool IsComplete(int vms) const {
        const auto last = ApiObjects::Reference("VirtualMachine", std::to_string(vms - 1));
        return client->RetrieveStats(last.Get(), "net", "received", "4001") == vms - 1;
    }

  private:
    TestSupport::FakeDaemon daemon;
    Ref<OrdaneClient> client = Tessim::MakeRef<OrdaneClient>();
};

template <class Retrieve>
void AskTheClient(benchmark::State& state, Retrieve retrieve) {
    const int vms = static_cast<int>(state.range(0));
    const CollectedClient collected(vms);
    if (!collected.IsComplete(vms)) {
        state.SkipWithError("the figures were not collected");
        return;
    }
    AskForEveryFigure(state, vms, [&](Ordane::MoRef* entity, const Question& question) {
        return retrieve(collected.Get(), entity, question);
    });
}

void RetrieveStats(benchmark::State& state) {
    AskTheClient(state, [](OrdaneClient* client, Ordane::MoRef* entity, const Question& question) {
        return client->RetrieveStats(entity, question.group, question.counter, question.instance.c_str());
    });
}

void RetrieveHCStats(benchmark::State& state) {
    AskTheClient(state, [](OrdaneClient* client, Ordane::MoRef* entity, const Question& question) {
        return client->RetrieveHCStats(entity, question.group, question.counter, question.instance.c_str());
    });
}

// The best of several repetitions counts: what else the machine does is not measured.
constexpr int repetitions = 5;
BENCHMARK(IndexFind)->Arg(fewVms)->Arg(manyVms)->Repetitions(repetitions);
BENCHMARK(RetrieveStats)->Arg(fewVms)->Arg(manyVms)->Repetitions(repetitions);
BENCHMARK(RetrieveHCStats)->Arg(fewVms)->Arg(manyVms)->Repetitions(repetitions);

// Prints as always, and keeps the best time per figure of each benchmark and size.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            failed = failed || run.error_occurred;
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                const double seconds = run.counters.at("per_figure");
                auto& best = perFigure[run.run_name.function_name]
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
        for (const auto& [name, times] : perFigure) {
            const auto few = times.find(std::to_string(fewVms));
            const auto many = times.find(std::to_string(manyVms));
            if (few != times.end() && many != times.end()) {
                const double ratio = many->second / few->second;
                good = good && ratio <= maxRatio;
                std::cout << name << ": a figure among " << manyVms << " VMs costs " << ratio
                          << " times one among " << fewVms << " (at most " << maxRatio << ")\n";
            }
        }
        return good;
    }

  private:
    std::map<std::string, std::map<std::string, double>> perFigure;  // seconds, by benchmark and VMs
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
