#include "apps/vessad/HostObjects.h"

#include <spdlog/spdlog.h>

#include <optional>
#include <string>
#include <utility>

#include "apps/vessad/Performance.h"
#include "runtime/hask/host_agent.h"

namespace Vessad {

namespace {

using InventoryPointer = std::shared_ptr<const Inventory>;

class FolderObject final : public Hask::Folder {
  public:
    FolderObject(Tessim::Ref<Ordane::MoRef> reference, InventoryPointer inventory, ChangeTracker& changes)
        : Folder(std::move(reference)), inventory(std::move(inventory)), changes(changes) {}

    void GetChildEntity(Tessim::Ref<Ordane::DataArray<Ordane::MoRef>>& out) override {
        out = Tessim::MakeRef<Ordane::DataArray<Ordane::MoRef>>();
        out->Reserve(static_cast<int>(inventory->vms.size()));
        for (const auto& vm : inventory->vms) {
            out->Append(MakeReference<Hask::VirtualMachine>(vm->id));
        }
    }

    void RetrieveChanges(const std::optional<std::string>& since, Tessim::Ref<Changes>& out) override {
        out = changes.GetChanges(inventory, since);
    }

  private:
    InventoryPointer inventory;
    ChangeTracker& changes;
};

class VmObject final : public Hask::VirtualMachine {
  public:
    VmObject(Tessim::Ref<Ordane::MoRef> reference, std::shared_ptr<const Vm> vm)
        : VirtualMachine(std::move(reference)), vm(std::move(vm)) {}

    void GetConfig(Tessim::Ref<Hask::Vm::ConfigInfo>& out) override { out = vm->config; }
    void GetRuntime(Tessim::Ref<Hask::Vm::RuntimeInfo>& out) override { out = vm->runtime; }
    void GetGuest(Tessim::Ref<Hask::Vm::GuestInfo>& out) override { out = vm->guest; }

  private:
    std::shared_ptr<const Vm> vm;
};

class DatastoreObject final : public Hask::Datastore {
  public:
    DatastoreObject(Tessim::Ref<Ordane::MoRef> reference, Tessim::Ref<Info> info)
        : Datastore(std::move(reference)), info(std::move(info)) {}

    void GetInfo(Tessim::Ref<Info>& out) override { out = info; }

  private:
    Tessim::Ref<Info> info;
};

class HostObject final : public Hask::HostSystem {
  public:
    HostObject(Tessim::Ref<Ordane::MoRef> reference, InventoryPointer inventory)
        : HostSystem(std::move(reference)), inventory(std::move(inventory)) {}

    void GetHardware(Tessim::Ref<Hask::Host::HardwareInfo>& out) override { out = inventory->hardware; }

  private:
    InventoryPointer inventory;
};

class MemoryManagerObject final : public Hask::Host::MemoryManagerSystem {
  public:
    MemoryManagerObject(Tessim::Ref<Ordane::MoRef> reference, InventoryPointer inventory)
        : MemoryManagerSystem(std::move(reference)), inventory(std::move(inventory)) {}

    void GetConsoleReservationInfo(Tessim::Ref<ServiceConsoleReservationInfo>& out) override {
        out = inventory->serviceConsole;
    }

  private:
    InventoryPointer inventory;
};

class PerformanceObject final : public Hask::PerformanceManager {
  public:
    PerformanceObject(Tessim::Ref<Ordane::MoRef> reference, InventoryPointer inventory,
                      std::chrono::nanoseconds elapsed)
        : PerformanceManager(std::move(reference)), inventory(std::move(inventory)), elapsed(elapsed) {}

    void GetPerfCounter(Tessim::Ref<Ordane::DataArray<CounterInfo>>& out) override {
        out = Tessim::MakeRef<Ordane::DataArray<CounterInfo>>();
        for (const auto& counter : inventory->counters) {
            out->Append(counter);
        }
    }

    void QueryPerf(Ordane::DataArray<QuerySpec>* querySpec,
                   Tessim::Ref<Ordane::DataArray<EntityMetricBase>>& out) override {
        spdlog::debug("QueryPerf for {} entities", querySpec->GetLength());
        out = QueryPerformance(*inventory, *querySpec, elapsed);
    }

    void QueryLatest(Ordane::DataArray<Ordane::MoRef>* entity, Ordane::DataArray<MetricId>* metricId,
                     Tessim::Ref<LatestSamples>& out) override {
        spdlog::debug("QueryLatest for {} entities", entity->GetLength());
        out = QueryLatestSamples(*inventory, *entity, *metricId, elapsed);
    }

  private:
    InventoryPointer inventory;
    std::chrono::nanoseconds elapsed;
};

}  // namespace

Tessim::Ref<Ordane::ManagedObject> FindHostObject(const std::shared_ptr<const Inventory>& inventory,
                                                  ChangeTracker& changes, const Ordane::MoRef& reference,
                                                  std::chrono::nanoseconds elapsed) {
    namespace Ids = Hask::HostAgent;
    const auto name = Tessim::MakeRef<Ordane::MoRef>(reference.GetType(), reference.GetId());
    if (const std::shared_ptr<const Vm> vm = inventory->FindVm(reference)) {
        return Tessim::MakeRef<VmObject>(name, vm);
    }
    if (reference.GetType() == Hask::Datastore::staticType.name) {
        const auto found = inventory->datastores.find(reference.GetId());
        if (found == inventory->datastores.end()) {
            return nullptr;
        }
        return Tessim::MakeRef<DatastoreObject>(name, found->second);
    }
    if (IsReferenceTo<Hask::Folder>(reference, Ids::moid_vmfolder)) {
        return Tessim::MakeRef<FolderObject>(name, inventory, changes);
    }
    if (IsReferenceTo<Hask::HostSystem>(reference, Ids::moid_hostsystem)) {
        return Tessim::MakeRef<HostObject>(name, inventory);
    }
    if (IsReferenceTo<Hask::Host::MemoryManagerSystem>(reference, Ids::moid_memorymanagersystem)) {
        return Tessim::MakeRef<MemoryManagerObject>(name, inventory);
    }
    if (IsReferenceTo<Hask::PerformanceManager>(reference, Ids::moid_perfmanager)) {
        return Tessim::MakeRef<PerformanceObject>(name, inventory, elapsed);
    }
    return nullptr;
}

}  // namespace Vessad
