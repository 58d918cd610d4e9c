#include "apps/vessad/backends/libvirt/GuestNames.h"

#include <gtest/gtest.h>

#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

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
    EXPECT_EQ(names.Find(debian), std::nullopt);
    Install("system", "debian.org/debian-12.xml", debian, "Debian 12");
    EXPECT_EQ(names.Find(debian), "Debian 12");
}

TEST_F(GuestNamesTest, OfAnAdministratorComeFirst) {
    Install("system", "debian.org/debian-12.xml", debian, "Debian 12");
    Install("own", "debian.org/debian-12.xml", debian, "Our Debian");
    EXPECT_EQ(names.Find(debian), "Our Debian");
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

}  // namespace
}  // namespace Vessad::Libvirt
