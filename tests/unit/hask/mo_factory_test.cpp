#include "runtime/hask/mo_factory.h"

#include <gtest/gtest.h>

#include "runtime/tessim/exception.h"

namespace Hask {
namespace {

// Counts the calls, and answers each by an empty response.
class CountingAdapter final : public Ordane::StubAdapter, public Tessim::ObjectImpl {
  public:
    explicit CountingAdapter(bool& alive) : alive(alive) { alive = true; }
    ~CountingAdapter() override { alive = false; }

    Tessim::Ref<Ordane::DataObject> Invoke(const Ordane::MoRef& target, const Ordane::MethodInfo& method,
                                           const Ordane::DataObject& /*request*/) override {
        called.push_back(target.GetType() + " " + target.GetId() + " " + std::string(method.name));
        return method.response->create();
    }
    void Close() noexcept override {}

    std::vector<std::string> called;

  private:
    bool& alive;
};

class MoFactoryTest : public testing::Test {
  protected:
    MoFactoryTest() { GetMoStubFactory("solo", adapter.Get(), factory); }

    template <class Stub>
    static std::string NameOf(const Tessim::Ref<Stub>& stub) {
        return stub->GetMoRef()->GetType() + " " + stub->GetMoRef()->GetId();
    }

    bool alive = false;
    Tessim::Ref<CountingAdapter> adapter = Tessim::MakeRef<CountingAdapter>(alive);
    Tessim::Ref<MoFactory> factory;
};

TEST_F(MoFactoryTest, MakesTheStubsOfTheSingletons) {
    Tessim::Ref<ServiceInstance> instance;
    factory->GetServiceInstance(instance);
    EXPECT_EQ(NameOf(instance), "ServiceInstance ServiceInstance");
    Tessim::Ref<SessionManager> sessions;
    factory->GetSessionManager(sessions);
    EXPECT_EQ(NameOf(sessions), "SessionManager ha-sessionmgr");
    Tessim::Ref<Folder> folder;
    factory->GetVmFolder(folder);
    EXPECT_EQ(NameOf(folder), "Folder ha-folder-vm");
    Tessim::Ref<HostSystem> host;
    factory->GetHostSystem(host);
    EXPECT_EQ(NameOf(host), "HostSystem ha-host");
    Tessim::Ref<Host::MemoryManagerSystem> memory;
    factory->GetMemoryManagerSystem(memory);
    EXPECT_EQ(NameOf(memory), "MemoryManagerSystem memoryManagerSystem");
}

TEST_F(MoFactoryTest, MakesTheStubsOfNamedObjects) {
    Tessim::Ref<VirtualMachine> machine;
    factory->GetVirtualMachine("16", machine);
    EXPECT_EQ(NameOf(machine), "VirtualMachine 16");
    Tessim::Ref<Datastore> datastore;
    factory->GetDatastore("ds-1", datastore);
    EXPECT_EQ(NameOf(datastore), "Datastore ds-1");
    Tessim::Ref<PerformanceManager> performance;
    factory->GetPerformanceManager("ha-perfmgr", performance);
    EXPECT_EQ(NameOf(performance), "PerformanceManager ha-perfmgr");
}

TEST_F(MoFactoryTest, CallsNothingItself) {
    Tessim::Ref<SessionManager> sessions;
    factory->GetSessionManager(sessions);
    EXPECT_TRUE(adapter->called.empty());
    sessions->Logout();
    ASSERT_EQ(adapter->called.size(), 1U);
    EXPECT_EQ(adapter->called[0], "SessionManager ha-sessionmgr Logout");
}

TEST_F(MoFactoryTest, LeavesStubsThatKeepTheAdapter) {
    Tessim::Ref<SessionManager> sessions;
    factory->GetSessionManager(sessions);
    factory.Reset();
    adapter.Reset();
    EXPECT_TRUE(alive);
    EXPECT_NO_THROW(sessions->Logout());
    sessions.Reset();
    EXPECT_FALSE(alive);
}

TEST_F(MoFactoryTest, HasOneFlavour) {
    Tessim::Ref<MoFactory> out = factory;
    for (const char* flavour : {"", "Solo", "solo ", "batch"}) {
        EXPECT_THROW(GetMoStubFactory(flavour, adapter.Get(), out), Tessim::InvalidArgumentException);
    }
    EXPECT_EQ(out, factory);
}

}  // namespace
}  // namespace Hask
