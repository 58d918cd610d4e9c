#include "tests/support/fake_host.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "runtime/hask/host_agent.h"

namespace TestSupport {

namespace {

using Ordane::DataArray;
using Ordane::MoRef;
using Tessim::MakeRef;
using Tessim::Ref;

// A managed object of the API that takes its replies from the host.
template <class Api>
class FakeObject : public Api {
  public:
    FakeObject(FakeHost& host, const MoRef& reference)
        : Api(MakeRef<MoRef>(reference.GetType(), reference.GetId())), host(&host) {}

  protected:
    FakeHost* host;
};

class ServiceInstance final : public FakeObject<Hask::ServiceInstance> {
  public:
    using FakeObject::FakeObject;
    void RetrieveContent(Ref<Hask::ServiceInstanceContent>& out) override {
        host->Ask("RetrieveContent");
        out = host->content;
    }
};

class SessionManager final : public FakeObject<Hask::SessionManager> {
  public:
    using FakeObject::FakeObject;
    void AcquireLocalTicket(const std::string& userName, Ref<LocalTicket>& out) override {
        host->ticketRequests.push_back(userName);
        host->Ask("AcquireLocalTicket");
        out = MakeRef<LocalTicket>();
        out->SetUserName(host->ticketUser);
        out->SetPasswordFilePath(host->MakeTicketFile());
    }
    void Login(const std::string& userName, const std::string& password,
               const std::optional<std::string>& locale, Ref<Hask::UserSession>& out) override {
        host->logins.push_back({userName, password, locale});
        host->Ask("Login");
        out = MakeRef<Hask::UserSession>();
        out->SetKey("session");
        out->SetUserName(userName);
    }
    void Logout() override { host->Ask("Logout"); }
};

class Folder final : public FakeObject<Hask::Folder> {
  public:
    using FakeObject::FakeObject;
    void GetChildEntity(Ref<DataArray<MoRef>>& out) override {
        host->Ask("GetChildEntity");
        out = MakeRef<DataArray<MoRef>>();
        for (const FakeVm& vm : host->vms) {
            out->Append(MakeRef<MoRef>("VirtualMachine", vm.id));
        }
    }
};

class VirtualMachine final : public FakeObject<Hask::VirtualMachine> {
  public:
    VirtualMachine(FakeHost& host, const MoRef& reference, FakeVm vm)
        : FakeObject(host, reference), vm(std::move(vm)) {}
    void GetConfig(Ref<Hask::Vm::ConfigInfo>& out) override {
        host->Ask("GetConfig");
        out = vm.config;
    }
    void GetRuntime(Ref<Hask::Vm::RuntimeInfo>& out) override {
        host->Ask("GetRuntime");
        out = vm.runtime;
    }
    void GetGuest(Ref<Hask::Vm::GuestInfo>& out) override {
        host->Ask("GetGuest");
        out = vm.guest;
    }

  private:
    FakeVm vm;
};

class Datastore final : public FakeObject<Hask::Datastore> {
  public:
    using FakeObject::FakeObject;
    void GetInfo(Ref<Info>& out) override {
        host->Ask("GetInfo");
        out = host->datastores.at(GetMoRef()->GetId());
    }
};

class HostSystem final : public FakeObject<Hask::HostSystem> {
  public:
    using FakeObject::FakeObject;
    void GetHardware(Ref<Hask::Host::HardwareInfo>& out) override {
        host->Ask("GetHardware");
        out = host->hardware;
    }
};

class MemoryManagerSystem final : public FakeObject<Hask::Host::MemoryManagerSystem> {
  public:
    using FakeObject::FakeObject;
    void GetConsoleReservationInfo(Ref<ServiceConsoleReservationInfo>& out) override {
        host->Ask("GetConsoleReservationInfo");
        out = host->consoleReservation;
    }
};

class PerformanceManager final : public FakeObject<Hask::PerformanceManager> {
  public:
    using FakeObject::FakeObject;
    void GetPerfCounter(Ref<DataArray<CounterInfo>>& out) override {
        host->Ask("GetPerfCounter");
        out = host->counters;
    }
    void QueryPerf(DataArray<QuerySpec>* querySpec, Ref<DataArray<EntityMetricBase>>& out) override {
        host->queries.emplace_back(querySpec);
        host->Ask("QueryPerf");
        out = host->metrics;
    }
};

}  // namespace

FakeHost::FakeHost()
    : content(MakeRef<Hask::ServiceInstanceContent>()),
      counters(MakeRef<DataArray<Hask::PerformanceManager::CounterInfo>>()),
      metrics(MakeRef<DataArray<Hask::PerformanceManager::EntityMetricBase>>()) {
    content->SetSessionManager(MakeRef<MoRef>("SessionManager", Hask::HostAgent::moid_sessionmanager));
    content->SetPerfManager(MakeRef<MoRef>("PerformanceManager", Hask::HostAgent::moid_perfmanager));
    std::string name = (std::filesystem::temp_directory_path() / "tickets.XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    folder = name;
}

FakeHost::~FakeHost() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void FakeHost::WhenAsked(const std::string& method, std::function<void()> action) {
    actions[method] = std::move(action);
}

void FakeHost::Ask(const std::string& method) const {
    const auto action = actions.find(method);
    if (action != actions.end() && action->second) {
        action->second();
    }
}

Ref<Ordane::ManagedObject> FakeHost::Find(const MoRef& reference) {
    namespace Ids = Hask::HostAgent;
    const auto is = [&](const char* type, const std::string& id) {
        return reference.GetType() == type && reference.GetId() == id;
    };
    if (is("ServiceInstance", Ids::moid_serviceinstance)) {
        return MakeRef<ServiceInstance>(*this, reference);
    }
    if (is("SessionManager", Ids::moid_sessionmanager)) {
        return MakeRef<SessionManager>(*this, reference);
    }
    if (is("Folder", Ids::moid_vmfolder)) {
        return MakeRef<Folder>(*this, reference);
    }
    if (is("HostSystem", Ids::moid_hostsystem)) {
        return MakeRef<HostSystem>(*this, reference);
    }
    if (is("MemoryManagerSystem", Ids::moid_memorymanagersystem)) {
        return MakeRef<MemoryManagerSystem>(*this, reference);
    }
    if (is("PerformanceManager", Ids::moid_perfmanager)) {
        return MakeRef<PerformanceManager>(*this, reference);
    }
    if (reference.GetType() == "Datastore" && datastores.contains(reference.GetId())) {
        return MakeRef<Datastore>(*this, reference);
    }
    const auto vm = std::find_if(vms.begin(), vms.end(),
                                 [&](const FakeVm& each) { return each.id == reference.GetId(); });
    if (reference.GetType() == "VirtualMachine" && vm != vms.end()) {
        return MakeRef<VirtualMachine>(*this, reference, *vm);
    }
    return nullptr;
}

std::string FakeHost::MakeTicketFile() {
    if (ticketPath) {
        return *ticketPath;
    }
    const std::filesystem::path path = folder / std::to_string(++ticketCount);
    std::ofstream(path, std::ios::binary) << ticketContent;
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        throw std::runtime_error("no ticket file");
    }
    return path.string();
}

}  // namespace TestSupport
