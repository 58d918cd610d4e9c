// The backend on libvirt's own test driver, which runs in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/vessad/backends/LibvirtBackend.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad {
namespace {

using namespace Libvirt;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

TEST(TestDriver, HasItsHostAndDomainsWithStatesDevicesAndStatistics) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    const auto backend = MakeLibvirtBackend("test://" LIBVIRT_TEST_CASES "/test_driver_host.xml",
                                            directory.GetPath() / "state", {});
    const auto inventory = backend->GetInventory();
    backend->Reload();
    EXPECT_TRUE(backend->IsMakingProgress());
    EXPECT_THAT(HostLine(*inventory),
                testing::MatchesRegex(
                    "TEST 0.0.2, libvirt [0-9.]+, 6 cores, 8589934592 bytes, 0 reserved, 10 counters"));
    EXPECT_THAT(VmLines(*inventory),
                UnorderedElementsAre(
                    HasSubstr("0 vm-1 poweredOn running "), EndsWith("0 vm-2 poweredOff notRunning"),
                    HasSubstr("0 vm-3 suspended notRunning cpu.used"),
                    HasSubstr("0 blocked poweredOn running"), HasSubstr("0 ending poweredOn shuttingDown"),
                    EndsWith("0 crashed poweredOff notRunning"), HasSubstr("0 asleep suspended standby")));
    std::map<std::string, std::decay_t<decltype(inventory->vms.at(0))>> vms;
    for (const auto& vm : inventory->vms) {
        vms[ConfigLine(*vm->config)] = vm;
    }
    // The scheduler has 50 shares for those whose XML has none.
    const std::string rest = " | 512 MB, 512 shares | hvm (x86_64) | no file";
    const auto& vm = vms.at("vm-1 | 2 CPUs, 4096 shares" + rest);
    EXPECT_TRUE(vms.contains("vm-2 | 2 CPUs, 50 shares" + rest));
    EXPECT_THAT(
        DeviceLines(*vm->config),
        UnorderedElementsAre(StartsWith("LsiLogicController "), StartsWith("IDEController "),
                             StartsWith("IDEController "), StartsWith("SIOController "), StartsWith("Disk "),
                             HasSubstr(" | device /dev/vg/two"), HasSubstr(" | pool:images [images] web.img"),
                             HasSubstr(" | device images/missing"), StartsWith("Cdrom "),
                             StartsWith("Floppy "), StartsWith("EthernetCard ")));
    for (const char* const name : {"cpu.used 0=", "cpu.used 1=", "mem.active =",
                                   "disk.numberRead /dev/vg/two=", "disk.write /dev/vg/two="}) {
        EXPECT_THAT(SeriesText(vm->series), ContainsRegex(name + std::string("[1-9]")));
    }
}

}  // namespace
}  // namespace Vessad
