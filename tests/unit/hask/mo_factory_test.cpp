#include "runtime/hask/mo_factory.h"

#include <gtest/gtest.h>

#include <string>

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

// The clients' tests reach every object that it makes a stub of.
TEST(MoFactory, MakesStubsThatKeepTheAdapterWithoutACallInOneFlavour) {
    std::string events;
    auto adapter = Tessim::MakeRef<FakeAdapter>(events);
    Tessim::Ref<MoFactory> factory;
    for (const char* flavour : {"", "Solo", "solo ", "batch"}) {
        EXPECT_THROW(GetMoStubFactory(flavour, adapter.Get(), factory), Tessim::InvalidArgumentException);
        EXPECT_FALSE(factory);
    }
    GetMoStubFactory("solo", adapter.Get(), factory);
    Tessim::Ref<SessionManager> sessions;
    factory->GetSessionManager(sessions);
    factory.Reset();
    adapter.Reset();
    EXPECT_EQ(events, "");
    sessions->Logout();
    sessions.Reset();
    EXPECT_EQ(events, "SessionManager ha-sessionmgr Logout, deleted");
}

}  // namespace
}  // namespace Hask
