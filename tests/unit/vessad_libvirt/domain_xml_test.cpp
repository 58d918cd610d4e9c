#include "apps/vessad/backends/libvirt/DomainXml.h"

#include <gtest/gtest.h>

#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

constexpr const char* debianMetadata =
    "<metadata><libosinfo:libosinfo xmlns:libosinfo='http://libosinfo.org/xmlns/libvirt/domain/1.0'>"
    "<libosinfo:os id='http://debian.org/debian/12'/></libosinfo:libosinfo></metadata>";

Tessim::Ref<Hask::Vm::ConfigInfo> ConfigOf(const std::string& xml) {
    return Describer()(xml).config;
}

TEST(DescribeDomain, ReadsNameMemoryCpusAndMemoryShares) {
    const auto config = ConfigOf(DomainXmlWith(""));
    EXPECT_EQ(config->GetName(), "web-1");
    EXPECT_EQ(config->GetHardware()->GetMemoryMB(), 512);
    EXPECT_EQ(config->GetHardware()->GetNumCPU(), 2);
    EXPECT_EQ(config->GetHardware()->GetDevice()->GetLength(), 0);
    EXPECT_EQ(config->GetMemoryAllocation()->GetShares()->GetShares(), 512);
    EXPECT_EQ(config->GetGuestFullName(), "hvm (x86_64)");
}

TEST(DescribeDomain, CountsEnabledCpusAndKeepsMemoryAndTextWithinTheirRange) {
    const auto small = ConfigOf(
        "<domain><name>a&#1;b</name><memory unit='KiB'>1</memory><vcpu "
        "current='3'>8</vcpu><os><type>exe</type></os>"
        "</domain>");
    EXPECT_EQ(small->GetName(), "a\uFFFDb");
    EXPECT_EQ(small->GetHardware()->GetNumCPU(), 3);
    EXPECT_EQ(small->GetHardware()->GetMemoryMB(), 0);
    EXPECT_EQ(small->GetGuestFullName(), "exe");
    const auto large = ConfigOf("<domain><memory unit='KiB'>9223372036854775807</memory></domain>");
    EXPECT_EQ(large->GetHardware()->GetMemoryMB(), 2147483647);
}

TEST(DescribeDomain, NamesTheGuestByTheOsinfoDatabaseElseByTypeAndArchitecture) {
    EXPECT_EQ(ConfigOf(DomainXmlWith("", debianMetadata))->GetGuestFullName(), "hvm (x86_64)");
    const VessadTest::TemporaryDirectory directory;
    std::filesystem::create_directories(directory.GetPath() / "os" / "debian.org");
    VessadTest::WriteAll(
        directory.GetPath() / "os" / "debian.org" / "debian-12.xml",
        "<libosinfo><os id='http://debian.org/debian/12'><name>Debian 12</name></os></libosinfo>");
    Describer describe;
    describe.guestNames = GuestNames({directory.GetPath()});
    EXPECT_EQ(describe(DomainXmlWith("", debianMetadata)).config->GetGuestFullName(), "Debian 12");
}

TEST(DescribeDomain, TakesCpuSharesFromTheXmlElseFromTheSchedulerElseTheKernelsDefault) {
    Describer describe;
    const auto shares = [&](const std::string& elements) {
        return describe(DomainXmlWith("", elements)).config->GetCpuAllocation()->GetShares()->GetShares();
    };
    EXPECT_EQ(shares(""), 1024);
    describe.schedulerShares = 100;
    EXPECT_EQ(shares(""), 100);
    EXPECT_EQ(shares("<cputune><shares>2048</shares></cputune>"), 2048);
}

TEST(DescribeDomain, HasTheConfigurationFileWhereThereIsOne) {
    Describer describe;
    EXPECT_EQ(describe(DomainXmlWith("")).config->GetFiles()->GetVmPathName(), std::nullopt);
    describe.configFile = "/etc/libvirt/qemu/web-1.xml";
    EXPECT_EQ(describe(DomainXmlWith("")).config->GetFiles()->GetVmPathName(), "/etc/libvirt/qemu/web-1.xml");
}

TEST(DescribeDomain, RejectsWhatIsNoDomain) {
    for (const char* const xml : {"<domain><name>", "<pool/>", ""}) {
        EXPECT_THROW(Describer()(xml), std::runtime_error) << xml;
    }
}

}  // namespace
}  // namespace Vessad::Libvirt
