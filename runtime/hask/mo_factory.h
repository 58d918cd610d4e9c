// Makes the stubs of managed objects. Factory and stubs are for the thread of their adapter.
#pragma once

#include <string>

#include "runtime/hask/api.h"
#include "runtime/ordane/stub_adapter.h"

namespace Hask {

// Each operation puts a new stub, never null, into `out`. None calls the daemon: an object that does not
// exist fails the stub's first call. They throw nothing but std::bad_alloc. Every stub keeps the adapter.
class MoFactory : public virtual Tessim::Object {
  public:
    virtual void GetServiceInstance(Tessim::Ref<ServiceInstance>& out) = 0;
    virtual void GetSessionManager(Tessim::Ref<SessionManager>& out) = 0;
    virtual void GetVmFolder(Tessim::Ref<Folder>& out) = 0;
    virtual void GetHostSystem(Tessim::Ref<HostSystem>& out) = 0;
    virtual void GetMemoryManagerSystem(Tessim::Ref<Host::MemoryManagerSystem>& out) = 0;
    // `id` is the object's, from the daemon's inventory.
    virtual void GetVirtualMachine(const std::string& id, Tessim::Ref<VirtualMachine>& out) = 0;
    virtual void GetDatastore(const std::string& id, Tessim::Ref<Datastore>& out) = 0;
    virtual void GetPerformanceManager(const std::string& id, Tessim::Ref<PerformanceManager>& out) = 0;
};

// Puts a factory into `out` whose stubs call over `adapter`. The one flavour is "solo": for one client, whose
// VMs, datastores and performance manager get what they can from one ObjectCache. Throws
// Tessim::InvalidArgumentException for another flavour and leaves `out` unchanged.
void GetMoStubFactory(const std::string& flavour, Ordane::StubAdapter* adapter, Tessim::Ref<MoFactory>& out);

}  // namespace Hask
