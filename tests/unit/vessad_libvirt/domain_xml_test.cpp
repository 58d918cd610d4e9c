// The description of a domain without devices, the name of its guest and the text in it.
#include "apps/vessad/backends/libvirt/DomainXml.h"

#include <gtest/gtest.h>

#include "apps/vessad/backends/libvirt/Text.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using namespace std::string_literals;

std::string Describe(const std::string& xml, Describer describe = {}) {
    return ConfigLine(*describe(xml).config);
}

TEST(DescribeDomain, ReadsNameMemoryCpusAndGuest) {
    EXPECT_EQ(Describe(DomainXmlWith("")),
              "web-1 | 2 CPUs, 1024 shares | 512 MB, 512 shares | hvm (x86_64) | no file");
    EXPECT_EQ(DeviceLines(*Describer()(DomainXmlWith("")).config), std::vector<std::string>());
    // The enabled CPUs, and memory and text within their range.
    EXPECT_EQ(Describe("<domain><name>a&#1;b</name><memory unit='KiB'>1</memory><vcpu current='3'>8</vcpu>"
                       "<os><type>exe</type></os></domain>"),
              "a\uFFFDb | 3 CPUs, 1024 shares | 0 MB, 0 shares | exe | no file");
    EXPECT_EQ(Describe("<domain><memory unit='KiB'>9223372036854775807</memory></domain>"),
              " | 0 CPUs, 1024 shares | 2147483647 MB, 2147483647 shares |  | no file");
}

TEST(DescribeDomain, TakesCpuSharesFromTheXmlElseFromTheScheduler) {
    Describer describe;
    describe.schedulerShares = 100;
    describe.configFile = "/etc/web-1.xml";
    EXPECT_EQ(Describe(DomainXmlWith(""), describe),
              "web-1 | 2 CPUs, 100 shares | 512 MB, 512 shares | hvm (x86_64) | /etc/web-1.xml");
    EXPECT_EQ(Describe(DomainXmlWith("", "<cputune><shares>2048</shares></cputune>"), describe),
              "web-1 | 2 CPUs, 2048 shares | 512 MB, 512 shares | hvm (x86_64) | /etc/web-1.xml");
}

TEST(DescribeDomain, RejectsWhatIsNoDomain) {
    for (const char* const xml : {"<domain><name>", "<pool/>", ""}) {
        EXPECT_THROW(Describe(xml), std::runtime_error) << xml;
    }
}

const std::string debian = "http://debian.org/debian/12";

class GuestNamesTest : public testing::Test {
  protected:
    // Adds the file of a system to the database "own" or "system".
    void Install(const std::string& database, const std::string& file, const std::string& id,
                 const std::string& name) {
        const auto path = directory.GetPath() / database / "os" / file;
        std::filesystem::create_directories(path.parent_path());
        VessadTest::WriteAll(path, R"(<?xml version="1.0"?><libosinfo version="0.0.1"><os id=")" + id +
                                       R"("><short-id>x</short-id><name>)" + name +
                                       R"(</name><name xml:lang="de">Anders</name></os></libosinfo>)");
    }

    VessadTest::TemporaryDirectory directory;
    GuestNames names{{directory.GetPath() / "own", directory.GetPath() / "system"}};
};

TEST_F(GuestNamesTest, AreFoundByIdOnceTheDatabaseHasThem) {
    Describer describe;
    describe.guestNames = names;
    const std::string xml = DomainXmlWith(
        "",
        "<metadata><osinfo:libosinfo xmlns:osinfo='http://libosinfo.org/xmlns/libvirt/domain/1.0'>"
        "<osinfo:os id='" +
            debian + "'/></osinfo:libosinfo></metadata>");
    EXPECT_EQ(describe(xml).config->GetGuestFullName(), "hvm (x86_64)");
    Install("system", "debian.org/debian-12.xml", debian, "Debian 12");
    EXPECT_EQ(describe(xml).config->GetGuestFullName(), "Debian 12");
    Install("own", "debian.org/debian-12.xml", debian, "Our Debian");
    EXPECT_EQ(names.Find(debian), "Our Debian") << "an administrator's database comes first";
}

TEST_F(GuestNamesTest, AreMissingInAFileOfAnotherIdOrADamagedOne) {
    Install("own", "debian.org/debian-12.xml", "http://debian.org/debian/13", "Debian 13");
    Install("system", "debian.org/debian-12.xml", debian, "<broken");
    EXPECT_EQ(names.Find(debian), std::nullopt);
}

TEST_F(GuestNamesTest, NeverComeFromOutsideTheDatabase) {
    const std::string id = "http://debian.org/../../../secret";
    Install("system", "debian.org/..-..-..-secret.xml", id, "never");
    Install("system", "../secret.xml", id, "never");
    for (const std::string& each :
         {id, std::string("http://../secret"), std::string("http:///secret"), std::string("http://vendor/"),
          std::string("http://vendor"), std::string("file:///etc/passwd")}) {
        EXPECT_EQ(names.Find(each), std::nullopt) << each;
    }
}

TEST(WireText, ReplacesOnlyTheBytesThatXmlCannotCarry) {
    EXPECT_EQ(WireText(""), "");
    EXPECT_EQ(WireText("web-1 \t größe 日本 \U0001F427"), "web-1 \t größe 日本 \U0001F427");
    EXPECT_EQ(WireText("a\x01\x02"s + "b\0c"s), "a\uFFFD\uFFFDb\uFFFDc");
    EXPECT_EQ(WireText("\xff"s + "a"), "\uFFFDa");
    EXPECT_EQ(WireText("\xe2\x82"s + "x€"), "\uFFFD\uFFFDx€");
    EXPECT_EQ(WireText("end \xf0\x9f\x90"), "end \uFFFD\uFFFD\uFFFD");
}

}  // namespace
}  // namespace Vessad::Libvirt
