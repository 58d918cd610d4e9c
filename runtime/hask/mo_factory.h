// Where every query starts: makes the stubs of managed objects.
#pragma once

#include <string>

#include "runtime/hask/api.h"
#include "runtime/ordane/stub_adapter.h"

namespace Hask {

// Makes stubs. Each operation puts a new one into `out`, never null. None calls the daemon, so whether the
// object exists shows at the stub's first call, and nothing but a lack of memory makes one fail. Every stub
// keeps the adapter.
class MoFactory : public virtual Tessim::Object {
  public:
    virtual void GetServiceInstance(Tessim::Ref<ServiceInstance>& out) = 0;
    virtual void GetSessionManager(Tessim::Ref<SessionManager>& out) = 0;
    virtual void GetVmFolder(Tessim::Ref<Folder>& out) = 0;
    virtual void GetHostSystem(Tessim::Ref<HostSystem>& out) = 0;
    virtual void GetMemoryManagerSystem(Tessim::Ref<Host::MemoryManagerSystem>& out) = 0;
    // `id` is the object's, as the daemon gave it.
    virtual void GetVirtualMachine(const std::string& id, Tessim::Ref<VirtualMachine>& out) = 0;
    virtual void GetDatastore(const std::string& id, Tessim::Ref<Datastore>& out) = 0;
    virtual void GetPerformanceManager(const std::string& id, Tessim::Ref<PerformanceManager>& out) = 0;
};

// Puts a factory into `out` whose stubs call over `adapter`. The one flavour is "solo": each call travels on
// its own. Throws Tessim::InvalidArgumentException for another and leaves `out` as it was.
void GetMoStubFactory(const std::string& flavour, Ordane::StubAdapter* adapter, Tessim::Ref<MoFactory>& out);

}  // namespace Hask
