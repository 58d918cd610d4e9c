#include "apps/vessad/backends/libvirt/DomainXml.h"

#include <gtest/gtest.h>

#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

constexpr const char* debianMetadata =
    "<metadata><libosinfo:libosinfo xmlns:libosinfo='http://libosinfo.org/xmlns/libvirt/domain/1.0'>"
    "<libosinfo:os id='http://debian.org/debian/12'/></libosinfo:libosinfo></metadata>";

TEST(DescribeDomain, TellsNameMemoryAndCpus) {
    const auto description = Describer()(DomainXmlWith(""));
    EXPECT_EQ(description.config->GetName(), "web-1");
    EXPECT_EQ(description.config->GetHardware()->GetMemoryMB(), 512);
    EXPECT_EQ(description.config->GetHardware()->GetNumCPU(), 2);
    EXPECT_EQ(description.config->GetHardware()->GetDevice()->GetLength(), 0);
    EXPECT_FALSE(description.provisional);
}

TEST(DescribeDomain, CountsTheCpusThatAreEnabled) {
    const auto description =
        Describer()("<domain><name>x</name><memory unit='KiB'>1</memory><vcpu current='3'>8</vcpu></domain>");
    EXPECT_EQ(description.config->GetHardware()->GetNumCPU(), 3);
    EXPECT_EQ(description.config->GetHardware()->GetMemoryMB(), 0);
}

TEST(DescribeDomain, KeepsMemoryWithinItsColumn) {
    const auto description =
        Describer()("<domain><name>x</name><memory unit='KiB'>9223372036854775807</memory></domain>");
    EXPECT_EQ(description.config->GetHardware()->GetMemoryMB(), 2147483647);
}

TEST(DescribeDomain, NamesTheGuestByTheOsinfoDatabase) {
    const VessadTest::TemporaryDirectory directory;
    std::filesystem::create_directories(directory.GetPath() / "os" / "debian.org");
    VessadTest::WriteAll(
        directory.GetPath() / "os" / "debian.org" / "debian-12.xml",
        "<libosinfo><os id='http://debian.org/debian/12'><name>Debian 12</name></os></libosinfo>");
    Describer describe;
    describe.guestNames = GuestNames({directory.GetPath()});
    EXPECT_EQ(describe(DomainXmlWith("", debianMetadata)).config->GetGuestFullName(), "Debian 12");
}

TEST(DescribeDomain, NamesTheGuestByTypeAndArchitectureOtherwise) {
    EXPECT_EQ(Describer()(DomainXmlWith("")).config->GetGuestFullName(), "hvm (x86_64)");
    EXPECT_EQ(Describer()(DomainXmlWith("", debianMetadata)).config->GetGuestFullName(), "hvm (x86_64)");
    EXPECT_EQ(
        Describer()("<domain><name>c</name><os><type>exe</type></os></domain>").config->GetGuestFullName(),
        "exe");
}

TEST(DescribeDomain, TakesCpuSharesFromTheXmlElseFromTheSchedulerElseTheKernels) {
    Describer describe;
    EXPECT_EQ(describe(DomainXmlWith("")).config->GetCpuAllocation()->GetShares()->GetShares(), 1024);
    describe.schedulerShares = 100;
    EXPECT_EQ(describe(DomainXmlWith("")).config->GetCpuAllocation()->GetShares()->GetShares(), 100);
    EXPECT_EQ(describe(DomainXmlWith("", "<cputune><shares>2048</shares></cputune>"))
                  .config->GetCpuAllocation()
                  ->GetShares()
                  ->GetShares(),
              2048);
}

TEST(DescribeDomain, GivesMemorySharesInProportionToTheMemory) {
    EXPECT_EQ(Describer()(DomainXmlWith("")).config->GetMemoryAllocation()->GetShares()->GetShares(), 512);
}

TEST(DescribeDomain, TellsTheConfigurationFileWhereThereIsOne) {
    Describer describe;
    EXPECT_EQ(describe(DomainXmlWith("")).config->GetFiles()->GetVmPathName(), std::nullopt);
    describe.configFile = "/etc/libvirt/qemu/web-1.xml";
    EXPECT_EQ(describe(DomainXmlWith("")).config->GetFiles()->GetVmPathName(), "/etc/libvirt/qemu/web-1.xml");
}

TEST(DescribeDomain, MakesTextFitForTheWire) {
    const auto description = Describer()("<domain><name>a&#1;b</name></domain>");
    EXPECT_EQ(description.config->GetName(), "a\uFFFDb");
}

TEST(DescribeDomain, RefusesWhatIsNoDomain) {
    EXPECT_THROW(Describer()("<domain><name>"), std::runtime_error);
    EXPECT_THROW(Describer()("<pool/>"), std::runtime_error);
    EXPECT_THROW(Describer()(""), std::runtime_error);
}

}  // namespace
}  // namespace Vessad::Libvirt
