#include "apps/vessad/backends/libvirt/SeriesBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vessad::Libvirt {
namespace {

using testing::IsEmpty;

// "group.counter instance" → value.
using Values = std::map<std::string, std::int64_t>;

// `names`: the entries that are text, those of devices.
Values ValuesOf(const std::map<std::string, std::uint64_t>& numbers, const DomainDescription& domain = {},
                const std::map<std::string, std::string>& names = {}) {
    Statistics statistics(numbers.begin(), numbers.end());
    statistics.insert(names.begin(), names.end());
    const CounterKeys keys = KeysOf(StandardCounters());
    Values values;
    for (const Series& series : BuildSeries(statistics, domain, keys)) {
        EXPECT_EQ(series.perSecond, 0);
        for (const auto& [name, key] : keys) {
            if (key == series.counterKey) {
                EXPECT_TRUE(values.emplace(name + " " + series.instance, series.start).second) << name;
            }
        }
    }
    return values;
}

TEST(BuildSeries, LeavesOutWhatIsNotSampledOrNotInTheCatalogue) {
    DomainDescription domain;
    domain.disks = {{"vda", "/dev/sda1"}};
    domain.cards = {{"vnet0", 4000}};
    EXPECT_THAT(ValuesOf({}, domain), IsEmpty());
    EXPECT_THAT(BuildSeries({{"vcpu.0.time", std::uint64_t{1}}}, {}, {}), IsEmpty());
}

TEST(BuildSeries, CountsMillisecondsOfTheEnabledCpus) {
    EXPECT_EQ(ValuesOf({{"vcpu.current", 3},
                        {"vcpu.maximum", 16},
                        {"vcpu.0.time", 181000999999},
                        {"vcpu.2.time", 1000000},
                        {"vcpu.2.wait", 7},
                        {"vcpu.10.time", 999999}}),
              (Values{{"cpu.used 0", 181000}, {"cpu.used 1", 1}, {"cpu.used 2", 0}}));
    EXPECT_EQ(ValuesOf({{"vcpu.0.state", 1}, {"vcpu.1.time", 5000000}}), (Values{{"cpu.used 1", 5}}));
}

TEST(BuildSeries, TakesMemoryFromTheGuestElseFromTheHost) {
    const auto memory = [](std::map<std::string, std::uint64_t> numbers) {
        numbers["balloon.rss"] = 900;
        return ValuesOf(numbers);
    };
    EXPECT_EQ(memory({{"balloon.available", 1000}, {"balloon.unused", 400}}), (Values{{"mem.active ", 600}}));
    EXPECT_EQ(memory({{"balloon.available", 1000}}), (Values{{"mem.active ", 900}}));
    EXPECT_EQ(memory({{"balloon.available", 1000}, {"balloon.unused", 1001}}),
              (Values{{"mem.active ", 900}}));
    EXPECT_THAT(ValuesOf({{"balloon.current", 1000}}), IsEmpty());
}

TEST(BuildSeries, SumsTheDisksOfOneNameBeforeItRounds) {
    DomainDescription domain;
    domain.disks = {{"vda", "/dev/sda1"}, {"vdb", "/dev/sda1"}, {"vdc", "/dev/sdb"}};
    const std::map<std::string, std::string> names{{"block.0.name", "vda"},
                                                   {"block.1.name", "hdc"},  // a CD-ROM drive
                                                   {"block.2.name", "vdb"},
                                                   {"block.3.name", "vdc"}};
    EXPECT_EQ(ValuesOf({{"block.count", 4},
                        {"block.0.rd.reqs", 10},
                        {"block.0.rd.bytes", 1023},
                        {"block.0.wr.reqs", 20},
                        {"block.0.wr.bytes", 512},
                        {"block.1.rd.reqs", 99},
                        {"block.2.rd.reqs", 1},
                        {"block.2.rd.bytes", 1},
                        {"block.2.wr.reqs", 2},
                        {"block.2.wr.bytes", 511},
                        {"block.3.rd.reqs", 5},
                        {"block.3.rd.bytes", 2048}},
                       domain, names),
              (Values{{"disk.numberRead /dev/sda1", 11},
                      {"disk.read /dev/sda1", 1},
                      {"disk.numberWrite /dev/sda1", 22},
                      {"disk.write /dev/sda1", 0},
                      {"disk.numberRead /dev/sdb", 5},
                      {"disk.read /dev/sdb", 2}}));
}

TEST(BuildSeries, NamesCardsByTheirKeysInTheGuestsDirection) {
    DomainDescription domain;
    domain.cards = {{"vnet0", 4000}, {"vnet7", 4024}, {"", 4032}};
    EXPECT_EQ(ValuesOf({{"net.0.rx.bytes", 4096},
                        {"net.0.rx.pkts", 3},
                        {"net.0.tx.bytes", 2047},
                        {"net.0.tx.pkts", 5},
                        {"net.1.rx.pkts", 8},
                        {"net.2.rx.pkts", 9}},
                       domain, {{"net.0.name", "vnet7"}, {"net.1.name", "vnet0"}, {"net.2.name", ""}}),
              (Values{{"net.received 4024", 4},
                      {"net.packetsRx 4024", 3},
                      {"net.transmitted 4024", 1},
                      {"net.packetsTx 4024", 5},
                      {"net.packetsRx 4000", 8}}));
}

}  // namespace
}  // namespace Vessad::Libvirt
