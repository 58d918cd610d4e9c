// The description of a domain without devices, the name of its guest and the text in it.
#include "apps/vessad/backends/libvirt/DomainXml.h"

#include <gtest/gtest.h>

#include "apps/vessad/backends/libvirt/Text.h"
#include "tests/support/files.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

std::string Describe(const std::string& xml, bool hasScheduler = false) {
    Describer describe;
    if (hasScheduler) {
        describe.schedulerShares = 100;
        describe.configFile = "/etc/web-1.xml";
    }
    return ConfigLine(*describe(xml).config);
}

TEST(DescribeDomain, ReadsNameMemoryCpusGuestAndShares) {
    for (const auto& [xml, line] : TestSupport::ReadCases(LIBVIRT_TEST_CASES "/domains.txt")) {
        EXPECT_EQ(Describe(xml, line.ends_with("/etc/web-1.xml")), line) << xml;
    }
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
    for (const auto& [bytes, text] : TestSupport::ReadCases(LIBVIRT_TEST_CASES "/texts.txt")) {
        EXPECT_EQ(WireText(bytes), text);
    }
}

}  // namespace
}  // namespace Vessad::Libvirt
