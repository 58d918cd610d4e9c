#include "apps/vessad/backends/libvirt/InventoryBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using PowerState = Hask::VirtualMachine::PowerState;
using testing::ElementsAre;

const Statistics fiveMilliseconds{{"vcpu.0.time", std::uint64_t{5000000}}};

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

    static std::vector<std::string> Ids(const Inventory& inventory) {
        std::vector<std::string> ids;
        for (const auto& vm : inventory.vms) {
            ids.push_back(vm->id);
        }
        return ids;
    }

    VessadTest::TemporaryDirectory directory;
    VmIds vmIds{directory.GetPath()};
    HostReading reading;
};

TEST_F(InventoryBuilderTest, HasTheHostAlsoWithoutItsVms) {
    Add(uuidA);
    for (const auto& inventory : {Build(), WithoutVms(*Build())}) {
        EXPECT_EQ(inventory->about->GetName(), "QEMU");
        EXPECT_EQ(inventory->about->GetVersion(), "7.2.22");
        EXPECT_EQ(inventory->about->GetBuild(), "9.0.0");
        EXPECT_EQ(inventory->hardware->GetCpuInfo()->GetNumCpuCores(), 8);
        EXPECT_EQ(inventory->serviceConsole->GetServiceConsoleReserved(), 0);
        EXPECT_EQ(inventory->serviceConsole->GetUnreserved(), 16777216LL * 1024);
        EXPECT_EQ(inventory->counters.size(), 10U);
    }
    EXPECT_EQ(Build()->vms.size(), 1U);
    EXPECT_TRUE(WithoutVms(*Build())->vms.empty());
    EXPECT_TRUE(WithoutVms(*Build())->vmsById.empty());
}

TEST_F(InventoryBuilderTest, OrdersVmsByTheirIdAsANumberAndHidesThoseWithoutOne) {
    std::vector<std::string> uuids;
    for (const char digit : {'1', '2', '3', '4', '5', '6', '7', '8'}) {
        uuids.push_back(uuidC);
        uuids.back()[0] = digit;
        Add(uuids.back());
    }
    vmIds.Admit(uuids);
    Add(uuidC);
    Add(uuidB);
    Add(uuidA);
    EXPECT_THAT(Ids(*Build()),
                ElementsAre("1000", "2000", "3000", "4000", "5000", "6000", "7000", "8000", "9000", "10000"));
}

TEST_F(InventoryBuilderTest, HasAVmWhoseXmlCannotBeReadWithoutAConfiguration) {
    reading.domains.push_back({uuidA, "broken", true, DomainState::Running, nullptr});
    const auto inventory = Build({{uuidA, fiveMilliseconds}});
    ASSERT_EQ(inventory->vms.size(), 1U);
    EXPECT_FALSE(inventory->vms[0]->config);
    EXPECT_TRUE(inventory->vms[0]->runtime);
    EXPECT_TRUE(inventory->vms[0]->series.empty());
}

TEST_F(InventoryBuilderTest, HasTheStatisticsOfTheirVmAndTheDatastoresOfAll) {
    Add(uuidA);
    Add(uuidB, "/nfs/1");
    const auto inventory = Build({{uuidB, fiveMilliseconds}});
    EXPECT_TRUE(inventory->vms[0]->series.empty());
    ASSERT_EQ(inventory->vms[1]->series.size(), 1U);
    EXPECT_EQ(inventory->vms[1]->series[0].start, 5);
    EXPECT_EQ(inventory->datastores.size(), 2U);
    EXPECT_TRUE(inventory->datastores.contains("pool:default"));
    EXPECT_TRUE(inventory->datastores.contains("directory:/nfs"));
}

TEST_F(InventoryBuilderTest, FindsAVmByItsIdUntilTheCollectionAfterItsRemoval) {
    Add(uuidA);
    Add(uuidB);
    const auto before = Build();
    reading.domains.pop_back();
    const auto now = Build({}, *before);
    EXPECT_THAT(Ids(*now), ElementsAre("1000"));
    EXPECT_TRUE(now->vmsById.contains("2000"));
    EXPECT_NE(now->vmsById.at("1000"), before->vmsById.at("1000"));
    EXPECT_FALSE(Build({}, *now)->vmsById.contains("2000"));
}

TEST(States, AreShownAsDocumented) {
    struct Case {
        DomainState state;
        bool active;
        PowerState power;
        const char* guest;
    };
    for (const auto& [state, active, power, guest] :
         {Case{DomainState::Running, true, PowerState::poweredOn, "running"},
          Case{DomainState::Blocked, true, PowerState::poweredOn, "running"},
          Case{DomainState::ShuttingDown, true, PowerState::poweredOn, "shuttingDown"},
          Case{DomainState::Paused, true, PowerState::suspended, "notRunning"},
          Case{DomainState::PmSuspended, true, PowerState::suspended, "standby"},
          Case{DomainState::ShutOff, false, PowerState::poweredOff, "notRunning"},
          Case{DomainState::Crashed, true, PowerState::poweredOff, "notRunning"},
          Case{DomainState::Crashed, false, PowerState::poweredOff, "notRunning"},
          Case{DomainState::None, true, PowerState::poweredOn, "unknown"},
          Case{DomainState::None, false, PowerState::poweredOff, "notRunning"}}) {
        EXPECT_EQ(PowerStateOf(state, active), power) << static_cast<int>(state) << active;
        EXPECT_EQ(GuestStateOf(state, active), guest) << static_cast<int>(state) << active;
    }
}

}  // namespace
}  // namespace Vessad::Libvirt
