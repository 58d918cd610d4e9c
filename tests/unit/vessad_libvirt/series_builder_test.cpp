#include "apps/vessad/backends/libvirt/SeriesBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vessad::Libvirt {
namespace {

using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

using Name = std::pair<std::string, std::string>;

// "group.counter" and instance → value.
std::map<Name, std::int64_t> FiguresOf(const Statistics& statistics, const DomainDescription& domain) {
    const CounterKeys keys = KeysOf(StandardCounters());
    std::map<Name, std::int64_t> figures;
    for (const Series& series : BuildSeries(statistics, domain, keys)) {
        EXPECT_EQ(series.perSecond, 0);
        for (const auto& [name, key] : keys) {
            if (key == series.counterKey) {
                EXPECT_TRUE(figures.emplace(Name(name, series.instance), series.start).second) << name;
            }
        }
    }
    return figures;
}

Statistics Numbers(std::initializer_list<std::pair<const std::string, std::uint64_t>> numbers) {
    Statistics statistics;
    for (const auto& [name, number] : numbers) {
        statistics[name] = number;
    }
    return statistics;
}

TEST(Figures, AreNoneWhenTheHostTellsNone) {
    DomainDescription domain;
    domain.disks = {{"vda", "/dev/sda1"}};
    domain.cards = {{"vnet0", 4000}};
    EXPECT_THAT(FiguresOf({}, domain), IsEmpty());
}

TEST(Figures, OfCpusAreMillisecondsCountedOverTheEnabledOnes) {
    const auto statistics = Numbers({{"vcpu.current", 3},
                                     {"vcpu.maximum", 16},
                                     {"vcpu.0.time", 181000999999},
                                     {"vcpu.2.time", 1000000},
                                     {"vcpu.2.wait", 7},
                                     {"vcpu.10.time", 999999}});
    EXPECT_THAT(FiguresOf(statistics, {}),
                UnorderedElementsAre(Pair(Name("cpu.used", "0"), 181000), Pair(Name("cpu.used", "1"), 1),
                                     Pair(Name("cpu.used", "2"), 0)));
}

TEST(Figures, OfACpuWithoutATimeAreAbsentAndTheNextKeepsItsPlace) {
    EXPECT_THAT(FiguresOf(Numbers({{"vcpu.0.state", 1}, {"vcpu.1.time", 5000000}}), {}),
                UnorderedElementsAre(Pair(Name("cpu.used", "1"), 5)));
}

TEST(Figures, OfMemoryAreWhatTheGuestUsesWhenItTells) {
    EXPECT_THAT(
        FiguresOf(Numbers({{"balloon.available", 1000}, {"balloon.unused", 400}, {"balloon.rss", 900}}), {}),
        UnorderedElementsAre(Pair(Name("mem.active", ""), 600)));
}

TEST(Figures, OfMemoryAreWhatTheHostHoldsOtherwise) {
    EXPECT_THAT(FiguresOf(Numbers({{"balloon.available", 1000}, {"balloon.rss", 900}}), {}),
                UnorderedElementsAre(Pair(Name("mem.active", ""), 900)));
    EXPECT_THAT(
        FiguresOf(Numbers({{"balloon.available", 1000}, {"balloon.unused", 1001}, {"balloon.rss", 900}}), {}),
        UnorderedElementsAre(Pair(Name("mem.active", ""), 900)));
    EXPECT_THAT(FiguresOf(Numbers({{"balloon.current", 1000}}), {}), IsEmpty());
}

TEST(Figures, OfDisksAreSummedOverThoseOfOneNameBeforeTheyAreRounded) {
    DomainDescription domain;
    domain.disks = {{"vda", "/dev/sda1"}, {"vdb", "/dev/sda1"}, {"vdc", "/dev/sdb"}};
    auto statistics = Numbers({{"block.count", 4},
                               {"block.0.rd.reqs", 10},
                               {"block.0.rd.bytes", 1023},
                               {"block.0.wr.reqs", 20},
                               {"block.0.wr.bytes", 512},
                               {"block.2.rd.reqs", 1},
                               {"block.2.rd.bytes", 1},
                               {"block.2.wr.reqs", 2},
                               {"block.2.wr.bytes", 511},
                               {"block.3.rd.reqs", 5},
                               {"block.3.rd.bytes", 2048},
                               {"block.1.rd.reqs", 99}});
    statistics["block.0.name"] = std::string("vda");
    statistics["block.1.name"] = std::string("hdc");  // a CD-ROM drive
    statistics["block.2.name"] = std::string("vdb");
    statistics["block.3.name"] = std::string("vdc");
    EXPECT_THAT(FiguresOf(statistics, domain),
                UnorderedElementsAre(
                    Pair(Name("disk.numberRead", "/dev/sda1"), 11), Pair(Name("disk.read", "/dev/sda1"), 1),
                    Pair(Name("disk.numberWrite", "/dev/sda1"), 22), Pair(Name("disk.write", "/dev/sda1"), 0),
                    Pair(Name("disk.numberRead", "/dev/sdb"), 5), Pair(Name("disk.read", "/dev/sdb"), 2)));
}

TEST(Figures, OfCardsGoByTheirKeysInTheGuestsDirection) {
    DomainDescription domain;
    domain.cards = {{"vnet0", 4000}, {"vnet7", 4024}, {"", 4032}};
    auto statistics = Numbers({{"net.0.rx.bytes", 4096},
                               {"net.0.rx.pkts", 3},
                               {"net.0.tx.bytes", 2047},
                               {"net.0.tx.pkts", 5},
                               {"net.1.rx.pkts", 8},
                               {"net.2.rx.pkts", 9}});
    statistics["net.0.name"] = std::string("vnet7");
    statistics["net.1.name"] = std::string("vnet0");
    statistics["net.2.name"] = std::string("");
    EXPECT_THAT(
        FiguresOf(statistics, domain),
        UnorderedElementsAre(Pair(Name("net.received", "4024"), 4), Pair(Name("net.packetsRx", "4024"), 3),
                             Pair(Name("net.transmitted", "4024"), 1), Pair(Name("net.packetsTx", "4024"), 5),
                             Pair(Name("net.packetsRx", "4000"), 8)));
}

TEST(Figures, BeyondTheCatalogueAreLeftOut) {
    EXPECT_THAT(BuildSeries(Numbers({{"vcpu.0.time", 1}}), {}, {}), IsEmpty());
}

}  // namespace
}  // namespace Vessad::Libvirt
