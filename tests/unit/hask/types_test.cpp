#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/unit/hask/golden.h"

namespace Hask {
namespace {

using Ordane::GetDoType;
using Ordane::GetEnumType;
using Ordane::GetType;
using testing::ElementsAre;

namespace Device = Vm::Device;

TEST(HaskTypes, HaveNamesOfTheirOwnOnTheWire) {
    std::set<std::string_view> names;
    for (const auto* type : HaskTest::AllTypes()) {
        EXPECT_TRUE(names.insert(type->name).second) << type->name;
    }
}

TEST(HaskTypes, HaveNoTwoMembersOfOneName) {
    for (const auto* type : HaskTest::AllTypes()) {
        std::set<std::string_view> names;
        for (const auto* member : type->GetMembers()) {
            EXPECT_TRUE(names.insert(member->name).second) << type->name << "." << member->name;
        }
    }
}

TEST(HaskTypes, ListEachDescendantAndNothingElse) {
    for (const auto* type : HaskTest::AllTypes()) {
        for (const auto* other : HaskTest::AllTypes()) {
            EXPECT_EQ(type->FindSubtype(other->name) == other, other->IsA(type))
                << type->name << " " << other->name;
        }
    }
}

TEST(HaskTypes, TellControllersOfEachKindApart) {
    for (const auto* scsi :
         {GetType<Device::VirtualSCSIController>(), GetType<Device::VirtualLsiLogicController>(),
          GetType<Device::VirtualLsiLogicSASController>(), GetType<Device::VirtualBusLogicController>(),
          GetType<Device::ParaVirtualSCSIController>()}) {
        EXPECT_TRUE(GetDoType<Device::VirtualSCSIController>().Includes(scsi)) << scsi->name;
        EXPECT_TRUE(GetDoType<Device::VirtualController>().Includes(scsi)) << scsi->name;
        EXPECT_FALSE(GetDoType<Device::VirtualIDEController>().Includes(scsi)) << scsi->name;
    }
    EXPECT_FALSE(
        GetDoType<Device::VirtualSCSIController>().Includes(GetType<Device::VirtualIDEController>()));
}

TEST(HaskTypes, TakeEveryNetworkCardForACard) {
    for (const auto* card : {GetType<Device::VirtualEthernetCard>(), GetType<Device::VirtualPCNetCard>(),
                             GetType<Device::VirtualE1000Card>(), GetType<Device::VirtualVirtioCard>()}) {
        EXPECT_TRUE(GetDoType<Device::VirtualEthernetCard>().Includes(card)) << card->name;
    }
}

TEST(HaskTypes, TakeDisksDrivesAndCardsForDevicesThatAreNoControllers) {
    for (const auto* device : {GetType<Device::VirtualDisk>(), GetType<Device::VirtualCdrom>(),
                               GetType<Device::VirtualFloppy>(), GetType<Device::VirtualEthernetCard>()}) {
        EXPECT_TRUE(GetDoType<Device::VirtualDevice>().Includes(device)) << device->name;
        EXPECT_FALSE(GetDoType<Device::VirtualController>().Includes(device)) << device->name;
    }
}

TEST(HaskTypes, KnowThePowerStatesByNumberAndText) {
    using State = VirtualMachine::PowerState;
    EXPECT_THAT(GetEnumType<State>()->texts, ElementsAre("poweredOff", "poweredOn", "suspended"));
    EXPECT_EQ(static_cast<int>(State::poweredOff), 0);
    EXPECT_EQ(static_cast<int>(State::poweredOn), 1);
    EXPECT_EQ(static_cast<int>(State::suspended), 2);
}

TEST(HaskTypes, KnowTheRollupsByNumberAndText) {
    using Rollup = PerformanceManager::RollupType;
    EXPECT_THAT(GetEnumType<Rollup>()->texts,
                ElementsAre("average", "maximum", "minimum", "latest", "summation", "none"));
    EXPECT_EQ(static_cast<int>(Rollup::none), 5);
}

}  // namespace
}  // namespace Hask
