#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "runtime/hask/api.h"

namespace Hask {
namespace {

using Ordane::DataObjectType;
using Ordane::GetDoType;
using Ordane::GetEnumType;
using Ordane::GetType;
using testing::ElementsAre;

namespace Device = Vm::Device;

// That the kind of device Base includes all of `types` and Other none of them.
template <class Base, class Other>
void ExpectKind(const std::vector<const DataObjectType*>& types) {
    for (const DataObjectType* type : types) {
        EXPECT_TRUE(GetDoType<Base>().Includes(type)) << type->name;
        EXPECT_FALSE(GetDoType<Other>().Includes(type)) << type->name;
    }
}

TEST(HaskTypes, AreDevicesOfOneKind) {
    const std::vector<const DataObjectType*> scsi{
        GetType<Device::VirtualSCSIController>(), GetType<Device::VirtualLsiLogicController>(),
        GetType<Device::VirtualLsiLogicSASController>(), GetType<Device::VirtualBusLogicController>(),
        GetType<Device::ParaVirtualSCSIController>()};
    ExpectKind<Device::VirtualSCSIController, Device::VirtualIDEController>(scsi);
    ExpectKind<Device::VirtualController, Device::VirtualDisk>(scsi);
    ExpectKind<Device::VirtualIDEController, Device::VirtualSCSIController>(
        {GetType<Device::VirtualIDEController>()});
    ExpectKind<Device::VirtualEthernetCard, Device::VirtualController>(
        {GetType<Device::VirtualEthernetCard>(), GetType<Device::VirtualPCNetCard>(),
         GetType<Device::VirtualE1000Card>(), GetType<Device::VirtualVirtioCard>()});
    ExpectKind<Device::VirtualDevice, Device::VirtualController>(
        {GetType<Device::VirtualDisk>(), GetType<Device::VirtualCdrom>(), GetType<Device::VirtualFloppy>(),
         GetType<Device::VirtualEthernetCard>()});
}

TEST(HaskEnumerations, HaveTheirNumbersAndTexts) {
    using State = VirtualMachine::PowerState;
    EXPECT_THAT(GetEnumType<State>()->texts, ElementsAre("poweredOff", "poweredOn", "suspended"));
    EXPECT_EQ(static_cast<int>(State::poweredOff), 0);
    EXPECT_EQ(static_cast<int>(State::poweredOn), 1);
    EXPECT_EQ(static_cast<int>(State::suspended), 2);
    using Rollup = PerformanceManager::RollupType;
    EXPECT_THAT(GetEnumType<Rollup>()->texts,
                ElementsAre("average", "maximum", "minimum", "latest", "summation", "none"));
    EXPECT_EQ(static_cast<int>(Rollup::none), 5);
}

}  // namespace
}  // namespace Hask
