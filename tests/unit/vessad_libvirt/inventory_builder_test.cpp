#include "apps/vessad/backends/libvirt/InventoryBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using PowerState = Hask::VirtualMachine::PowerState;
using testing::ElementsAre;

const std::string a = "00000000-0000-4000-8000-00000000000a";
const std::string b = "00000000-0000-4000-8000-00000000000b";
const std::string c = "00000000-0000-4000-8000-00000000000c";

class InventoryBuilderTest : public testing::Test {
  protected:
    InventoryBuilderTest() {
        reading.host = {"qemu:///system", "QEMU", 7002022, 9000000, 8, 16777216};
        vmIds.Admit({a, b});
    }

    void Add(const std::string& uuid, const std::string& devices = "",
             DomainState state = DomainState::Running) {
        reading.domains.push_back({uuid, uuid, state != DomainState::ShutOff, state,
                                   std::make_shared<DomainDescription>(Describer()(DomainXmlWith(devices)))});
    }

    std::vector<std::string> Ids(const Inventory& inventory) const {
        std::vector<std::string> ids;
        for (const auto& machine : inventory.vms) {
            ids.push_back(machine->id);
        }
        return ids;
    }

    VessadTest::TemporaryDirectory directory;
    VmIds vmIds{directory.GetPath()};
    HostReading reading;
};

TEST_F(InventoryBuilderTest, TellsTheProductTheCoresAndTheMemory) {
    const auto inventory = BuildInventory(reading, vmIds, {}, {});
    EXPECT_EQ(inventory->about->GetName(), "QEMU");
    EXPECT_EQ(inventory->about->GetVersion(), "7.2.22");
    EXPECT_EQ(inventory->about->GetBuild(), "9.0.0");
    EXPECT_EQ(inventory->hardware->GetCpuInfo()->GetNumCpuCores(), 8);
    EXPECT_EQ(inventory->serviceConsole->GetServiceConsoleReserved(), 0);
    EXPECT_EQ(inventory->serviceConsole->GetUnreserved(), 16777216LL * 1024);
    EXPECT_EQ(inventory->counters.size(), 10U);
}

TEST_F(InventoryBuilderTest, OrdersMachinesByTheirNumberNotByLibvirtsOrder) {
    Add(b);
    Add(a);
    EXPECT_THAT(Ids(*BuildInventory(reading, vmIds, {}, {})), ElementsAre("1000", "2000"));
}

TEST_F(InventoryBuilderTest, OrdersNumbersAsNumbers) {
    std::vector<std::string> uuids;
    for (int index = 0; index < 12; ++index) {
        std::string uuid = c;
        uuid[0] = static_cast<char>(index < 10 ? '0' + index : 'a' + index - 10);
        uuids.push_back(uuid);
        Add(uuid);
    }
    vmIds.Admit(uuids);
    const auto ids = Ids(*BuildInventory(reading, vmIds, {}, {}));
    ASSERT_EQ(ids.size(), 12U);
    EXPECT_EQ(ids.front(), "3000");
    EXPECT_EQ(ids.back(), "14000");
}

TEST_F(InventoryBuilderTest, HidesAMachineWithoutANumber) {
    Add(c);
    Add(a);
    EXPECT_THAT(Ids(*BuildInventory(reading, vmIds, {}, {})), ElementsAre("1000"));
}

TEST_F(InventoryBuilderTest, KeepsAMachineWhoseXmlCannotBeReadWithoutAConfiguration) {
    reading.domains.push_back({a, "broken", true, DomainState::Running, nullptr});
    const auto inventory = BuildInventory(reading, vmIds, {{a, {{"vcpu.0.time", std::uint64_t{1}}}}}, {});
    ASSERT_EQ(inventory->vms.size(), 1U);
    EXPECT_FALSE(inventory->vms[0]->config);
    EXPECT_TRUE(inventory->vms[0]->runtime);
    EXPECT_TRUE(inventory->vms[0]->series.empty());
}

TEST_F(InventoryBuilderTest, BringsFiguresToTheirMachineAndNoneWhereThereAreNone) {
    Add(a);
    Add(b);
    const auto inventory =
        BuildInventory(reading, vmIds, {{b, {{"vcpu.0.time", std::uint64_t{5000000}}}}}, {});
    EXPECT_TRUE(inventory->vms[0]->series.empty());
    ASSERT_EQ(inventory->vms[1]->series.size(), 1U);
    EXPECT_EQ(inventory->vms[1]->series[0].start, 5);
}

TEST_F(InventoryBuilderTest, CollectsTheDatastoresOfAllMachines) {
    Add(a, "<disk type='file'><source file='/pool/1'/><target dev='vda'/></disk>");
    Add(b, "<disk type='file'><source file='/nfs/1'/><target dev='vda'/></disk>");
    const auto inventory = BuildInventory(reading, vmIds, {}, {});
    EXPECT_EQ(inventory->datastores.size(), 2U);
    EXPECT_TRUE(inventory->datastores.contains("pool:default"));
    EXPECT_TRUE(inventory->datastores.contains("directory:/nfs"));
}

TEST_F(InventoryBuilderTest, LetsAClientFinishWithAMachineThatHasJustGone) {
    Add(a);
    Add(b);
    const auto before = BuildInventory(reading, vmIds, {}, {});
    reading.domains.pop_back();
    const auto now = BuildInventory(reading, vmIds, {}, *before);
    EXPECT_THAT(Ids(*now), ElementsAre("1000"));
    EXPECT_TRUE(now->vmsById.contains("2000"));
    EXPECT_NE(now->vmsById.at("1000"), before->vmsById.at("1000"));
    EXPECT_FALSE(BuildInventory(reading, vmIds, {}, *now)->vmsById.contains("2000"));
}

TEST_F(InventoryBuilderTest, ForgetsTheMachinesOfAHostThatIsLost) {
    Add(a);
    const auto inventory = WithoutVms(*BuildInventory(reading, vmIds, {}, {}));
    EXPECT_TRUE(inventory->vms.empty());
    EXPECT_TRUE(inventory->vmsById.empty());
    EXPECT_EQ(inventory->about->GetName(), "QEMU");
    EXPECT_EQ(inventory->hardware->GetCpuInfo()->GetNumCpuCores(), 8);
    EXPECT_EQ(inventory->counters.size(), 10U);
}

struct StateCase {
    DomainState state;
    bool active;
    PowerState power;
    const char* guest;
};

class States : public testing::TestWithParam<StateCase> {};

TEST_P(States, ShowAsTheTableOfTheDocumentsSays) {
    EXPECT_EQ(PowerStateOf(GetParam().state, GetParam().active), GetParam().power);
    EXPECT_EQ(GuestStateOf(GetParam().state, GetParam().active), GetParam().guest);
}

INSTANTIATE_TEST_SUITE_P(
    OfLibvirt, States,
    testing::Values(StateCase{DomainState::Running, true, PowerState::poweredOn, "running"},
                    StateCase{DomainState::Blocked, true, PowerState::poweredOn, "running"},
                    StateCase{DomainState::ShuttingDown, true, PowerState::poweredOn, "shuttingDown"},
                    StateCase{DomainState::Paused, true, PowerState::suspended, "notRunning"},
                    StateCase{DomainState::PmSuspended, true, PowerState::suspended, "standby"},
                    StateCase{DomainState::ShutOff, false, PowerState::poweredOff, "notRunning"},
                    StateCase{DomainState::Crashed, true, PowerState::poweredOff, "notRunning"},
                    StateCase{DomainState::Crashed, false, PowerState::poweredOff, "notRunning"},
                    StateCase{DomainState::None, true, PowerState::poweredOn, "unknown"},
                    StateCase{DomainState::None, false, PowerState::poweredOff, "notRunning"}));

}  // namespace
}  // namespace Vessad::Libvirt
