#include "runtime/hask/performance_counters.h"
#include "runtime/ordane/faults.h"
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
        Add("other", [this] { client = MakeRef<OrdaneClient>(); });

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
            const auto [vm, statistic] = Split(text, ':');
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

TEST_F(StatisticsTest, SharesOneListThatEachClientResolvesAnew) {
    Check(R"(
metrics 16:10/0=1; collect -> (GetChildEntity, RetrieveContent, GetPerfCounter, QueryPerf)
catalogue 33:cpu.used; other; id cpu.used -> 33 (open stream, AcquireLocalTicket, Login, RetrieveContent, GetPerfCounter)
no-manager; other; ids -> ids (Logout, close adapter, close stream /connection/2, shut service down, open stream, AcquireLocalTicket, Login, RetrieveContent)
id cpu.used -> -1
metric-ids -> metrics
manager -> null
)");
    client = failing;
    Check(R"(
ids -> ids
get 16:cpu.used/0 -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for cpu.used
)");
}

TEST_F(StatisticsTest, QueriesAllVmsAtOnceAndReplacesTheLastResults) {
    Check(R"(
get 16:no.such/0 -> -1
  4 OrdaneClient::RetrieveStats: no stats available. (no line feed)
metrics 16:10/0=1 16:9/=2; collect -> (GetChildEntity, RetrieveContent, GetPerfCounter, QueryPerf)
query -> 1. query, VirtualMachine 16 interval 0 1/* 2/* 3/* 4/* 5/* 6/* 7/* 8/* 9/* 10/*, VirtualMachine 32 interval 0 1/* 2/* 3/* 4/* 5/* 6/* 7/* 8/* 9/* 10/*
get 16:mem.active -> 2
metrics 16:10/0=3; collect -> (GetChildEntity, QueryPerf)
get 16:cpu.used/0 -> 3
get 16:mem.active -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for mem.active.any
metrics; collect -> (GetChildEntity, QueryPerf)
get 16:cpu.used/0 -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0
)");
    client->CollectVMStats(MakeRef<VmArray>().Get());
    EXPECT_EQ(host.queries.at(3)->GetLength(), 0);
}

// What leaves no statistics, after a collection that had some.
TEST_F(StatisticsTest, DropsTheResultsBeforeANewQueryThatFails) {
    const std::string collected = R"(
metrics 16:10/0=7; collect -> (GetChildEntity, QueryPerf)
get 16:cpu.used/0 -> 7
)";
    const std::string none = R"(get 16:cpu.used/0 -> -1
  4 OrdaneClient::RetrieveStats: no stats available. (no line feed)
)";
    client->GetAvailableCounterIds();
    Check(collected);
    client->CollectVMStats(nullptr);
    Check('\n' + none);

    Check(collected);
    failing->withoutMetricIds = true;
    Check(R"(
collect -> (GetChildEntity)
  4 OrdaneClient::CollectVMStats no-op, no metrid Id to query.
)" + none);
    failing->withoutMetricIds = false;

    Check(collected + R"(fail QueryPerf; collect -> (GetChildEntity)
  4 OrdaneClient::CollectVMStats: :it failed (4 backtrace)
connected? -> true
)" + none);

    Check(R"(
throw QueryPerf; collect -> throws not of the runtime (GetChildEntity)
repair QueryPerf; break QueryPerf; collect -> (GetChildEntity, QueryPerf, close adapter, close stream /connection/1, shut service down)
  4 OrdaneClient::CollectVMStats: :connection reset (4 backtrace)
connected? -> false
collect -> (open stream, AcquireLocalTicket, Login, GetChildEntity, QueryPerf)
get 16:cpu.used/0 -> 7
)");
    const Ref<VmArray> vms = AllVms();
    Check(R"(
break GetChildEntity; list -> null (GetChildEntity, close adapter, close stream /connection/2, shut service down)
down
)");
    client->CollectVMStats(vms.Get());
    EXPECT_EQ(log.Take().back(), (LogLine{4, "OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
    Check('\n' + none);
}

// An error between two results of a query.
TEST_F(StatisticsTest, KeepsWhatCameBeforeAnErrorAndDropsABrokenConnection) {
    client->GetAvailableCounterIds();
    failing->atSecondResult = [] { throw Ordane::Fault::HostCommunication::Exception("reset"); };
    Check(R"(
metrics 16:10/0=7 32:10/0=8; collect -> (GetChildEntity, QueryPerf, Logout, close adapter, close stream /connection/1, shut service down)
  4 OrdaneClient::CollectVMStats: :reset (4 backtrace)
get 16:cpu.used/0 -> 7
get 32:cpu.used/0 -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0
collect -> (open stream, AcquireLocalTicket, Login, GetChildEntity, QueryPerf)
get 32:cpu.used/0 -> 8
)");
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

// 0 is an id, a negative number of the catalogue is none.
TEST_F(StatisticsTest, NamesTheMissingStatisticOnOneLineOfTheLog) {
    host.metrics = Array<Performance::EntityMetricBase>({Metric("16", {Series(3, "a\nb", {1})})});
    Check(R"(
catalogue -5:cpu.used 0:mem.active 3:disk.read; collect -> (GetChildEntity, RetrieveContent, GetPerfCounter, QueryPerf)
get 16:mem.active -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for mem.active.any
get 16:cpu.used/0 -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for cpu.used
get 16:no.such/0 -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for no.such
get 64:disk.read/disk-0:0 -> -1
  4 OrdaneClient::RetrieveStats: couldn't find stats for disk.read.disk-0:0
)");
    const auto vm = Reference("VirtualMachine", "16");
    EXPECT_EQ(client->RetrieveStats(vm.Get(), "disk", "read", "b\nc"), -1);
    EXPECT_EQ(log.Take(),
              (Lines{{4, "OrdaneClient::RetrieveStats: couldn't find stats for disk.read.b\\x0ac\n"}}));
}

}  // namespace
}  // namespace RefreshTests
