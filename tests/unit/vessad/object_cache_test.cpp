// The client's cache against the daemon's objects.
#include "runtime/hask/object_cache.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "apps/vessad/HostObjects.h"
#include "runtime/hask/host_agent.h"
#include "runtime/ordane/faults.h"

namespace Vessad {
namespace {

namespace Fault = Ordane::Fault;
using Ordane::DataArray;
using Ordane::MoRef;
using Tessim::MakeRef;
using Tessim::Ref;
using References = DataArray<MoRef>;

// Carries no call; the tests pass objects in place of stubs.
class FakeAdapter final : public Ordane::StubAdapter, public Tessim::ObjectImpl {
  public:
    Ref<Ordane::DataObject> Invoke(const MoRef& /*target*/, const Ordane::MethodInfo& /*method*/,
                                   const Ordane::DataObject& /*request*/) override {
        throw Fault::HostCommunication::Exception("no daemon");
    }
    bool IsBroken() const noexcept override { return broken; }
    void Close() noexcept override { broken = true; }

  private:
    bool broken = false;
};

// The folder of a daemon. Notes its replies as text.
class FakeFolder final : public Hask::Folder {
  public:
    FakeFolder() : Folder(MakeRef<MoRef>("Folder", Hask::HostAgent::moid_vmfolder)) {}

    void GetChildEntity(Ref<References>& out) override {
        replies += "children;";
        out = MakeRef<References>();
    }
    void RetrieveChanges(const std::optional<std::string>& since, Ref<Changes>& out) override {
        out = reply(since);
        replies += out->IsReset() ? "reset" : "";
        for (const auto& vm : *out->GetVm()) {
            replies += " " + vm->GetEntity()->GetId();
        }
        for (const auto& datastore : *out->GetDatastore()) {
            replies += " " + datastore->GetEntity()->GetId();
        }
        replies += out->GetObjects() != nullptr ? " list;" : ";";
    }

    std::function<Ref<Changes>(const std::optional<std::string>&)> reply;
    std::string replies;
};

Tessim::Clock::time_point now{};

class ObjectCacheTest : public testing::Test {
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
    // Returns what was sent and, behind it, what the cache has.
    std::string List() {
        folder->replies.clear();
        Ref<References> children;
        cache->ListChildren(*folder, children);
        std::string text = folder->replies + " ->";
        for (const auto& child : *children) {
            const auto* const vm = cache->FindVm(child->GetId());
            text += " " + child->GetId() + "=" + (vm != nullptr ? vm->GetConfig()->GetName() : "?");
        }
        for (const char* const id : {"ds-1", "ds-2"}) {
            const auto* const datastore = cache->FindDatastore(id);
            text +=
                datastore != nullptr ? " " + std::string(id) + "=" + *datastore->GetInfo()->GetName() : "";
        }
        return text;
    }

    std::map<std::string, Ref<Hask::Vm::ConfigInfo>> configs;
    std::map<std::string, Ref<Hask::Datastore::Info>> infos;
    std::shared_ptr<const Inventory> inventory;
    std::unique_ptr<ChangeTracker> tracker = std::make_unique<ChangeTracker>();
    Ref<FakeAdapter> adapter = MakeRef<FakeAdapter>();
    Ref<Hask::ObjectCache> cache = MakeRef<Hask::ObjectCache>(adapter, [] { return now; });
    Ref<FakeFolder> folder = [this] {
        auto made = MakeRef<FakeFolder>();
        made->reply = [this](const auto& since) { return tracker->GetChanges(inventory, since); };
        return made;
    }();
};

TEST_F(ObjectCacheTest, ReceivesWhatChanged) {
    for (const auto& [objects, result] : std::vector<std::pair<std::string, std::string>>{
             {"16=a 17=b ds-1=x", "reset 16 17 ds-1 list; -> 16=a 17=b ds-1=x"},
             {"16=a 17=b ds-1=x", "; -> 16=a 17=b ds-1=x"},
             {"16=c 17=b ds-1=x", " 16; -> 16=c 17=b ds-1=x"},
             {"17=b 16=c ds-1=x", " list; -> 17=b 16=c ds-1=x"},
             {"17=b ds-1=x", " list; -> 17=b ds-1=x"},
             {"17=b 16=c ds-1=x", " 16 list; -> 17=b 16=c ds-1=x"},
             {"17=b 16=c ds-1=y ds-2=z", " ds-1 ds-2 list; -> 17=b 16=c ds-1=y ds-2=z"},
             {"17=b 16=c ds-2=z", " list; -> 17=b 16=c ds-2=z"},
             {"", " list; ->"}}) {
        Serve(objects);
        EXPECT_EQ(List(), result) << objects;
    }
    Serve("17=b ds-1=x");
    List();
    configs.clear();
    infos.clear();
    Serve("17=b ds-1=x");
    EXPECT_EQ(List(), "; -> 17=b ds-1=x");
}

TEST_F(ObjectCacheTest, StartsAnewWithADaemonThatRestarted) {
    Serve("16=a 17=b");
    List();
    tracker = std::make_unique<ChangeTracker>();
    Serve("17=b");
    EXPECT_EQ(List(), "reset 17 list; -> 17=b");
    const std::string other = ChangeTracker().GetChanges(inventory, {})->GetVersion();
    for (const std::string& version : {std::string(), std::string("-"), other, other + "9"}) {
        EXPECT_TRUE(tracker->GetChanges(inventory, version)->IsReset()) << version;
    }
}

TEST_F(ObjectCacheTest, ReceivesManyChangesInParts) {
    const auto large = [](const std::string& id) {
        auto vm = std::make_shared<Vm>();
        vm->id = id;
        vm->config = MakeRef<Hask::Vm::ConfigInfo>();
        auto hardware = MakeRef<Hask::Vm::VirtualHardware>();
        auto devices = MakeRef<DataArray<Hask::Vm::Device::VirtualDevice>>();
        for (int key = 0; key < 1500; ++key) {
            devices->Append(MakeRef<Hask::Vm::Device::VirtualDevice>());
        }
        hardware->SetDevice(devices);
        vm->config->SetHardware(hardware);
        return vm;
    };
    auto first = std::make_shared<Inventory>();
    auto second = std::make_shared<Inventory>();
    for (const char* const id : {"1", "2", "3"}) {
        first->Add(large(id));
        second->Add(id == std::string("1") ? large(id) : first->vms.back());
    }
    second->vms[0]->config->SetName("new");
    // The VM "1" changes while the parts are on their way.
    inventory = first;
    folder->reply = [&](const auto& since) {
        auto changes = tracker->GetChanges(inventory, since);
        inventory = second;
        return changes;
    };
    EXPECT_EQ(List(), "reset 1 2; 3 1 list; -> 1=new 2= 3=");
}

TEST_F(ObjectCacheTest, IsAskedForFiveSecondsAndOnAWorkingConnectionOnly) {
    Serve("16=a");
    List();
    now += std::chrono::milliseconds(4999);
    EXPECT_NE(cache->FindVm("16"), nullptr);
    EXPECT_EQ(cache->FindVm("17"), nullptr);
    now += std::chrono::milliseconds(1);
    EXPECT_EQ(cache->FindVm("16"), nullptr);
    EXPECT_EQ(List(), "; -> 16=a");
    adapter->Close();
    EXPECT_EQ(cache->FindVm("16"), nullptr);
}

TEST_F(ObjectCacheTest, ListsTheChildrenWhereTheirChangesCannotBeRetrieved) {
    using Changes = Hask::Folder::Changes;
    const auto make = [](const char* version, bool complete, int vms) {
        auto changes = MakeRef<Changes>();
        changes->SetVersion(version);
        changes->SetComplete(complete);
        for (int id = 0; id < vms; ++id) {
            auto vm = MakeRef<Hask::Vm::State>();
            vm->SetEntity(MakeRef<MoRef>("VirtualMachine", std::to_string(id)));
            changes->GetVm()->Append(vm);
        }
        return changes;
    };
    struct Case {
        const char* name;
        std::function<Ref<Changes>()> reply;
        int attempts;  // in two listings
    };
    for (const Case& each : std::vector<Case>{
             {"unknown", []() -> Ref<Changes> { throw Fault::InvalidRequest::Exception("no such method"); },
              1},
             {"malformed", []() -> Ref<Changes> { throw Fault::InvalidResponse::Exception("no XML"); }, 1},
             {"failed", []() -> Ref<Changes> { throw Fault::SystemError::Exception("not today"); }, 2},
             {"without a list", [&] { return make("1", true, 0); }, 1},
             {"without an end", [&] { return make("1", false, 1); }, 2},
             {"too many", [&] { return make("1", true, 100'001); }, 1}}) {
        int attempts = 0;
        folder->reply = [&](const auto& /*since*/) {
            ++attempts;
            return each.reply();
        };
        cache = MakeRef<Hask::ObjectCache>(adapter, [] { return now; });
        for (int listing = 0; listing < 2; ++listing) {
            EXPECT_TRUE(List().ends_with("children; ->")) << each.name;
            EXPECT_EQ(cache->FindVm("0"), nullptr) << each.name;
        }
        EXPECT_EQ(attempts, each.attempts) << each.name;
    }
    folder->reply = [](const auto& /*since*/) -> Ref<Changes> {
        throw Fault::HostCommunication::Exception("gone");
    };
    cache = MakeRef<Hask::ObjectCache>(adapter);
    EXPECT_THROW(List(), Fault::HostCommunication::Exception);
}

TEST(LatestSamples, AreRefusedWhenTheyAreMalformed) {
    class Manager final : public Hask::PerformanceManager {
      public:
        Manager() : PerformanceManager(MakeRef<MoRef>("PerformanceManager", "ha-perfmgr")) {}
        void GetPerfCounter(Ref<DataArray<CounterInfo>>& /*out*/) override {}
        void QueryPerf(DataArray<QuerySpec>* /*specs*/, Ref<DataArray<EntityMetricBase>>& out) override {
            out = nullptr;
        }
        void QueryLatest(References* /*entity*/, DataArray<MetricId>* /*metricId*/,
                         Ref<LatestSamples>& out) override {
            out = MakeRef<LatestSamples>();
            out->GetSeries()->Append(MakeRef<MetricId>());
            out->SetSamples({samples});
        }
        std::string samples;
    };
    const auto manager = MakeRef<Manager>();
    DataArray<Hask::PerformanceManager::QuerySpec> specs;
    specs.Append(MakeRef<Hask::PerformanceManager::QuerySpec>());
    for (const auto& [samples, valid] :
         std::vector<std::pair<const char*, bool>>{{"0", true},
                                                   {"0 0 -9223372036854775808", true},
                                                   {"", false},
                                                   {"1", false},
                                                   {"-1", false},
                                                   {"x", false},
                                                   {"0 0", false},
                                                   {"0 1 5", false},
                                                   {"0 0 ", false},
                                                   {"0  0 5", false},
                                                   {"0 0 5x", false},
                                                   {"0 0 9223372036854775808", false}}) {
        manager->samples = samples;
        Ref<DataArray<Hask::PerformanceManager::EntityMetricBase>> results;
        Hask::ObjectCache(nullptr).QueryPerf(*manager, &specs, results);
        EXPECT_EQ(static_cast<bool>(results), valid) << samples;
    }
}

}  // namespace
}  // namespace Vessad
