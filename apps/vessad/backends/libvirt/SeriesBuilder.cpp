#include "apps/vessad/backends/libvirt/SeriesBuilder.h"

#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "runtime/hask/performance_counters.h"

namespace Vessad::Libvirt {
namespace {

constexpr std::uint64_t nanosecondsPerMillisecond = 1000000;
constexpr std::uint64_t bytesPerKilobyte = 1024;

std::optional<std::uint64_t> Number(const Statistics& statistics, const std::string& name) {
    const auto found = statistics.find(name);
    const auto* number = found == statistics.end() ? nullptr : std::get_if<std::uint64_t>(&found->second);
    return number == nullptr ? std::nullopt : std::optional(*number);
}

// Returns the numbers n of the names "GROUPn.…", in order; `group` ends with a dot.
std::set<int> Entries(const Statistics& statistics, std::string_view group) {
    std::set<int> entries;
    for (auto at = statistics.lower_bound(group); at != statistics.end() && at->first.starts_with(group);
         ++at) {
        const std::string_view rest = std::string_view(at->first).substr(group.size());
        int number = 0;
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
        if (error == std::errc() && end != rest.data() + rest.size() && *end == '.') {
            entries.insert(number);
        }
    }
    return entries;
}

// Returns the prefix of the entry of `group` whose name is `name`, such as "net.0.".
std::optional<std::string> FindEntry(const Statistics& statistics, const std::string& group,
                                     const std::string& name) {
    for (const int entry : Entries(statistics, group)) {
        std::string prefix = group + std::to_string(entry) + ".";
        const auto found = statistics.find(prefix + "name");
        if (found != statistics.end() && found->second == Statistics::mapped_type(name)) {
            return prefix;
        }
    }
    return std::nullopt;
}

class Builder {
  public:
    Builder(const Statistics& statistics, const DomainDescription& domain, const CounterKeys& keys)
        : statistics(statistics), domain(domain), keys(keys) {}

    std::vector<Series> Build() {
        AddCpus();
        AddMemory();
        AddDisks(Hask::Counters::diskNumberRead, "rd.reqs", 1);
        AddDisks(Hask::Counters::diskRead, "rd.bytes", bytesPerKilobyte);
        AddDisks(Hask::Counters::diskNumberWrite, "wr.reqs", 1);
        AddDisks(Hask::Counters::diskWrite, "wr.bytes", bytesPerKilobyte);
        AddCards(Hask::Counters::netPacketsRx, "rx.pkts", 1);
        AddCards(Hask::Counters::netReceived, "rx.bytes", bytesPerKilobyte);
        AddCards(Hask::Counters::netPacketsTx, "tx.pkts", 1);
        AddCards(Hask::Counters::netTransmitted, "tx.bytes", bytesPerKilobyte);
        return std::move(series);
    }

  private:
    void Add(const Hask::Counters::Counter& counter, std::string instance, std::uint64_t value) {
        if (const auto key = keys.find(Hask::Counters::FullName(counter.group, counter.name));
            key != keys.end()) {
            series.push_back({key->second, std::move(instance), static_cast<std::int64_t>(value), 0});
        }
    }

    void AddCpus() {
        int position = 0;
        for (const int cpu : Entries(statistics, "vcpu.")) {
            if (const auto time = Number(statistics, "vcpu." + std::to_string(cpu) + ".time")) {
                Add(Hask::Counters::cpuUsed, std::to_string(position), *time / nanosecondsPerMillisecond);
            }
            ++position;
        }
    }

    void AddMemory() {
        const auto available = Number(statistics, "balloon.available");
        const auto unused = Number(statistics, "balloon.unused");
        if (available && unused && *unused <= *available) {
            Add(Hask::Counters::memActive, "", *available - *unused);
        } else if (const auto resident = Number(statistics, "balloon.rss")) {
            Add(Hask::Counters::memActive, "", *resident);
        }
    }

    void AddDisks(const Hask::Counters::Counter& counter, const std::string& statistic, std::uint64_t unit) {
        std::map<std::string, std::uint64_t> sums;
        for (const auto& disk : domain.disks) {
            const auto entry = FindEntry(statistics, "block.", disk.target);
            const auto value = entry ? Number(statistics, *entry + statistic) : std::nullopt;
            if (value) {
                sums[disk.name] += *value;
            }
        }
        for (const auto& [name, sum] : sums) {
            Add(counter, name, sum / unit);
        }
    }

    void AddCards(const Hask::Counters::Counter& counter, const std::string& statistic, std::uint64_t unit) {
        for (const auto& card : domain.cards) {
            if (card.device.empty()) {
                continue;
            }
            const auto entry = FindEntry(statistics, "net.", card.device);
            if (const auto value = entry ? Number(statistics, *entry + statistic) : std::nullopt) {
                Add(counter, std::to_string(card.key), *value / unit);
            }
        }
    }

    const Statistics& statistics;
    const DomainDescription& domain;
    const CounterKeys& keys;
    std::vector<Series> series;
};

}  // namespace

std::vector<Series> BuildSeries(const Statistics& statistics, const DomainDescription& domain,
                                const CounterKeys& keys) {
    return Builder(statistics, domain, keys).Build();
}

}  // namespace Vessad::Libvirt
