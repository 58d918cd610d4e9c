#include "apps/vessad/backends/libvirt/InventoryBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/vessad/backends/libvirt/SeriesBuilder.h"
#include "tests/support/files.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using testing::ElementsAre;
using testing::Key;

// `text`: "NAME=VALUE", separated by blanks; those whose name ends with ".name" are text.
Statistics ParseStatistics(const std::string& text) {
    Statistics statistics;
    std::istringstream stream(text);
    for (std::string name, value;
         std::getline(stream >> std::ws, name, '=') && std::getline(stream, value, ' ');) {
        if (name.ends_with(".name")) {
            statistics[name] = value;
        } else {
            statistics[name] = std::uint64_t{std::stoull(value)};
        }
    }
    return statistics;
}

// Of a host whose domains A and B have the ids 1000 and 2000; C has none.
class InventoryBuilderTest : public testing::Test {
  protected:
    InventoryBuilderTest() {
        reading.host = {"qemu:///system", "QEMU", 7002022, 9000000, 8, 16777216};
        vmIds.Admit({uuidA, uuidB});
    }

    void Add(const std::string& uuid, const std::string& file = "/pool/1") {
        const std::string disk = "<disk type='file'><source file='" + file + "'/><target dev='vda'/></disk>";
        reading.domains.push_back({uuid, uuid, true, DomainState::Running,
                                   std::make_shared<DomainDescription>(Describer()(DomainXmlWith(disk)))});
    }

    std::shared_ptr<const Inventory> Build(const std::map<std::string, Statistics>& samples = {},
                                           const Inventory& before = {}) const {
        return BuildInventory(reading, vmIds, samples, before);
    }

    VessadTest::TemporaryDirectory directory;
    VmIds vmIds{directory.GetPath()};
    HostReading reading;
};

TEST_F(InventoryBuilderTest, HasTheHostAlsoWithoutItsVms) {
    Add(uuidA);
    const auto with = Build();
    const auto without = WithoutVms(*with);
    for (const auto& inventory : {with, without}) {
        EXPECT_EQ(HostLine(*inventory),
                  "QEMU 7.2.22, libvirt 9.0.0, 8 cores, 17179869184 bytes, 0 reserved, 10 counters");
    }
    EXPECT_EQ(with->vms.size(), 1U);
    EXPECT_TRUE(without->vms.empty());
    EXPECT_TRUE(without->vmsById.empty());
}

TEST_F(InventoryBuilderTest, OrdersVmsByTheirIdAsANumberAndHidesThoseWithoutOne) {
    for (char digit = '8'; digit >= '1'; --digit) {
        vmIds.Admit({digit + uuidC.substr(1)});
        Add(digit + uuidC.substr(1));
    }
    for (const std::string& uuid : {uuidC, uuidB, uuidA}) {
        Add(uuid);
    }
    std::string ids;
    const auto inventory = Build();
    for (const auto& vm : inventory->vms) {
        ids += vm->id + " ";
    }
    EXPECT_EQ(ids, "1000 2000 3000 4000 5000 6000 7000 8000 9000 10000 ");
}

TEST_F(InventoryBuilderTest, HasVmsWithTheirStatisticsAndTheDatastoresOfAll) {
    Add(uuidA);
    Add(uuidB, "/nfs/1");
    const auto inventory = Build({{uuidB, ParseStatistics("vcpu.0.time=5000000")}});
    EXPECT_THAT(VmLines(*inventory),
                ElementsAre("1000 web-1 poweredOn running", "2000 web-1 poweredOn running cpu.used 0=5"));
    EXPECT_THAT(inventory->datastores, ElementsAre(Key("directory:/nfs"), Key("pool:default")));
}

TEST_F(InventoryBuilderTest, HasAVmWhoseXmlCannotBeReadWithoutAConfigurationAndStatistics) {
    reading.domains.push_back({uuidA, "broken", true, DomainState::Running, nullptr});
    EXPECT_THAT(VmLines(*Build({{uuidA, ParseStatistics("vcpu.0.time=5000000")}})),
                ElementsAre("1000 unconfigured poweredOn running"));
}

TEST_F(InventoryBuilderTest, FindsAVmByItsIdUntilTheCollectionAfterItsRemoval) {
    Add(uuidA);
    Add(uuidB);
    const auto before = Build();
    reading.domains.pop_back();
    const auto now = Build({}, *before);
    EXPECT_THAT(VmLines(*now), ElementsAre("1000 web-1 poweredOn running"));
    EXPECT_THAT(now->vmsById, ElementsAre(Key("1000"), Key("2000")));
    EXPECT_NE(now->vmsById.at("1000"), before->vmsById.at("1000"));
    EXPECT_THAT(Build({}, *now)->vmsById, ElementsAre(Key("1000")));
}

TEST(States, AreShownAsDocumented) {
    const auto* const names = Ordane::GetEnumType<Hask::VirtualMachine::PowerState>();
    for (const auto& [state, active, text] : std::vector<std::tuple<DomainState, bool, std::string>>{
             {DomainState::Running, true, "poweredOn running"},
             {DomainState::Blocked, true, "poweredOn running"},
             {DomainState::ShuttingDown, true, "poweredOn shuttingDown"},
             {DomainState::Paused, true, "suspended notRunning"},
             {DomainState::PmSuspended, true, "suspended standby"},
             {DomainState::ShutOff, false, "poweredOff notRunning"},
             {DomainState::Crashed, true, "poweredOff notRunning"},
             {DomainState::Crashed, false, "poweredOff notRunning"},
             {DomainState::None, true, "poweredOn unknown"},
             {DomainState::None, false, "poweredOff notRunning"}}) {
        EXPECT_EQ(std::string(names->GetText(static_cast<int>(PowerStateOf(state, active)))) + " " +
                      GuestStateOf(state, active),
                  text);
    }
}

TEST(BuildSeries, ReturnsTheStatisticsOfTheCounters) {
    DomainDescription domain;
    domain.disks = {{"vda", "/dev/sda1"}, {"vdb", "/dev/sda1"}, {"vdc", "/dev/sdb"}};
    domain.cards = {{"vnet0", 4000}, {"vnet7", 4024}, {"", 4032}};
    const auto keys = KeysOf(StandardCounters());
    for (const auto& [statistics, series] : TestSupport::ReadCases(LIBVIRT_TEST_CASES "/series.txt")) {
        EXPECT_EQ(SeriesText(BuildSeries(ParseStatistics(statistics), domain, keys)), series) << statistics;
    }
    EXPECT_TRUE(BuildSeries(ParseStatistics("vcpu.0.time=1"), {}, {}).empty()) << "no counter";
}

}  // namespace
}  // namespace Vessad::Libvirt
