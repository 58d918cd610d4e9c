#include "apps/vessad/ChangeTracker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap.h"

namespace Vessad {
namespace {

using Tessim::MakeRef;
using Tessim::Ref;
using Changes = Hask::Folder::Changes;

// The ids in a part of the changes.
std::string Render(const Changes& part) {
    std::string text = part.IsReset() ? "reset" : "";
    for (const auto& vm : *part.GetVm()) {
        text += " " + vm->GetEntity()->GetId();
    }
    for (const auto& datastore : *part.GetDatastore()) {
        text += " " + datastore->GetEntity()->GetId();
    }
    if (part.GetObjects() != nullptr) {
        text += " list:";
        for (const auto& references : {part.GetObjects()->GetVm(), part.GetObjects()->GetDatastore()}) {
            for (const auto& reference : *references) {
                text += reference->GetId() + ",";
            }
        }
    }
    return text + ";";
}

// The response as a client reads it, which throws what is beyond its limits.
void ExpectReadable(const Ref<Changes>& part) {
    const Ordane::MethodInfo& method = *Hask::Folder::staticType.FindMethod("RetrieveChanges");
    const auto response = method.response->create();
    method.response->ownMembers[0].append(*response, Ordane::Value(static_cast<Ordane::Any*>(part.Get())));
    const std::string text = Ordane::Soap::EncodeResponse(method, *response);
    EXPECT_NO_THROW(Ordane::Soap::Message(text, {})) << Render(*part);
}

class ChangeTrackerTest : public testing::Test {
  protected:
    // Makes an inventory of VMs, "ID=NAME", and datastores, "ds-N=NAME", each with what the one before had
    // under the same text.
    void Serve(const std::string& objects) {
        auto made = std::make_shared<Inventory>();
        std::istringstream words(objects);
        for (std::string word; words >> word;) {
            const std::string id = word.substr(0, word.find('='));
            const std::string name = word.substr(id.size() + 1);
            if (word.starts_with("ds-")) {
                auto& info = infos[word];
                info = info ? info : MakeRef<Hask::Datastore::Info>();
                info->SetName(name);
                made->datastores.emplace(id, info);
                continue;
            }
            auto& config = configs[word];
            config = config ? config : MakeRef<Hask::Vm::ConfigInfo>();
            config->SetName(name);
            auto vm = std::make_shared<Vm>();
            vm->id = id;
            vm->config = config;
            made->Add(vm);
        }
        inventory = made;
    }
    // The parts that a client receives that has the changes up to `version`, which becomes the newest.
    std::string Receive() {
        std::string text;
        for (bool complete = false; !complete;) {
            const Ref<Changes> part = tracker->GetChanges(inventory, version);
            ExpectReadable(part);
            text += Render(*part);
            complete = part->IsComplete();
            version = part->GetVersion();
        }
        return text;
    }

    std::map<std::string, Ref<Hask::Vm::ConfigInfo>> configs;
    std::map<std::string, Ref<Hask::Datastore::Info>> infos;
    std::shared_ptr<const Inventory> inventory;
    std::unique_ptr<ChangeTracker> tracker = std::make_unique<ChangeTracker>();
    std::optional<std::string> version;
};

TEST_F(ChangeTrackerTest, SendsWhatChanged) {
    for (const auto& [objects, parts] : std::vector<std::pair<std::string, std::string>>{
             {"16=a 17=b ds-1=x", "reset 16 17 ds-1 list:16,17,ds-1,;"},
             {"16=a 17=b ds-1=x", ";"},
             {"16=c 17=b ds-1=x", " 16;"},
             {"17=b 16=c ds-1=x", " list:17,16,ds-1,;"},
             {"17=b ds-1=x", " list:17,ds-1,;"},
             {"17=b 16=c ds-1=x", " 16 list:17,16,ds-1,;"},
             {"17=b 16=c ds-1=y ds-2=z", " ds-1 ds-2 list:17,16,ds-1,ds-2,;"},
             {"17=b 16=c ds-2=z", " list:17,16,ds-2,;"},
             {"", " list:;"}}) {
        Serve(objects);
        EXPECT_EQ(Receive(), parts) << objects;
    }
    Serve("17=b ds-1=x");
    Receive();
    configs.clear();
    infos.clear();
    Serve("17=b ds-1=x");
    EXPECT_EQ(Receive(), ";");
}

TEST_F(ChangeTrackerTest, StartsAnewForAVersionOfAnotherTracker) {
    Serve("16=a 17=b");
    Receive();
    tracker = std::make_unique<ChangeTracker>();
    Serve("17=b");
    EXPECT_EQ(Receive(), "reset 17 list:17,;");
    const std::string other = ChangeTracker().GetChanges(inventory, {})->GetVersion();
    for (const std::string& each : {std::string(), std::string("-"), other, other + "9", *version + "x"}) {
        EXPECT_TRUE(tracker->GetChanges(inventory, each)->IsReset()) << each;
    }
}

TEST_F(ChangeTrackerTest, SendsTheNewestStateOfAnObjectThatChangesBetweenTwoParts) {
    const std::string large(1'500'000, 'x');
    Serve("1=a 2=" + large + " 3=" + large);
    Ref<Changes> part = tracker->GetChanges(inventory, {});
    EXPECT_EQ(Render(*part), "reset 1 2;");
    EXPECT_FALSE(part->IsComplete());
    Serve("1=b 2=" + large + " 3=" + large);
    version = part->GetVersion();
    EXPECT_EQ(Receive(), " 3 1 list:1,2,3,;");
}

// A VM whose configuration has so many elements, or so many other texts of "=".
std::shared_ptr<Vm> MakeVm(const std::string& id, int pairs, std::size_t equalSigns = 0) {
    auto vm = std::make_shared<Vm>();
    vm->id = id;
    vm->config = MakeRef<Hask::Vm::ConfigInfo>();
    vm->config->SetName(std::string(equalSigns, '='));
    auto list = MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>>();
    const auto pair = MakeRef<Hask::Vm::ConfigInfo::DatastoreUrlPair>();
    for (int count = 0; count < pairs; ++count) {
        list->Append(pair);
    }
    vm->config->SetDatastoreUrl(list);
    return vm;
}

TEST_F(ChangeTrackerTest, MakesPartsThatAClientCanRead) {
    auto many = std::make_shared<Inventory>();
    for (int id = 0; id < 1000; ++id) {
        many->Add(MakeVm(std::to_string(id), 350));
    }
    const auto partition = MakeRef<Hask::Host::ScsiDisk::Partition>();
    for (int id = 0; id < 1900; ++id) {
        auto info = MakeRef<Hask::Host::DrellDatastoreInfo>();
        info->SetDrell(MakeRef<Hask::Host::DrellVolume>());
        info->GetDrell()->SetExtent(MakeRef<Ordane::DataArray<Hask::Host::ScsiDisk::Partition>>());
        for (int count = 0; count < 300; ++count) {
            info->GetDrell()->GetExtent()->Append(partition);
        }
        many->datastores.emplace("ds-" + std::to_string(id), info);
    }
    inventory = many;
    const std::string parts = Receive();
    EXPECT_GT(std::count(parts.begin(), parts.end(), ';'), 40);
    EXPECT_NE(parts.find(" 999 "), std::string::npos);
    EXPECT_NE(parts.find(" ds-1899"), std::string::npos);
}

TEST_F(ChangeTrackerTest, SendsALargeObjectInAPartOfItsOwnAndATooLargeOneNever) {
    const auto serve = [&](std::vector<std::shared_ptr<Vm>> vms) {
        auto made = std::make_shared<Inventory>();
        for (auto& vm : vms) {
            made->Add(std::move(vm));
        }
        inventory = made;
    };
    serve({MakeVm("1", 1), MakeVm("2", 260'000), MakeVm("3", 1)});
    EXPECT_EQ(Receive(), "reset 1; 2; 3 list:1,2,3,;");
    serve({MakeVm("1", 1), MakeVm("2", 270'000), MakeVm("3", 1, 800'000), MakeVm("4", 1, 700'000)});
    EXPECT_EQ(Receive(), " 4; list:1,4,;");
    serve({MakeVm("1", 1), MakeVm("2", 270'000), MakeVm("3", 2)});
    EXPECT_EQ(Receive(), " 3 list:1,3,;");
    serve({MakeVm("1", 1), MakeVm("2", 3)});
    EXPECT_EQ(Receive(), " 2 list:1,2,;");
}

TEST_F(ChangeTrackerTest, FailsWhenTheListIsTooLarge) {
    auto made = std::make_shared<Inventory>();
    for (int id = 0; id < 13; ++id) {
        made->datastores.emplace(std::string(2'000'000, 'x') + std::to_string(id), nullptr);
    }
    inventory = made;
    EXPECT_THROW(Receive(), Ordane::Fault::SystemError::Exception);
}

}  // namespace
}  // namespace Vessad
