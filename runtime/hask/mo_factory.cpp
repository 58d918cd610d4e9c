#include "runtime/hask/mo_factory.h"

#include "runtime/hask/host_agent.h"
#include "runtime/tessim/exception.h"

namespace Hask {

namespace {

class SoloFactory final : public MoFactory, public Tessim::ObjectImpl {
  public:
    explicit SoloFactory(Ordane::StubAdapter* adapter) : adapter(adapter) {}

    void GetServiceInstance(Tessim::Ref<ServiceInstance>& out) override {
        out = ServiceInstance::MakeStub(adapter, HostAgent::moid_serviceinstance);
    }
    void GetSessionManager(Tessim::Ref<SessionManager>& out) override {
        out = SessionManager::MakeStub(adapter, HostAgent::moid_sessionmanager);
    }
    void GetVmFolder(Tessim::Ref<Folder>& out) override {
        out = Folder::MakeStub(adapter, HostAgent::moid_vmfolder);
    }
    void GetHostSystem(Tessim::Ref<HostSystem>& out) override {
        out = HostSystem::MakeStub(adapter, HostAgent::moid_hostsystem);
    }
    void GetMemoryManagerSystem(Tessim::Ref<Host::MemoryManagerSystem>& out) override {
        out = Host::MemoryManagerSystem::MakeStub(adapter, HostAgent::moid_memorymanagersystem);
    }
    void GetVirtualMachine(const std::string& id, Tessim::Ref<VirtualMachine>& out) override {
        out = VirtualMachine::MakeStub(adapter, id);
    }
    void GetDatastore(const std::string& id, Tessim::Ref<Datastore>& out) override {
        out = Datastore::MakeStub(adapter, id);
    }
    void GetPerformanceManager(const std::string& id, Tessim::Ref<PerformanceManager>& out) override {
        out = PerformanceManager::MakeStub(adapter, id);
    }

  private:
    Tessim::Ref<Ordane::StubAdapter> adapter;
};

}  // namespace

void GetMoStubFactory(const std::string& flavour, Ordane::StubAdapter* adapter, Tessim::Ref<MoFactory>& out) {
    if (flavour != "solo") {
        throw Tessim::InvalidArgumentException("no stub flavour '" + flavour + "'");
    }
    out = Tessim::MakeRef<SoloFactory>(adapter);
}

}  // namespace Hask
