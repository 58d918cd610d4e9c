#include "apps/vessad/backends/libvirt/GuestNames.h"

#include <gtest/gtest.h>

#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

class GuestNamesTest : public testing::Test {
  protected:
    // Adds the file of a system to a database below the test's directory.
    void Install(const std::string& database, const std::string& file, const std::string& id,
                 const std::string& name) {
        const auto path = directory.GetPath() / database / "os" / file;
        std::filesystem::create_directories(path.parent_path());
        VessadTest::WriteAll(path, R"(<?xml version="1.0"?><libosinfo version="0.0.1"><os id=")" + id +
                                       R"("><short-id>x</short-id><name>)" + name +
                                       R"(</name><name xml:lang="de">Anders</name></os></libosinfo>)");
    }

    GuestNames Names() const {
        return GuestNames({directory.GetPath() / "own", directory.GetPath() / "system"});
    }

    VessadTest::TemporaryDirectory directory;
};

TEST_F(GuestNamesTest, AreFoundInTheDatabaseByTheirId) {
    Install("system", "debian.org/debian-12.xml", "http://debian.org/debian/12", "Debian 12");
    EXPECT_EQ(Names().Find("http://debian.org/debian/12"), "Debian 12");
}

TEST_F(GuestNamesTest, OfAnAdministratorComeFirst) {
    Install("system", "debian.org/debian-12.xml", "http://debian.org/debian/12", "Debian 12");
    Install("own", "debian.org/debian-12.xml", "http://debian.org/debian/12", "Our Debian");
    EXPECT_EQ(Names().Find("http://debian.org/debian/12"), "Our Debian");
}

TEST_F(GuestNamesTest, AreMissingWithoutADatabaseAndFoundOnceThereIsOne) {
    GuestNames names = Names();
    EXPECT_EQ(names.Find("http://debian.org/debian/12"), std::nullopt);
    Install("system", "debian.org/debian-12.xml", "http://debian.org/debian/12", "Debian 12");
    EXPECT_EQ(names.Find("http://debian.org/debian/12"), "Debian 12");
}

TEST_F(GuestNamesTest, AreNotThoseOfAnotherIdInThatFile) {
    Install("system", "debian.org/debian-12.xml", "http://debian.org/debian/13", "Debian 13");
    EXPECT_EQ(Names().Find("http://debian.org/debian/12"), std::nullopt);
}

TEST_F(GuestNamesTest, NeverLeaveTheDatabase) {
    const std::string id = "http://debian.org/../../../secret";
    Install("system", "debian.org/..-..-..-secret.xml", id, "never");
    Install("system", "../secret.xml", id, "never");
    EXPECT_EQ(Names().Find(id), std::nullopt);
    EXPECT_EQ(Names().Find("http://../secret"), std::nullopt);
    EXPECT_EQ(Names().Find("http:///secret"), std::nullopt);
    EXPECT_EQ(Names().Find("http://vendor/"), std::nullopt);
    EXPECT_EQ(Names().Find("http://vendor"), std::nullopt);
    EXPECT_EQ(Names().Find("file:///etc/passwd"), std::nullopt);
}

TEST_F(GuestNamesTest, AreMissingInADamagedDatabase) {
    Install("system", "debian.org/debian-12.xml", "http://debian.org/debian/12", "<broken");
    EXPECT_EQ(Names().Find("http://debian.org/debian/12"), std::nullopt);
}

}  // namespace
}  // namespace Vessad::Libvirt
