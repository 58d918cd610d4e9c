#include "runtime/hask/mo_factory.h"

#include "runtime/hask/host_agent.h"
#include "runtime/hask/object_cache.h"
#include "runtime/tessim/exception.h"

namespace Hask {

namespace {

// The stubs below return what the cache keeps, and else call the daemon. The cache itself calls the methods
// that pass through them unchanged, on the stubs that they hold.

class CachedFolder final : public Folder {
  public:
    CachedFolder(Tessim::Ref<Folder> stub, Tessim::Ref<ObjectCache> cache)
        : Folder(stub->GetMoRef()), stub(std::move(stub)), cache(std::move(cache)) {}

    void GetChildEntity(Tessim::Ref<Ordane::DataArray<Ordane::MoRef>>& out) override {
        cache->ListChildren(*stub, out);
    }
    void RetrieveChanges(const std::optional<std::string>& since, Tessim::Ref<Changes>& out) override {
        stub->RetrieveChanges(since, out);
    }

  private:
    const Tessim::Ref<Folder> stub;
    const Tessim::Ref<ObjectCache> cache;
};

class CachedVm final : public VirtualMachine {
  public:
    CachedVm(Tessim::Ref<Ordane::StubAdapter> adapter, const std::string& id, Tessim::Ref<ObjectCache> cache)
        : VirtualMachine(Tessim::MakeRef<Ordane::MoRef>(std::string(staticType.name), id)),
          adapter(std::move(adapter)),
          cache(std::move(cache)) {}

    void GetConfig(Tessim::Ref<Vm::ConfigInfo>& out) override {
        if (const Vm::State* const state = Find()) {
            out = state->GetConfig();
        } else {
            MakeStub()->GetConfig(out);
        }
    }
    void GetRuntime(Tessim::Ref<Vm::RuntimeInfo>& out) override {
        if (const Vm::State* const state = Find()) {
            out = state->GetRuntime();
        } else {
            MakeStub()->GetRuntime(out);
        }
    }
    void GetGuest(Tessim::Ref<Vm::GuestInfo>& out) override {
        if (const Vm::State* const state = Find()) {
            out = state->GetGuest();
        } else {
            MakeStub()->GetGuest(out);
        }
    }

  private:
    const Vm::State* Find() const { return cache->FindVm(GetMoRef()->GetId()); }
    Tessim::Ref<VirtualMachine> MakeStub() const {
        return VirtualMachine::MakeStub(adapter, GetMoRef()->GetId());
    }

    const Tessim::Ref<Ordane::StubAdapter> adapter;
    const Tessim::Ref<ObjectCache> cache;
};

class CachedDatastore final : public Datastore {
  public:
    CachedDatastore(Tessim::Ref<Datastore> stub, Tessim::Ref<ObjectCache> cache)
        : Datastore(stub->GetMoRef()), stub(std::move(stub)), cache(std::move(cache)) {}

    void GetInfo(Tessim::Ref<Info>& out) override {
        if (const State* const state = cache->FindDatastore(GetMoRef()->GetId())) {
            out = state->GetInfo();
        } else {
            stub->GetInfo(out);
        }
    }

  private:
    const Tessim::Ref<Datastore> stub;
    const Tessim::Ref<ObjectCache> cache;
};

class CachedPerformanceManager final : public PerformanceManager {
  public:
    CachedPerformanceManager(Tessim::Ref<PerformanceManager> stub, Tessim::Ref<ObjectCache> cache)
        : PerformanceManager(stub->GetMoRef()), stub(std::move(stub)), cache(std::move(cache)) {}

    void GetPerfCounter(Tessim::Ref<Ordane::DataArray<CounterInfo>>& out) override {
        stub->GetPerfCounter(out);
    }
    void QueryPerf(Ordane::DataArray<QuerySpec>* querySpec,
                   Tessim::Ref<Ordane::DataArray<EntityMetricBase>>& out) override {
        cache->QueryPerf(*stub, querySpec, out);
    }
    void QueryLatest(Ordane::DataArray<Ordane::MoRef>* entity, Ordane::DataArray<MetricId>* metricId,
                     Tessim::Ref<LatestSamples>& out) override {
        stub->QueryLatest(entity, metricId, out);
    }

  private:
    const Tessim::Ref<PerformanceManager> stub;
    const Tessim::Ref<ObjectCache> cache;
};

class SoloFactory final : public MoFactory, public Tessim::ObjectImpl {
  public:
    explicit SoloFactory(Ordane::StubAdapter* adapter)
        : adapter(adapter), cache(Tessim::MakeRef<ObjectCache>(this->adapter)) {}

    void GetServiceInstance(Tessim::Ref<ServiceInstance>& out) override {
        out = ServiceInstance::MakeStub(adapter, HostAgent::moid_serviceinstance);
    }
    void GetSessionManager(Tessim::Ref<SessionManager>& out) override {
        out = SessionManager::MakeStub(adapter, HostAgent::moid_sessionmanager);
    }
    void GetVmFolder(Tessim::Ref<Folder>& out) override {
        out = Tessim::MakeRef<CachedFolder>(Folder::MakeStub(adapter, HostAgent::moid_vmfolder), cache);
    }
    void GetHostSystem(Tessim::Ref<HostSystem>& out) override {
        out = HostSystem::MakeStub(adapter, HostAgent::moid_hostsystem);
    }
    void GetMemoryManagerSystem(Tessim::Ref<Host::MemoryManagerSystem>& out) override {
        out = Host::MemoryManagerSystem::MakeStub(adapter, HostAgent::moid_memorymanagersystem);
    }
    void GetVirtualMachine(const std::string& id, Tessim::Ref<VirtualMachine>& out) override {
        out = Tessim::MakeRef<CachedVm>(adapter, id, cache);
    }
    void GetDatastore(const std::string& id, Tessim::Ref<Datastore>& out) override {
        out = Tessim::MakeRef<CachedDatastore>(Datastore::MakeStub(adapter, id), cache);
    }
    void GetPerformanceManager(const std::string& id, Tessim::Ref<PerformanceManager>& out) override {
        out = Tessim::MakeRef<CachedPerformanceManager>(PerformanceManager::MakeStub(adapter, id), cache);
    }

  private:
    const Tessim::Ref<Ordane::StubAdapter> adapter;
    const Tessim::Ref<ObjectCache> cache;
};

}  // namespace

void GetMoStubFactory(const std::string& flavour, Ordane::StubAdapter* adapter, Tessim::Ref<MoFactory>& out) {
    if (flavour != "solo") {
        throw Tessim::InvalidArgumentException("no stub flavour '" + flavour + "'");
    }
    out = Tessim::MakeRef<SoloFactory>(adapter);
}

}  // namespace Hask
