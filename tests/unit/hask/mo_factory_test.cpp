#include "runtime/hask/mo_factory.h"

#include <gtest/gtest.h>

#include <functional>

#include "runtime/tessim/exception.h"

namespace Hask {
namespace {

// Writes its calls, for which it returns an empty response, and its end to a text.
class FakeAdapter final : public Ordane::StubAdapter, public Tessim::ObjectImpl {
  public:
    explicit FakeAdapter(std::string& events) : events(events) {}
    ~FakeAdapter() override { events += "deleted"; }

    Tessim::Ref<Ordane::DataObject> Invoke(const Ordane::MoRef& target, const Ordane::MethodInfo& method,
                                           const Ordane::DataObject& /*request*/) override {
        events += target.GetType() + " " + target.GetId() + " " + std::string(method.name) + ", ";
        return method.response->create();
    }
    bool IsBroken() const noexcept override { return false; }
    void Close() noexcept override {}

  private:
    std::string& events;
};

class MoFactoryTest : public testing::Test {
  protected:
    MoFactoryTest() { GetMoStubFactory("solo", adapter.Get(), factory); }

    // The object of the Stub that `getter` makes, given `id`: "type id".
    template <class Stub, class Getter, class... Id>
    std::string Made(Getter getter, Id... id) const {
        Tessim::Ref<Stub> stub;
        std::invoke(getter, *factory, id..., stub);
        return stub->GetMoRef()->GetType() + " " + stub->GetMoRef()->GetId();
    }

    std::string events;
    Tessim::Ref<FakeAdapter> adapter = Tessim::MakeRef<FakeAdapter>(events);
    Tessim::Ref<MoFactory> factory;
};

TEST_F(MoFactoryTest, MakesStubsWithoutACall) {
    EXPECT_EQ(Made<ServiceInstance>(&MoFactory::GetServiceInstance), "ServiceInstance ServiceInstance");
    EXPECT_EQ(Made<SessionManager>(&MoFactory::GetSessionManager), "SessionManager ha-sessionmgr");
    EXPECT_EQ(Made<Folder>(&MoFactory::GetVmFolder), "Folder ha-folder-vm");
    EXPECT_EQ(Made<HostSystem>(&MoFactory::GetHostSystem), "HostSystem ha-host");
    EXPECT_EQ(Made<Host::MemoryManagerSystem>(&MoFactory::GetMemoryManagerSystem),
              "MemoryManagerSystem memoryManagerSystem");
    EXPECT_EQ(Made<VirtualMachine>(&MoFactory::GetVirtualMachine, "16"), "VirtualMachine 16");
    EXPECT_EQ(Made<Datastore>(&MoFactory::GetDatastore, "ds-1"), "Datastore ds-1");
    EXPECT_EQ(Made<PerformanceManager>(&MoFactory::GetPerformanceManager, "ha-perfmgr"),
              "PerformanceManager ha-perfmgr");
    EXPECT_EQ(events, "");
}

TEST_F(MoFactoryTest, MakesStubsThatKeepTheAdapter) {
    Tessim::Ref<SessionManager> sessions;
    factory->GetSessionManager(sessions);
    factory.Reset();
    adapter.Reset();
    sessions->Logout();
    sessions.Reset();
    EXPECT_EQ(events, "SessionManager ha-sessionmgr Logout, deleted");
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
