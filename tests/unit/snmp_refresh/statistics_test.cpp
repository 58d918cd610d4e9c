#include "runtime/hask/performance_counters.h"
#include "runtime/ordane/faults.h"
#include "tests/support/files.h"
#include "tests/unit/snmp_refresh/fixture.h"

namespace RefreshTests {
namespace {

using MetricIds = Ordane::DataArray<Performance::MetricId>;

// A client whose results fail at the second, or that has no metric ids.
class FailingClient final : public OrdaneClient {
  public:
    void (*atSecondResult)() = nullptr;
    bool withoutMetricIds = false;

    void GetQueryMetricIds(Ref<MetricIds>& out) override {
        out.Reset();
        if (!withoutMetricIds) {
            OrdaneClient::GetQueryMetricIds(out);
        }
    }

  protected:
    void AddResult(Performance::EntityMetric* metric) override {
        if (atSecondResult != nullptr && ++results == 2) {
            atSecondResult();
        }
        OrdaneClient::AddResult(metric);
    }

  private:
    int results = 0;
};

std::string ToText(const MetricIds& ids) {
    std::string text;
    for (const auto& id : ids) {
        text += ' ' + std::to_string(id->GetCounterId()) + '/' + id->GetInstance();
    }
    return text;
}

// Splits at the first `separator`; without one, the second text is empty.
std::pair<std::string, std::string> Split(const std::string& text, char separator) {
    const std::size_t at = text.find(separator);
    return {text.substr(0, at), at == std::string::npos ? "" : text.substr(at + 1)};
}

class StatisticsTest : public ClientTest {
  protected:
    StatisticsTest() {
        host.counters = AllCounters();
        host.vms = {{"16", nullptr, nullptr, nullptr}, {"32", nullptr, nullptr, nullptr}};
        client = failing;
        client->Init(nullptr);
        // The daemon's catalogue: "key:group.counter" and so on.
        Add("catalogue", [this](const std::string& text) {
            host.counters = Array<Performance::CounterInfo>();
            ForEachWord(text, [&](const std::string& word) {
                const auto [key, name] = Split(word, ':');
                const auto [group, counter] = Split(name, '.');
                host.counters->Append(Counter(std::stoi(key), group, counter));
            });
        });
        // The results of the next queries: "VM:counter/instance=sample" and so on.
        Add("metrics", [this](const std::string& text) {
            host.metrics = Array<Performance::EntityMetricBase>();
            ForEachWord(text, [&](const std::string& word) {
                const auto [vm, series] = Split(word, ':');
                const auto [name, sample] = Split(series, '=');
                const auto [counter, instance] = Split(name, '/');
                host.metrics->Append(
                    Metric(vm, {Series(std::stoi(counter), instance, {std::stoll(sample)})}));
            });
        });
        Add("no-manager", [this] { host.content->SetPerfManager(nullptr); });
        Add("no-metric-ids", [this] { failing->withoutMetricIds = true; });
        Add("metric-ids-again", [this] { failing->withoutMetricIds = false; });
        Add("reset-at-second-result", [this] {
            failing->atSecondResult = [] { throw Ordane::Fault::HostCommunication::Exception("reset"); };
        });
        Add("other", [this] { client = MakeRef<OrdaneClient>(); });
        Add("first", [this] { client = failing; });

        Add("ids", [this] {
            std::string text = "ids";
            for (const auto& [name, id] : client->GetAvailableCounterIds()) {
                text += ' ' + name + '=' + std::to_string(id);
            }
            return text;
        });
        Add("id", [this](const std::string& name) {
            const auto [group, counter] = Split(name, '.');
            return client->GetCounterIdFromName(group, counter);
        });
        Add("metric-ids", [this] {
            Ref<MetricIds> ids;
            client->GetQueryMetricIds(ids);
            return ids ? "metrics" + ToText(*ids) : "null";
        });
        Add("manager", [this] {
            Ref<Performance> manager;
            client->GetPerfManager(manager);
            return manager ? manager->GetMoRef()->GetId() : "null";
        });
        Add("collect", [this] {
            const Ref<VmArray> vms = AllVms();
            client->CollectVMStats(vms.Get());
        });
        Add("collect-none", [this] { client->CollectVMStats(MakeRef<VmArray>().Get()); });
        Add("collect-null", [this] { client->CollectVMStats(nullptr); });
        // What the last query asked for.
        Add("query", [this] {
            std::string text = std::to_string(host.queries.size()) + ". query";
            for (const auto& spec : *host.queries.back()) {
                text += ", " + spec->GetEntity()->GetType() + ' ' + spec->GetEntity()->GetId() +
                        " interval " + std::to_string(*spec->GetIntervalId()) + ToText(*spec->GetMetricId());
            }
            return text;
        });
        // Of "VM:group.counter/instance", the sample and its low 32 bits; without a slash, any instance.
        Add("get", [this](const std::string& text) {
            const auto [vm, statistic] = Split(TestSupport::Unescape(text), ':');
            const auto [name, instance] = Split(statistic, '/');
            const auto [group, counter] = Split(name, '.');
            const char* const any = statistic.find('/') == std::string::npos ? nullptr : instance.c_str();
            return client->RetrieveHCStats(Reference("VirtualMachine", vm).Get(), group, counter, any);
        });
    }

    template <class Action>
    static void ForEachWord(const std::string& text, Action action) {
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            action(word);
        }
    }

    Ref<FailingClient> failing = MakeRef<FailingClient>();
};

const bool registered = RegisterSessions<StatisticsTest>("StatisticsTest", "statistics");

TEST(CounterNames, ArePackedAsGroupDotCounter) {
    SNMP::CounterList list;
    SNMP::PackStatsName(list, "net", "received", -1);
    SNMP::PackStatsName(list, "", "", 7);
    EXPECT_EQ(list, (SNMP::CounterList{{"net.received", -1}, {".", 7}}));
}

// No data of a daemon leads here.
TEST(CounterList, RejectsAnyNumberButTen) {
    LogCapture log;
    const std::span<const Hask::Counters::Counter> ten = Hask::Counters::standard;
    const char* const text = "OrdaneClient::GetAvailableCounterIds, BUG - bad count.\n";
    try {
        SNMP::MakeCounterList(ten.first(9));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& thrown) {
        EXPECT_STREQ(thrown.what(), text);
    }
    EXPECT_EQ(log.Take(), (Lines{{3, text}}));
    EXPECT_EQ(SNMP::MakeCounterList(ten).size(), 10U);
}

// Results without values and of other kinds.
TEST_F(StatisticsTest, IgnoresResultsWithoutSamples) {
    const auto withoutValues = MakeRef<Performance::EntityMetric>();
    withoutValues->SetEntity(Reference("VirtualMachine", "16"));
    const auto base = MakeRef<Performance::EntityMetricBase>();
    base->SetEntity(Reference("VirtualMachine", "16"));
    host.metrics =
        Array<Performance::EntityMetricBase>({base, withoutValues, Metric("16", {Series(10, "0", {7})})});
    client->GetAvailableCounterIds();
    Check(R"(
collect -> (GetChildEntity, QueryPerf)
get 16:cpu.used/0 -> 7
)");
}

TEST_F(StatisticsTest, ReturnsASampleOrItsLow32BitsOfAnInstanceAsNumberOrText) {
    const std::pair<std::int64_t, std::int32_t> cases[] = {{INT32_MAX, INT32_MAX},
                                                           {std::int64_t{1} << 31, INT32_MIN},
                                                           {(std::int64_t{1} << 32) - 1, -1},
                                                           {(std::int64_t{1} << 32) + 5, 5},
                                                           {INT64_MAX, -1},
                                                           {-1, -1},
                                                           {INT64_MIN, 0}};
    const auto vm = Reference("VirtualMachine", "16");
    for (const auto& [sample, low] : cases) {
        host.metrics = Array<Performance::EntityMetricBase>(
            {Metric("16", {Series(10, "", {1}), Series(10, "00", {2}), Series(10, "-1", {sample})})});
        client->CollectVMStats(AllVms().Get());
        EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", "-1"), sample);
        EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", -1), sample);
        EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", "-1"), low);
        EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", -1), low);
    }
    EXPECT_EQ(log.Take(), Lines());
}

}  // namespace
}  // namespace RefreshTests
