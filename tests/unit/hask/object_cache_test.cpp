#include "runtime/hask/object_cache.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "runtime/hask/host_agent.h"
#include "runtime/ordane/faults.h"

namespace Hask {
namespace {

namespace Fault = Ordane::Fault;
using Changes = Folder::Changes;
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

// Makes a part of the changes of words: "reset", "more" for an incomplete one, "VM=NAME", "ds-N=NAME",
// "list:ID,ID" and "v:VERSION".
Ref<Changes> MakeChanges(const std::string& text) {
    auto changes = MakeRef<Changes>();
    changes->SetVersion("1");
    changes->SetComplete(true);
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const std::string id = word.substr(0, word.find('='));
        const std::string name = word.substr(std::min(word.size(), id.size() + 1));
        if (word == "reset") {
            changes->SetReset(true);
        } else if (word == "more") {
            changes->SetComplete(false);
        } else if (word.starts_with("v:")) {
            changes->SetVersion(word.substr(2));
        } else if (word.starts_with("list:")) {
            auto objects = MakeRef<Folder::Objects>();
            std::istringstream ids(word.substr(5));
            for (std::string each; std::getline(ids, each, ',');) {
                const bool isDatastore = each.starts_with("ds-");
                (isDatastore ? objects->GetDatastore() : objects->GetVm())
                    ->Append(MakeRef<MoRef>(isDatastore ? "Datastore" : "VirtualMachine", each));
            }
            changes->SetObjects(objects);
        } else if (word.starts_with("ds-")) {
            auto state = MakeRef<Datastore::State>();
            state->SetEntity(MakeRef<MoRef>("Datastore", id));
            state->SetInfo(MakeRef<Datastore::Info>());
            state->GetInfo()->SetName(name);
            changes->GetDatastore()->Append(state);
        } else {
            auto state = MakeRef<Vm::State>();
            state->SetEntity(MakeRef<MoRef>("VirtualMachine", id));
            state->SetConfig(MakeRef<Vm::ConfigInfo>());
            state->GetConfig()->SetName(name);
            changes->GetVm()->Append(state);
        }
    }
    return changes;
}

// The folder of a daemon.
class FakeFolder final : public Folder {
  public:
    FakeFolder() : Folder(MakeRef<MoRef>("Folder", HostAgent::moid_vmfolder)) {}

    void GetChildEntity(Ref<References>& out) override { out = MakeRef<References>(); }
    void RetrieveChanges(const std::optional<std::string>& since, Ref<Changes>& out) override {
        versions += since.value_or("-") + ' ';
        out = reply();
    }

    std::function<Ref<Changes>()> reply;
    std::string versions;  // of the calls
};

Tessim::Clock::time_point now{};

class ObjectCacheTest : public testing::Test {
  protected:
    void List() {
        Ref<References> children;
        cache->ListChildren(*folder, children);
        EXPECT_TRUE(children);
    }
    // Lists the folder of a daemon that replies with `parts`, separated by "; ", the last one for ever.
    // Returns the versions of its calls and, behind them, what the cache has of "1", "2", "3", "ds-1" and
    // "ds-2".
    std::string Listing(const std::string& parts) {
        replies.clear();
        for (std::size_t at = 0; at != std::string::npos;) {
            const std::size_t end = parts.find("; ", at);
            replies.push_back(parts.substr(at, end - at));
            at = end == std::string::npos ? end : end + 2;
        }
        next = 0;
        folder->reply = [&] { return MakeChanges(replies.at(std::min(next++, replies.size() - 1))); };
        folder->versions.clear();
        List();
        std::string found;
        for (const char* const id : {"1", "2", "3"}) {
            const auto* const vm = cache->FindVm(id);
            found += vm != nullptr ? std::string(" ") + id + "=" + vm->GetConfig()->GetName() : "";
        }
        for (const char* const id : {"ds-1", "ds-2"}) {
            const auto* const datastore = cache->FindDatastore(id);
            found +=
                datastore != nullptr ? std::string(" ") + id + "=" + *datastore->GetInfo()->GetName() : "";
        }
        return folder->versions + "->" + found;
    }

    std::vector<std::string> replies;
    std::size_t next = 0;
    Ref<FakeAdapter> adapter = MakeRef<FakeAdapter>();
    Ref<ObjectCache> cache = MakeRef<ObjectCache>(adapter, [] { return now; });
    Ref<FakeFolder> folder = MakeRef<FakeFolder>();
};

TEST_F(ObjectCacheTest, KeepsWhatItReceives) {
    for (const auto& [parts, result] : std::vector<std::pair<std::string, std::string>>{
             {"reset 1=a 2=b ds-1=x list:1,2,ds-1 v:A", "- -> 1=a 2=b ds-1=x"},
             {"v:A", "A -> 1=a 2=b ds-1=x"},
             {"1=c ds-1=y v:B", "A -> 1=c 2=b ds-1=y"},
             {"2=d more v:C; 3=e ds-2=z more v:D; list:2,3,ds-2 v:E", "B C D -> 2=d 3=e ds-2=z"},
             // The newest list and the newest state count, in whatever order they come.
             {"list:1,2 1=x more v:F; 1=y 2=z 3=u v:G", "E F -> 1=y 2=z"},
             {"list:1,2 3=x more v:H; list:2 1=x v:I", "G H -> 2=z"},
             {"reset 3=a list:3 v:J", "I -> 3=a"},
             {"list: v:K", "J ->"}}) {
        EXPECT_EQ(Listing(parts), result) << parts;
    }
}

TEST_F(ObjectCacheTest, ReturnsObjectsForFiveSecondsAndOnAWorkingConnection) {
    const std::string parts = "reset 1=a list:1";
    Listing(parts);
    now += std::chrono::milliseconds(4999);
    EXPECT_NE(cache->FindVm("1"), nullptr);
    EXPECT_EQ(cache->FindVm("2"), nullptr);
    now += std::chrono::milliseconds(1);
    EXPECT_EQ(cache->FindVm("1"), nullptr);
    EXPECT_EQ(Listing(parts), "1 -> 1=a");
    adapter->Close();
    EXPECT_EQ(cache->FindVm("1"), nullptr);
}

TEST_F(ObjectCacheTest, ReceivesChangesAtTheFirstUseAfterAListing) {
    Listing("reset 1=a list:1");
    List();
    List();
    EXPECT_EQ(folder->versions, "- ");
    EXPECT_NE(cache->FindVm("1"), nullptr);
    EXPECT_NE(cache->FindVm("1"), nullptr);
    EXPECT_EQ(folder->versions, "- 1 ");
    folder->reply = []() -> Ref<Changes> { throw Fault::HostCommunication::Exception("gone"); };
    List();
    EXPECT_THROW(cache->FindVm("1"), Fault::HostCommunication::Exception);
    EXPECT_EQ(cache->FindVm("1"), nullptr);
}

TEST_F(ObjectCacheTest, IsEmptyWhereTheChangesCannotBeUsed) {
    struct Case {
        const char* name;
        std::function<Ref<Changes>()> reply;
        const char* versions;
    };
    for (const Case& each : std::vector<Case>{
             {"unknown", []() -> Ref<Changes> { throw Fault::InvalidRequest::Exception("no such method"); },
              "-"},
             {"malformed", []() -> Ref<Changes> { throw Fault::InvalidResponse::Exception("no VM"); }, "-"},
             {"failed", []() -> Ref<Changes> { throw Fault::SystemError::Exception("not today"); }, "-"},
             {"nothing", []() -> Ref<Changes> { return nullptr; }, "-"},
             {"without a list", [] { return MakeChanges("reset 1=a"); }, "-"},
             {"without an end", [] { return MakeChanges("1=a more"); }, "- 1"},
             {"without an end and from nothing", [] { return MakeChanges("reset 1=a more"); }, "- 1"}}) {
        cache = MakeRef<ObjectCache>(adapter, [] { return now; });
        folder->versions.clear();
        folder->reply = each.reply;
        List();
        EXPECT_EQ(cache->FindVm("1"), nullptr) << each.name;
        EXPECT_EQ(folder->versions, std::string(each.versions) + ' ') << each.name;
        // Not for long: nothing is kept, and the next attempt receives everything.
        EXPECT_EQ(Listing("reset 1=b list:1"), "- -> 1=b") << each.name;
    }
}

TEST_F(ObjectCacheTest, TriesLessOftenTheLongerTheChangesCannotBeUsed) {
    std::string attempts;
    for (int listing = 0; listing < 200; ++listing) {
        Listing("");
        attempts += folder->versions.empty() ? "" : std::to_string(listing) + ' ';
    }
    EXPECT_EQ(attempts, "0 1 3 7 15 31 63 127 191 ");
}

TEST_F(ObjectCacheTest, KeepsNoMoreThanItsLimit) {
    constexpr std::size_t limit = 100'000;
    cache = MakeRef<ObjectCache>(
        adapter, [] { return now; }, limit);
    const std::string large(40'000, 'x');
    // What replaces another, or is removed, leaves room.
    for (int version = 0; version < 20; ++version) {
        EXPECT_TRUE(Listing("1=" + large + " list:1").ends_with("-> 1=" + large));
        EXPECT_TRUE(Listing("2=" + large + " list:2").ends_with("-> 2=" + large));
    }
    EXPECT_EQ(Listing("1=" + large + " 2=" + large + " 3=" + large + " list:1,2,3"), "1 ->");
    EXPECT_EQ(Listing("reset 1=a list:1"), "- -> 1=a");
    std::string objects;
    for (int id = 0; id < 2000; ++id) {
        objects += (id == 0 ? " list:" : ",") + std::to_string(id);
    }
    EXPECT_EQ(Listing("reset 1=a" + objects), "1 ->");
    std::string states;
    for (int id = 0; id < 400; ++id) {
        states += ' ' + std::to_string(id) + '=';
    }
    EXPECT_EQ(Listing("reset list:1" + states), "- ->");
}

class Manager final : public PerformanceManager {
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
        out->SetSamples(samples);
    }
    std::vector<std::string> samples;
};

// Whether the compact form with these texts is accepted.
bool Accepts(std::vector<std::string> samples) {
    const auto manager = MakeRef<Manager>();
    manager->samples = std::move(samples);
    DataArray<PerformanceManager::QuerySpec> specs;
    specs.Append(MakeRef<PerformanceManager::QuerySpec>());
    Ref<DataArray<PerformanceManager::EntityMetricBase>> results;
    ObjectCache(nullptr).QueryPerf(*manager, &specs, results);
    return static_cast<bool>(results);
}

TEST(LatestSamples, AreRefusedWhenTheyAreMalformed) {
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
        EXPECT_EQ(Accepts({samples}), valid) << samples;
    }
}

TEST(LatestSamples, AreAMillionAtMost) {
    std::string half = "0";
    for (int count = 0; count < 500'000; ++count) {
        half += " 0 5";
    }
    EXPECT_TRUE(Accepts({half, half}));
    EXPECT_FALSE(Accepts({half, half + " 0 5"}));
}

}  // namespace
}  // namespace Hask
