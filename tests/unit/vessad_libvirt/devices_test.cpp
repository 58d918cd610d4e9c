#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

// One line per device, disk and card of the description, datastore and URL of a datastore.
std::string Render(const DomainDescription& description) {
    std::ostringstream text;
    for (const std::string& line : DeviceLines(*description.config)) {
        text << line << '\n';
    }
    for (const auto& disk : description.disks) {
        text << "disk " << disk.target << " with the statistics of " << disk.name << '\n';
    }
    for (const auto& card : description.cards) {
        text << "card " << card.key << " with the statistics of " << card.device << '\n';
    }
    for (const auto& [id, info] : description.datastores) {
        text << info->GetDataObjectType()->name << ' ' << id;
        if (const auto* local = Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(info.Get())) {
            text << ' ' << local->GetName().value_or("unnamed") << " on "
                 << (*local->GetDrell()->GetExtent())[0]->GetDiskName();
        }
        text << '\n';
    }
    for (const auto& pair : *description.config->GetDatastoreUrl()) {
        text << "URL of " << pair->GetName() << ": " << pair->GetUrl() << '\n';
    }
    text << (description.provisional ? "provisional\n" : "");
    return text.str();
}

// Each file of the folder devices/ is named after what it shows: a domain's XML and, after "--", its
// description.
TEST(Devices, OfADomainAreDescribed) {
    for (const auto& path : TestSupport::ListFiles(LIBVIRT_TEST_CASES "/devices")) {
        const std::string text = TestSupport::ReadFile(path);
        const std::size_t end = text.find("--\n");
        EXPECT_EQ(Render(Describer()(text.substr(0, end))), text.substr(end + 3)) << path;
    }
}

}  // namespace
}  // namespace Vessad::Libvirt
