#include "apps/vessad/backends/libvirt/HostReader.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad_libvirt/description.h"
#include "tests/unit/vessad_libvirt/fake_api.h"

namespace Vessad::Libvirt {
namespace {

Domain DomainWithDisk(const std::string& uuid, const std::string& source) {
    return {uuid,
            "web-1",
            true,
            true,
            DomainState::Running,
            DomainXmlWith("<disk device='disk' " + source + "<target dev='vda' bus='virtio'/></disk>")};
}

Domain DomainWithFile(const std::string& uuid, const std::string& file) {
    return DomainWithDisk(uuid, "type='file'><source file='" + file + "'/>");
}

std::string PoolXml(const std::string& name, const std::string& path) {
    return "<pool type='dir'><name>" + name + "</name><target><path>" + path + "</path></target></pool>";
}

// On a host with the domains A, in /a, and B, in /b, and a pool in /a.
class HostReaderTest : public testing::Test {
  protected:
    using Description = std::shared_ptr<const DomainDescription>;

    void SetDomains(std::vector<Domain> domains) {
        api->With([&](FakeState& state) { state.domains = std::move(domains); });
    }

    // Returns the descriptions in the order of the domains.
    std::vector<Description> Read() {
        std::vector<Description> descriptions;
        for (const DescribedDomain& domain : reader.Read(*connection, pools).domains) {
            descriptions.push_back(domain.description);
        }
        return descriptions;
    }

    static std::string DatastoreOf(const Description& description) {
        return description ? description->datastores.begin()->first : "no description";
    }

    const Domain a = DomainWithFile(uuidA, "/a/1.img");
    const Domain b = DomainWithFile(uuidB, "/b/1.img");
    std::vector<std::string> pools{PoolXml("a", "/a")};
    VessadTest::LogLines log;
    const std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    const std::unique_ptr<Connection> connection = api->Open("");
    HostReader reader{{}};
};

TEST_F(HostReaderTest, DescribesAnewOnlyDomainsWithAFileThatLiesElsewhereSinceTheStorageChanged) {
    SetDomains({a, b});
    const auto before = Read();
    pools.push_back(PoolXml("unused", "/unused"));
    EXPECT_EQ(Read(), before);
    pools.push_back(PoolXml("b", "/b"));
    const auto after = Read();
    EXPECT_EQ(after.at(0), before.at(0));
    EXPECT_EQ(DatastoreOf(before.at(1)), "directory:/b");
    EXPECT_EQ(DatastoreOf(after.at(1)), "pool:b");
}

TEST_F(HostReaderTest, KeepsAnOutdatedDescriptionUntilTheHostDescribesTheDomain) {
    Domain undescribed = a;
    undescribed.xml.clear();
    const auto changePool = [this] { pools = {PoolXml("renamed", "/a")}; };
    const auto markOutdated = [this] { reader.MarkOutdated(); };
    for (const auto& change : {std::function<void()>(changePool), std::function<void()>(markOutdated)}) {
        SetDomains({a});
        const auto before = Read();
        change();
        SetDomains({undescribed});
        EXPECT_EQ(Read(), before);
        EXPECT_EQ(Read(), before);
        SetDomains({a});
        EXPECT_NE(Read(), before);
    }
    EXPECT_EQ(DatastoreOf(Read().at(0)), "pool:renamed");
    EXPECT_EQ(log.GetText(), "");
}

TEST_F(HostReaderTest, KeepsAProvisionalDescriptionWhileTheHostDoesNotDescribeTheDomain) {
    Domain domain = DomainWithDisk(uuidA, "type='volume'><source pool='a' volume='missing'/>");
    SetDomains({domain});
    const auto first = Read();
    const auto second = Read();
    EXPECT_NE(second, first);
    domain.xml.clear();
    SetDomains({domain});
    EXPECT_EQ(Read(), second);
    EXPECT_EQ(log.GetText(), "");
}

}  // namespace
}  // namespace Vessad::Libvirt
